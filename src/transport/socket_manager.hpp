#pragma once
// The one signalling connection of a client: created per tavern server URL, connected with a
// time-out, and turning every server event into one call on the message delegate.
#include "socketio/client.hpp"
#include "transport/request.hpp"

#include <boost/json/object.hpp>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace qnbrl {

class QNSocketManager;

// Connection-level notices. An empty member is a method the delegate does not implement.
struct QNSocketManagerDelegate {
  std::function<void(QNSocketManager&, const boost::json::array&)> onConnectTimeout;
  std::function<void(QNSocketManager&, const std::shared_ptr<sio::Socket>&)> onSocketChange;
};

// The events a server pushes, by name. The message delegate hears each of them, with the event's data
// list untouched (binary attachments in the payload's buffers); it decides which it handles.
inline constexpr const char* kServerEvents[] = {
    "disconnect",         "disconnectReason",    "loginSuccess",           "ChannelAttributesUpdated",
    "PeersOnlineStatusChanged", "PeersUserAttributesChanged", "MessageToPeerReceived", "InvitationNotify",
    "ChannelMemberCount", "MemberJoined",        "MemberLeft",             "ChannelMessageReceived",
};

struct QNSocketMessageDelegate {
  std::function<void(QNSocketManager&, std::string_view event, const sio::Payload&)> onEvent;
};

// The client calls it on the main queue, where its socket's events run too. From another thread it
// works, but the "disconnect" that destroy() causes then reaches nobody: the socket is gone first.
class QNSocketManager : public CommandSender, public std::enable_shared_from_this<QNSocketManager> {
 public:
  static constexpr std::chrono::seconds kConnectTimeout{6};
  static constexpr std::chrono::seconds kCommandTimeout{6};
  static constexpr std::chrono::seconds kSlowCommandTimeout{10};

  static std::shared_ptr<QNSocketManager> create();

  void setDelegate(std::weak_ptr<QNSocketManagerDelegate> delegate);
  void setMessageDelegate(std::weak_ptr<QNSocketMessageDelegate> delegate);

  // Replaces any previous connection (dropped without a "disconnect" event: from then on nothing the
  // old socket raises reaches the delegates) and returns the new socket, not yet connected. Config
  // keys: "compress", "forceWebsockets", "connectParams".
  std::shared_ptr<sio::Socket> createSocketWithUrl(const std::string& url, const boost::json::object& config);
  void connect();
  void disconnect();
  // Disconnects and drops the connection; url() and config() keep their last values.
  void destroy();
  void registerCallback();

  std::weak_ptr<sio::Socket> socket() const;
  std::string url() const;
  boost::json::object config() const;

  // The request convention: emits "command" with [name, payload] and waits 6 seconds for the
  // acknowledgement (10 for "clearLocalUserAttributes"); `done` gets the acknowledgement, or ["NO ACK"]
  // after the time-out, also when there is no socket to send on. Binary values in the payload are
  // placeholders indexing `attachments`.
  void command(const std::string& name, boost::json::object payload, AckHandler done,
               std::vector<sio::BufferPtr> attachments = {}) override;
  static std::chrono::milliseconds commandTimeout(const std::string& name);

 private:
  QNSocketManager() = default;

  mutable std::mutex mutex_;
  std::weak_ptr<QNSocketManagerDelegate> delegate_;
  std::weak_ptr<QNSocketMessageDelegate> message_delegate_;
  std::unique_ptr<sio::Manager> manager_;
  std::weak_ptr<sio::Socket> socket_;
  // Counts the sockets made and dropped, so that a late event of a replaced socket is told apart.
  std::uint64_t generation_ = 0;
  std::string url_;
  boost::json::object config_;
};

}  // namespace qnbrl
