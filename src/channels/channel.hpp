#pragma once
// A channel's inside. Its requests go through the client's request path; acknowledgements, the
// heartbeat and pushed events run on the main queue, the operations on any thread.
#include "qnbrl/brl_channel.hpp"
#include "support/timer.hpp"
#include "transport/callback.hpp"
#include "transport/request.hpp"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace qnbrl {

// Hidden: a nested class takes the exported class's visibility otherwise.
struct __attribute__((visibility("hidden"))) QNBRLChannel::Impl {
  // Told when a join succeeds (true) or a leave happens (false): the registry's joined set.
  using StateDelegate = std::function<void(const std::shared_ptr<QNBRLChannel>& channel, bool joined)>;

  Impl(std::string channelId, std::shared_ptr<const RequestPath> requests, StateDelegate stateDelegate)
      : channelId(std::move(channelId)), requests(std::move(requests)), stateDelegate(std::move(stateDelegate)) {}

  static std::shared_ptr<QNBRLChannel> create(std::string channelId, std::shared_ptr<const RequestPath> requests,
                                              StateDelegate stateDelegate);

  void setDelegate(std::weak_ptr<QNBRLChannelDelegate> listener);

  // Calls the delegate's member when it implements it.
  template <class Member, class... Args>
  void tell(Member QNBRLChannelDelegate::*member, Args&&... args) {
    auto channel = self.lock();
    if (!channel) return;
    std::weak_ptr<QNBRLChannelDelegate> listener;
    {
      std::lock_guard lock(mutex);
      listener = delegate;
    }
    requests->application().tell(listener, member, channel, std::forward<Args>(args)...);
  }

  // The join; the library's own re-join after a reconnection calls it with its own completion.
  void join(QNBRLChannel::Completion completion);

  // The heartbeat: once at once, then every 2 seconds while logged in and joined.
  void startSendingHeartbeat();
  void sendingHeartbeat();
  void stopSending();

  // Pushed events, routed here by the registry; an event for another channel id is ignored.
  void onMemberJoined(const QNBRLMember& member);
  void onMemberLeft(const QNBRLMember& member, QNBRLChannelMemberLeftReason reason);
  void onChannelMessageReceived(const std::string& id, const std::shared_ptr<QNBRLMessage>& message,
                                const QNBRLMember& member);

  const std::string channelId;
  const std::shared_ptr<const RequestPath> requests;
  const StateDelegate stateDelegate;
  std::weak_ptr<QNBRLChannel> self;
  std::atomic<bool> joined{false};
  std::atomic<bool> destroyed{false};

  std::mutex mutex;  // guards the two below
  std::weak_ptr<QNBRLChannelDelegate> delegate;
  std::shared_ptr<QNBRLTimer> timer;
};

}  // namespace qnbrl
