#pragma once
// The Engine.IO/Socket.IO state machine behind a socket: connection attempt, heartbeat, packets in
// and out, handlers and acknowledgements. It runs on one executor and reaches the wire only through
// the transport its factory makes, one per connection attempt.
#include "socketio/client.hpp"
#include "socketio/clock.hpp"
#include "socketio/transport.hpp"

#include <boost/asio/dispatch.hpp>
#include <boost/asio/io_context.hpp>

#include <atomic>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace sio::detail {

class AckTable;

class Engine final : public TransportListener, public std::enable_shared_from_this<Engine> {
 public:
  Engine(boost::asio::any_io_executor ex, std::string url, Options options, TransportFactory factory);

  // On the executor's own thread the work runs at once, as dispatch would run it, minus the cost of
  // wrapping it for the executor (a tenth of an emit's instructions).
  template <class F>
  void run(F&& f) {
    namespace net = boost::asio;
    if (const auto* io = ex_.target<net::io_context::executor_type>(); io && io->running_in_this_thread()) {
      // f may lead the owner to drop its reference; dispatch would swallow what f throws.
      auto self = shared_from_this();
      try {
        f(*self);
      } catch (...) {
      }
      return;
    }
    net::dispatch(ex_, [self = shared_from_this(), f = std::forward<F>(f)]() mutable { f(*self); });
  }

  const std::string& url() const { return url_; }
  std::string sid() const;
  Socket::Status status() const { return status_.load(); }

  void on(std::string event, EventHandler handler);
  void connect(std::chrono::milliseconds timeout, std::function<void()> on_timeout);
  void disconnect();
  void emit(std::string_view event, const Payload& args, std::optional<std::chrono::milliseconds> timeout,
            AckCallback&& callback);
  // The owner is gone: close without telling anyone. From any thread, without waiting: no handler
  // begins once it has returned. Pending acknowledgements keep their time-outs.
  void abandon();

  void onOpen() override;
  void onText(std::string_view frame) override;
  void onBinary(BufferPtr frame) override;
  void onClosed(const std::string& why) override { close(why, true); }

 private:
  void setStatus(Socket::Status s) { status_.store(s); }
  // Packets are handed down by reference: each move of one touches its JSON's shared memory resource.
  void onPacket(Packet& packet);
  void onConnectReply(const Packet& packet);
  void deliverEvent(Packet& packet);
  void deliverAck(Packet& packet);
  void transmit(Frames frames);
  void armHeartbeat();
  void fire(const std::string& event, const Payload& args, const Responder& responder = {});
  void close(const std::string& why, bool report);

  boost::asio::any_io_executor ex_;
  std::string url_;
  Options options_;
  TransportFactory factory_;

  std::atomic<Socket::Status> status_{Socket::Status::NotConnected};
  mutable std::mutex info_mutex_;
  std::string sid_;

  // Set by the owner's thread, read right before each handler call.
  std::atomic<bool> abandoned_{false};
  // Looked up by the name's view, without a copy; shared so that a handler may replace or remove
  // itself while it runs, without copying it for each event.
  struct NameHash : std::hash<std::string_view> {
    using is_transparent = void;
  };
  std::unordered_map<std::string, std::shared_ptr<const EventHandler>, NameHash, std::equal_to<>> handlers_;
  std::shared_ptr<AckTable> acks_;
  std::vector<Frames> outbox_;  // emits made before the server accepted the connection
  std::shared_ptr<Transport> transport_;
  Decoder decoder_;
  // How far the current attempt has come: the transport, then the Engine.IO open packet.
  enum class Stage { Dialing, TransportOpen, EngineOpen } stage_ = Stage::Dialing;
  std::chrono::milliseconds heartbeat_window_{};
  std::optional<std::size_t> max_payload_;
  TimerPtr heartbeat_;
  TimerPtr connect_timer_;
};

}  // namespace sio::detail
