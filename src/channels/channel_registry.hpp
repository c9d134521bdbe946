#pragma once
// The client's channels: every channel object the application created (by id), the ones joined now
// (re-joined after a reconnection), the member-count query and the routing of pushed channel events.
#include "qnbrl/brl_channel.hpp"
#include "socketio/codec.hpp"
#include "transport/request.hpp"

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace qnbrl {

class QNBRLChannelRegistry : public std::enable_shared_from_this<QNBRLChannelRegistry> {
 public:
  using MemberCountCompletion = std::function<void(std::optional<std::vector<QNChannelMemberCount>>, int code)>;

  explicit QNBRLChannelRegistry(std::shared_ptr<const RequestPath> requests) : requests_(std::move(requests)) {}

  // The same object for the same id; the delegate replaces any earlier one. Null for an invalid id.
  std::shared_ptr<QNBRLChannel> createChannelWithId(const std::string& channelId,
                                                    std::weak_ptr<QNBRLChannelDelegate> delegate);
  // Forgets the object (it keeps working, stays joined and heartbeating); false when unknown or invalid.
  bool destroyChannelWithId(const std::string& channelId);
  void getChannelMemberCount(const std::vector<std::string>& channelIds, MemberCountCompletion completion);

  // Pushed events, on the main queue; an event for a channel not created is dropped.
  void onMemberJoined(const sio::Payload& data);
  void onMemberLeft(const sio::Payload& data);
  void onChannelMessageReceived(const sio::Payload& data);
  void onChannelAttributesUpdated(const sio::Payload& data);
  void onChannelMemberCount(const sio::Payload& data);

  // After a reconnection: re-joins every joined channel; the joins that fail are tried again on the
  // next turn of the main queue, until they all succeed or the session logs out.
  void restoreJoinedChannels();
  // Every channel not joined, and none to re-join.
  void logout();

 private:
  std::shared_ptr<QNBRLChannel> channel(const std::string& channelId) const;
  void restoreJoinedChannels(std::vector<std::shared_ptr<QNBRLChannel>> channels);
  void onJoinedChanged(const std::shared_ptr<QNBRLChannel>& channel, bool joined);

  const std::shared_ptr<const RequestPath> requests_;
  mutable std::mutex mutex_;
  std::map<std::string, std::shared_ptr<QNBRLChannel>> channelDict_;
  std::map<std::string, std::shared_ptr<QNBRLChannel>> channelsMap_;  // the joined ones
};

}  // namespace qnbrl
