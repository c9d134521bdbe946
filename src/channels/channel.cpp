#include "channels/channel.hpp"

#include "diagnostics/log.hpp"
#include "diagnostics/logan_manager.hpp"
#include "support/queues.hpp"
#include "support/text.hpp"
#include "transport/wire.hpp"

#include <chrono>

namespace qnbrl {
namespace {

void recordJoin(const Operation&, const std::string& channelId, int code, Stage) {
  LoganManager::sharedInstance().joinChannel(code == 0, channelId, code);
}

constexpr Operation kJoin{
    .command = "join",
    .codes = {.noAck = QNBRLJoinChannelErrorTimeout, .passed = codeSet({3, 5, 6}), .failure = 1},
    .record = recordJoin,
    .logAck = [](const std::string& channelId, const boost::json::array& ack) {
      QNLog::shared().info("join channel: %@, ret = %@", channelId, ack);
    },
};

constexpr Operation kLeave{
    .command = "leave",
    .codes = {.noAck = 0},
    .logAck = [](const std::string& channelId, const boost::json::array& ack) {
      QNLog::shared().info("leave channel: %@, ret = %@", channelId, ack);
    },
};

constexpr Operation kSendMessage{
    .command = "sendChannelMessage",
    .codes = {.noAck = QNBRLChannelMessageErrorTimeout,
              .tooManyRequests = QNBRLChannelMessageErrorTooOften,
              .passed = codeSet({4, 5}),
              .failure = 1},
};

constexpr Operation kGetMembers{
    .command = "getChannelMembers",
    .codes = {.noAck = QNBRLGetMembersErrorTimeout,
              .tooManyRequests = QNBRLGetMembersErrorTooOften,
              .passed = codeSet({5}),
              .failure = 1},
};

constexpr Operation kHeartbeat{.command = "channelHeartbeat", .codes = {.noAck = 0}};

constexpr auto kHeartbeatInterval = std::chrono::seconds(2);

std::vector<QNBRLMember> membersOf(const QNBRLResult& result, const std::string& channelId) {
  std::vector<QNBRLMember> members;
  if (!result.response) return members;
  const auto* list = result.response->if_contains("members");
  if (!list || !list->is_array()) return members;
  for (const auto& item : list->get_array()) {
    if (item.is_string()) members.push_back({std::string(item.get_string()), channelId});
  }
  return members;
}

}  // namespace

std::shared_ptr<QNBRLChannel> QNBRLChannel::Impl::create(std::string channelId,
                                                         std::shared_ptr<const RequestPath> requests,
                                                         StateDelegate stateDelegate) {
  auto channel = std::make_shared<QNBRLChannel>(
      std::make_unique<Impl>(std::move(channelId), std::move(requests), std::move(stateDelegate)));
  channel->impl_->self = channel;
  return channel;
}

QNBRLChannel::QNBRLChannel(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

QNBRLChannel::~QNBRLChannel() {
  impl_->stopSending();
}

const std::string& QNBRLChannel::channelId() const {
  return impl_->channelId;
}

bool QNBRLChannel::joined() const {
  return impl_->joined.load();
}

bool QNBRLChannel::destroyed() const {
  return impl_->destroyed.load();
}

void QNBRLChannel::joinWithCompletion(Completion completion) {
  impl_->join(impl_->requests->application().completion(std::move(completion)));
}

void QNBRLChannel::Impl::join(Completion completion) {
  LoganManager::sharedInstance().tsJoinChannel = currentTimeStamp();
  requests->send(kJoin, {.subject = channelId,
                         .refusal = isValidId(channelId) ? 0 : QNBRLJoinChannelErrorInvalidArgument,
                         .payload = {{"channelId", channelId}},
                         .finish = [weak = self, completion = std::move(completion)](int code, const QNBRLResult* result) {
                           if (auto channel = weak.lock(); channel && result && code == 0) {
                             channel->impl_->joined = true;
                             channel->impl_->startSendingHeartbeat();
                             channel->impl_->stateDelegate(channel, true);
                           }
                           callApplication(completion, code);
                         }});
}

void QNBRLChannel::leaveWithCompletion(Completion completion) {
  auto& logan = LoganManager::sharedInstance();
  logan.tsLeaveChannel = currentTimeStamp();
  const auto& id = impl_->channelId;
  if (!impl_->requests->loggedIn()) {
    callApplication(completion, QNBRLLeaveChannelErrorNotLoggedIn);
    return logan.leaveChannel(0, id, QNBRLLeaveChannelErrorNotLoggedIn);
  }
  if (!impl_->joined.exchange(false)) return callApplication(completion, QNBRLLeaveChannelErrorNotJoined);
  // Left locally at once; the server's answer changes nothing.
  if (auto self = impl_->self.lock()) impl_->stateDelegate(self, false);
  callApplication(completion, QNBRLLeaveChannelErrorOk);
  logan.leaveChannel(1, id, 0);
  impl_->stopSending();
  impl_->requests->post(kLeave, id, {{"channelId", id}});
}

void QNBRLChannel::sendMessage(const std::shared_ptr<QNBRLMessage>& message,
                               const std::optional<QNBRLSendMessageOptions>&, Completion completion) {
  const QNBRLMessage none;
  const auto& body = message ? *message : none;
  Request request{.subject = impl_->channelId,
                  .refusal = impl_->joined ? 0 : QNBRLChannelMessageErrorNotJoined,
                  .notices = std::vector<int>(static_cast<std::size_t>(oversizeBodies(body)),
                                              QNBRLChannelMessageErrorTooLarge),
                  .finish = [completion = impl_->requests->application().completion(std::move(completion))](
                                int code, const QNBRLResult*) { callApplication(completion, code); }};
  request.payload = {{"channelId", impl_->channelId},
                     {"content", contentOf(body, request.attachments)},
                     {"option", boost::json::object()}};
  impl_->requests->send(kSendMessage, std::move(request));
}

void QNBRLChannel::getMembersWithCompletion(MembersCompletion completion) {
  const auto& id = impl_->channelId;
  impl_->requests->send(
      kGetMembers, {.subject = id,
                    .refusal = impl_->joined ? 0 : QNBRLGetMembersErrorNotJoined,
                    .payload = {{"channelId", id}},
                    .finish = [id, completion = impl_->requests->application().completion(std::move(completion))](
                                  int code, const QNBRLResult* result) {
                      std::optional<std::vector<QNBRLMember>> members;
                      // A refusal with 5 from the server still comes with the list.
                      if (result && (code == 0 || code == QNBRLGetMembersErrorNotJoined))
                        members = membersOf(*result, id);
                      callApplication(completion, std::move(members), code);
                    }});
}

void QNBRLChannel::Impl::setDelegate(std::weak_ptr<QNBRLChannelDelegate> listener) {
  std::lock_guard lock(mutex);
  delegate = std::move(listener);
}

void QNBRLChannel::Impl::startSendingHeartbeat() {
  stopSending();
  auto beat = [weak = self] {
    if (auto channel = weak.lock()) channel->impl_->sendingHeartbeat();
  };
  auto started = QNBRLTimer::startTimer(std::chrono::duration<double>(kHeartbeatInterval).count(), true, beat);
  {
    std::lock_guard lock(mutex);
    timer = std::move(started);
  }
  beat();
}

void QNBRLChannel::Impl::sendingHeartbeat() {
  if (!requests->loggedIn() || !joined) return stopSending();
  auto now = static_cast<std::uint64_t>(currentTimeStamp());
  requests->post(kHeartbeat, channelId, {{"channelId", channelId}, {"timestamp", now}});
}

void QNBRLChannel::Impl::stopSending() {
  std::shared_ptr<QNBRLTimer> running;
  {
    std::lock_guard lock(mutex);
    running = std::move(timer);
  }
  if (running) running->stop();
}

void QNBRLChannel::Impl::onMemberJoined(const QNBRLMember& member) {
  if (member.channelId != channelId) return;
  QNLog::shared().info("MemberJoined: %@", member);
  tell(&QNBRLChannelDelegate::memberJoined, member);
}

void QNBRLChannel::Impl::onMemberLeft(const QNBRLMember& member, QNBRLChannelMemberLeftReason reason) {
  if (member.channelId != channelId) return;
  QNLog::shared().info("MemberLeft: %@", member);
  tell(&QNBRLChannelDelegate::memberLeft, member);
  tell(&QNBRLChannelDelegate::memberLeftReason, member, reason);
}

void QNBRLChannel::Impl::onChannelMessageReceived(const std::string& id, const std::shared_ptr<QNBRLMessage>& message,
                                                  const QNBRLMember& member) {
  if (id != channelId) return;
  QNLog::shared().info("ChannelMessageReceived: %@", member);
  tell(&QNBRLChannelDelegate::messageReceived, message, member);
}

}  // namespace qnbrl
