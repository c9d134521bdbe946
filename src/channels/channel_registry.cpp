#include "channels/channel_registry.hpp"

#include "channels/channel.hpp"
#include "diagnostics/log.hpp"
#include "support/json.hpp"
#include "support/queues.hpp"
#include "transport/wire.hpp"

#include <limits>

namespace qnbrl {
namespace {

constexpr Operation kMemberCount{
    .command = "getChannelMemberCount",
    .codes = {.noAck = QNBRLChannelMemberCountErrorTimeout,
              .tooManyRequests = QNBRLChannelMemberCountErrorTooOften,
              .passed = codeSet({2, 5}),
              .failure = 1},
    .logRequest = [](const boost::json::object& payload) {
      QNLog::shared().info("get channel member count: %@", payload.at("channelIds"));
    },
};

std::int32_t int32Of(const boost::json::value* v) {
  auto n = v ? looseInteger(*v) : std::nullopt;
  return static_cast<std::int32_t>(std::clamp<std::int64_t>(n.value_or(0), std::numeric_limits<std::int32_t>::min(),
                                                            std::numeric_limits<std::int32_t>::max()));
}

QNBRLChannelMemberLeftReason leftReasonOf(const std::string& text) {
  if (text == "Quit") return QNBRLChannelMemberLeftQuit;
  if (text == "Disconnect") return QNBRLChannelMemberLeftDisconnect;
  return QNBRLChannelMemberLeftUnknown;
}

}  // namespace

std::shared_ptr<QNBRLChannel> QNBRLChannelRegistry::createChannelWithId(const std::string& channelId,
                                                                        std::weak_ptr<QNBRLChannelDelegate> delegate) {
  QNLog::shared().info("create channel: %@", channelId);
  if (!isValidId(channelId)) return nullptr;
  std::shared_ptr<QNBRLChannel> found;
  {
    std::lock_guard lock(mutex_);
    auto& slot = channelDict_[channelId];
    if (!slot) {
      slot = QNBRLChannel::Impl::create(channelId, requests_,
                                        [weak = weak_from_this()](const std::shared_ptr<QNBRLChannel>& c, bool joined) {
                                          if (auto self = weak.lock()) self->onJoinedChanged(c, joined);
                                        });
    }
    found = slot;
  }
  found->impl().setDelegate(std::move(delegate));
  return found;
}

bool QNBRLChannelRegistry::destroyChannelWithId(const std::string& channelId) {
  QNLog::shared().info("destroy channel: %@", channelId);
  if (!isValidId(channelId)) return false;
  std::lock_guard lock(mutex_);
  auto it = channelDict_.find(channelId);
  if (it == channelDict_.end()) return false;
  it->second->impl().destroyed = true;
  channelDict_.erase(it);
  return true;
}

void QNBRLChannelRegistry::getChannelMemberCount(const std::vector<std::string>& channelIds,
                                                 MemberCountCompletion completion) {
  int refusal = 0;
  if (channelIds.size() > QNBRLChannelMemberCountMaxIds) {
    refusal = QNBRLChannelMemberCountErrorTooManyChannels;
  } else if (channelIds.empty() || !std::all_of(channelIds.begin(), channelIds.end(), isValidId)) {
    refusal = QNBRLChannelMemberCountErrorInvalidArgument;
  }
  boost::json::array ids(channelIds.begin(), channelIds.end());
  requests_->send(kMemberCount,
                  {.refusal = refusal,
                   .payload = {{"channelIds", std::move(ids)}},
                   .finish = [completion = std::move(completion)](int code, const QNBRLResult* result) {
                     std::optional<std::vector<QNChannelMemberCount>> counts;
                     if (result && code == 0) {
                       counts.emplace();
                       if (result->response) {
                         for (const auto& [id, n] : objectIn(*result->response, "counts"))
                           counts->push_back({std::string(id), int32Of(&n)});
                       }
                     }
                     callApplication(completion, std::move(counts), code);
                   }});
}

std::shared_ptr<QNBRLChannel> QNBRLChannelRegistry::channel(const std::string& channelId) const {
  std::lock_guard lock(mutex_);
  auto it = channelDict_.find(channelId);
  return it == channelDict_.end() ? nullptr : it->second;
}

void QNBRLChannelRegistry::onMemberJoined(const sio::Payload& data) {
  const auto& item = objectAt(data.args, 0);
  QNBRLMember member{stringIn(item, "userId"), stringIn(item, "channelId")};
  if (auto c = channel(member.channelId)) c->impl().onMemberJoined(member);
}

void QNBRLChannelRegistry::onMemberLeft(const sio::Payload& data) {
  const auto& item = objectAt(data.args, 0);
  QNBRLMember member{stringIn(item, "userId"), stringIn(item, "channelId")};
  if (auto c = channel(member.channelId)) c->impl().onMemberLeft(member, leftReasonOf(stringIn(item, "reason")));
}

void QNBRLChannelRegistry::onChannelMessageReceived(const sio::Payload& data) {
  const auto& item = objectAt(data.args, 0);
  auto message = messageOf(item, data);
  if (!message) return QNLog::shared().critical("received invaliad message: %@", item);
  const auto& from = objectIn(item, "from");
  QNBRLMember member{stringIn(from, "userId"), stringIn(from, "channelId")};
  if (auto c = channel(member.channelId)) c->impl().onChannelMessageReceived(member.channelId, message, member);
}

void QNBRLChannelRegistry::onChannelAttributesUpdated(const sio::Payload& data) {
  const auto& item = objectAt(data.args, 0);
  auto c = channel(stringIn(item, "channelId"));
  if (!c) return;
  auto attributes = attributesOf(item.if_contains("attributes"));
  QNLog::shared().info("ChannelAttributesUpdated: %@", attributes);
  c->impl().tell(&QNBRLChannelDelegate::attributeUpdate, attributes);
}

void QNBRLChannelRegistry::onChannelMemberCount(const sio::Payload& data) {
  QNLog::shared().info("ChannelMemberCount: %@", data.args);
  const auto& counts = objectIn(objectAt(data.args, 0), "counts");
  std::vector<std::shared_ptr<QNBRLChannel>> channels;
  {
    std::lock_guard lock(mutex_);
    for (const auto& [id, c] : channelDict_) channels.push_back(c);
  }
  // Every channel hears a count, 0 when the push does not name it.
  for (const auto& c : channels) c->impl().tell(&QNBRLChannelDelegate::memberCount, int32Of(counts.if_contains(c->channelId())));
}

void QNBRLChannelRegistry::restoreJoinedChannels() {
  std::vector<std::shared_ptr<QNBRLChannel>> joined;
  {
    std::lock_guard lock(mutex_);
    for (const auto& [id, c] : channelsMap_) joined.push_back(c);
  }
  restoreJoinedChannels(std::move(joined));
}

void QNBRLChannelRegistry::restoreJoinedChannels(std::vector<std::shared_ptr<QNBRLChannel>> channels) {
  if (!requests_->loggedIn() || channels.empty()) return;
  struct Round {
    std::mutex mutex;
    std::size_t left = 0;
    std::vector<std::shared_ptr<QNBRLChannel>> failed;
  };
  auto round = std::make_shared<Round>();
  round->left = channels.size();
  for (const auto& c : channels) {
    c->impl().join([round, c, weak = weak_from_this()](int code) {
      std::vector<std::shared_ptr<QNBRLChannel>> failed;
      {
        std::lock_guard lock(round->mutex);
        if (code != 0) round->failed.push_back(c);
        if (--round->left > 0) return;
        failed = std::move(round->failed);
      }
      if (failed.empty()) return;
      // On the next turn of the main queue, without a pause.
      MainQueue::async([weak, failed = std::move(failed)]() mutable {
        if (auto self = weak.lock()) self->restoreJoinedChannels(std::move(failed));
      });
    });
  }
}

void QNBRLChannelRegistry::logout() {
  std::lock_guard lock(mutex_);
  for (const auto& [id, c] : channelDict_) c->impl().joined = false;
  // A destroyed channel that was joined is not joined either once the session is gone.
  for (const auto& [id, c] : channelsMap_) c->impl().joined = false;
  channelsMap_.clear();
}

void QNBRLChannelRegistry::onJoinedChanged(const std::shared_ptr<QNBRLChannel>& c, bool joined) {
  std::lock_guard lock(mutex_);
  if (joined) {
    channelsMap_[c->channelId()] = c;
  } else {
    channelsMap_.erase(c->channelId());
  }
}

}  // namespace qnbrl
