#pragma once
// A Socket.IO v5 client over Engine.IO v4, WebSocket transport only (ws and wss), default namespace.
//
// Every operation may be called from any thread; the work itself runs on the executor given to the
// Manager, and so do all handlers and acknowledgement callbacks. The client never reconnects on its
// own: whoever owns it decides what a closed connection means.
#include "socketio/codec.hpp"

#include <boost/asio/any_io_executor.hpp>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace sio {

struct Options {
  // Offer permessage-deflate; it is used only when the server agrees.
  bool compress = true;
  // Sent as the connection URL's query, in this order, before EIO and transport.
  std::vector<std::pair<std::string, std::string>> query;
  std::string path = "/socket.io/";
  // Inbound messages above this size, after inflation, close the connection (1009). Four times the
  // largest message the service's server takes from a client (1 MB): room for its batches.
  std::size_t max_message_size = 4u * 1024u * 1024u;
  // Beyond it, what one packet may make the client hold; over them the connection closes too.
  DecoderLimits packet_limits;
};

// The reason texts of the "disconnect" event.
namespace reason {
inline constexpr const char* kServerDisconnect = "Got Disconnect";
inline constexpr const char* kClientDisconnect = "Namespace leave";
inline constexpr const char* kPingTimeout = "Ping timeout";
inline constexpr const char* kTransportClose = "Transport close";
}  // namespace reason

// The text that stands in for an acknowledgement that did not come in time.
inline constexpr const char* kNoAck = "NO ACK";

namespace detail {
class Engine;
}

// Answers a server event that asked for an acknowledgement. Only the first call sends; a responder
// for an event that asked for none does nothing.
class Responder {
 public:
  Responder() = default;
  bool requested() const { return static_cast<bool>(send_); }
  void operator()(const Payload& args) const;

 private:
  friend class detail::Engine;
  std::shared_ptr<std::function<void(const Payload&)>> send_;
};

using EventHandler = std::function<void(const Payload& args, const Responder& respond)>;
using AckCallback = std::function<void(const Payload& args)>;

class Socket {
 public:
  enum class Status { NotConnected, Connecting, Connected, Disconnected };

  ~Socket();
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  // One handler per event name; a second registration replaces the first. Besides the server's
  // events: "connect" (no args) and "disconnect" ([reason text]), raised by the client itself.
  void on(std::string event, EventHandler handler);

  // Opens the connection. A failure before the server accepts (refused, TLS, handshake, refusal
  // by the server) is reported at once as "disconnect" with its reason. `on_timeout` runs only if
  // the attempt has neither succeeded nor failed within `timeout`; the attempt is then abandoned
  // without a "disconnect" event.
  void connect(std::chrono::milliseconds timeout, std::function<void()> on_timeout);

  // Emits before the connection is up are held and sent once it is. An emit refused here (reserved
  // event name, invalid UTF-8, larger than the server's maxPayload) sends nothing.
  void emit(std::string event, Payload args);
  // `callback` runs exactly once: with the server's acknowledgement or, when `timeout` passes
  // first, with ["NO ACK"], even if the connection closes or this socket is destroyed meanwhile.
  void emitWithAck(std::string event, Payload args, std::chrono::milliseconds timeout, AckCallback callback);

  // Leaves the namespace and closes the connection; "disconnect" reports "Namespace leave" when the
  // socket was connecting or connected.
  void disconnect();

  // The server's id for this socket, empty until connected.
  std::string sid() const;
  Status status() const;

 private:
  friend class Manager;
  explicit Socket(std::shared_ptr<detail::Engine> engine) : engine_(std::move(engine)) {}
  std::shared_ptr<detail::Engine> engine_;
};

// Owns the connection to one server URL and its default-namespace socket. Destroying the manager
// closes the connection silently and never waits for the executor: once the destructor has returned
// no handler of the socket begins (one already running may finish), and the connect time-out handler
// does not run. Acknowledgement callbacks are still answered exactly once, by the server or with
// ["NO ACK"] at their time-out.
class Manager {
 public:
  // `executor` must be an io_context's (std::invalid_argument otherwise): the connection runs on
  // that concrete type.
  Manager(boost::asio::any_io_executor executor, std::string url, Options options);
  // Over an engine built elsewhere, e.g. on an in-memory transport.
  explicit Manager(std::shared_ptr<detail::Engine> engine);
  ~Manager();
  Manager(const Manager&) = delete;
  Manager& operator=(const Manager&) = delete;

  const std::shared_ptr<Socket>& socket() const { return socket_; }
  const std::string& url() const;

 private:
  std::shared_ptr<Socket> socket_;
};

}  // namespace sio
