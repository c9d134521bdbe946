#include "socketio/client.hpp"

#include "socketio/clock.hpp"
#include "socketio/tls.hpp"

#include <boost/asio/dispatch.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <boost/json/serialize.hpp>

#include <atomic>
#include <cstring>
#include <deque>
#include <future>
#include <mutex>
#include <queue>
#include <unordered_map>

namespace sio {
namespace detail {

namespace net = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
using tcp = net::ip::tcp;

namespace {

// A handler that throws must not take the event loop down with it.
template <class F, class... Args>
void safeCall(F& f, Args&&... args) {
  if (!f) return;
  try {
    f(std::forward<Args>(args)...);
  } catch (...) {
  }
}

bool validUtf8(std::string_view s) {
  const auto* p = reinterpret_cast<const unsigned char*>(s.data());
  const auto* end = p + s.size();
  while (p < end) {
    // Frames are mostly ASCII: skip it eight bytes at a time.
    std::uint64_t word;
    while (end - p >= 8 && (std::memcpy(&word, p, 8), (word & 0x8080808080808080u) == 0)) p += 8;
    if (p == end) break;
    if (*p < 0x80) {
      ++p;
      continue;
    }
    int n;
    std::uint32_t cp;
    if ((*p & 0xE0) == 0xC0) {
      n = 1;
      cp = *p & 0x1F;
    } else if ((*p & 0xF0) == 0xE0) {
      n = 2;
      cp = *p & 0x0F;
    } else if ((*p & 0xF8) == 0xF0) {
      n = 3;
      cp = *p & 0x07;
    } else {
      return false;
    }
    if (end - p <= n) return false;
    for (int i = 1; i <= n; ++i) {
      if ((p[i] & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (p[i] & 0x3F);
    }
    static constexpr std::uint32_t kMin[] = {0, 0x80, 0x800, 0x10000};
    if (cp < kMin[n] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    p += n + 1;
  }
  return true;
}

struct Outgoing {
  std::string text;
  BufferPtr binary;  // set for an attachment frame
};

// The acknowledgements a socket waits for. Each is answered once: by the server, or with
// ["NO ACK"] at its deadline. One clock timer, armed for the earliest deadline, serves them all;
// it co-owns the table, so waiting entries still get their answer after the socket is gone.
class AckTable : public std::enable_shared_from_this<AckTable> {
 public:
  explicit AckTable(net::any_io_executor ex) : ex_(std::move(ex)) {}

  void add(std::uint64_t id, Clock::duration timeout, AckCallback callback) {
    auto deadline = Clock::current().now() + timeout;
    pending_.emplace(id, std::move(callback));
    deadlines_.emplace(deadline, id);
    if (deadline < armed_) arm(deadline);
  }

  // The server's acknowledgement; an unknown id (never issued, answered or timed out) is ignored.
  void answer(std::uint64_t id, const Payload& args) {
    auto it = pending_.find(id);
    if (it == pending_.end()) return;
    auto callback = std::move(it->second);
    pending_.erase(it);
    dropAnswered();
    safeCall(callback, args);
  }

 private:
  using Deadline = std::pair<Clock::time_point, std::uint64_t>;

  // Acknowledgements mostly come in order, so this keeps the heap as small as what is waiting.
  void dropAnswered() {
    while (!deadlines_.empty() && !pending_.contains(deadlines_.top().second)) deadlines_.pop();
  }

  void arm(Clock::time_point deadline) {
    if (timer_) timer_->cancel();
    armed_ = deadline;
    timer_ = Clock::current().schedule(ex_, deadline - Clock::current().now(),
                                       [self = shared_from_this()] { self->expire(); });
  }

  void expire() {
    timer_.reset();
    armed_ = Clock::time_point::max();
    auto now = Clock::current().now();
    Payload no_ack;
    no_ack.args.emplace_back(kNoAck);
    while (!deadlines_.empty() && deadlines_.top().first <= now) {
      auto id = deadlines_.top().second;
      deadlines_.pop();
      if (auto it = pending_.find(id); it != pending_.end()) {
        auto callback = std::move(it->second);
        pending_.erase(it);
        safeCall(callback, no_ack);  // may add entries, and so arm the timer again
      }
    }
    dropAnswered();
    if (!deadlines_.empty() && deadlines_.top().first < armed_) arm(deadlines_.top().first);
  }

  net::any_io_executor ex_;
  std::unordered_map<std::uint64_t, AckCallback> pending_;
  std::priority_queue<Deadline, std::vector<Deadline>, std::greater<>> deadlines_;
  TimerPtr timer_;
  Clock::time_point armed_ = Clock::time_point::max();
};

}  // namespace

// The WebSocket under the engine: one per connection attempt.
class Transport {
 public:
  virtual ~Transport() = default;
  virtual void start() = 0;
  virtual void send(Outgoing frame) = 0;
  // Closes after the queued frames have gone out; no callback reaches the engine afterwards.
  virtual void close() = 0;
};

class Engine : public std::enable_shared_from_this<Engine> {
 public:
  Engine(net::any_io_executor ex, std::string url, Options options)
      : ex_(std::move(ex)), url_(std::move(url)), options_(std::move(options)), acks_(std::make_shared<AckTable>(ex_)) {}

  const net::any_io_executor& executor() const { return ex_; }
  const Options& options() const { return options_; }

  // On the executor's own thread the work runs at once, as dispatch would run it, minus the cost of
  // wrapping it for the executor (a tenth of an emit's instructions).
  template <class F>
  void run(F&& f) {
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

  std::string sid() const {
    std::lock_guard lock(info_mutex_);
    return sid_;
  }
  Socket::Status status() const { return status_.load(); }

  void on(std::string event, EventHandler handler) {
    if (!abandoned_) handlers_[std::move(event)] = std::move(handler);
  }

  void connect(std::chrono::milliseconds timeout, std::function<void()> on_timeout);
  void disconnect();
  void emit(std::string event, Payload args, std::optional<std::chrono::milliseconds> timeout,
            AckCallback callback);
  // The owner is gone: close without telling anyone. Pending acknowledgements keep their time-outs.
  void abandon() {
    abandoned_ = true;
    handlers_.clear();
    close("", false);
  }

  // Called by the transport, on the executor.
  void onText(std::string_view frame);
  void onBinary(BufferPtr frame);
  void onTransportClosed(const std::string& why) { close(why, true); }

 private:
  void setStatus(Socket::Status s) { status_.store(s); }
  void onPacket(Packet packet);
  void onConnectReply(const Packet& packet);
  void deliverEvent(Packet packet);
  void deliverAck(Packet packet);
  void transmit(Frames frames);
  void armHeartbeat();
  void fire(const std::string& event, const Payload& args, const Responder& responder = {});
  void close(const std::string& why, bool report);
  std::shared_ptr<Transport> makeTransport(const Endpoint& ep);

  net::any_io_executor ex_;
  std::string url_;
  Options options_;

  std::atomic<Socket::Status> status_{Socket::Status::NotConnected};
  mutable std::mutex info_mutex_;
  std::string sid_;

  bool abandoned_ = false;
  std::unordered_map<std::string, EventHandler> handlers_;
  std::shared_ptr<AckTable> acks_;
  std::uint64_t next_ack_id_ = 0;
  std::vector<Frames> outbox_;  // emits made before the server accepted the connection
  std::shared_ptr<Transport> transport_;
  Decoder decoder_;
  bool engine_open_ = false;
  std::chrono::milliseconds heartbeat_window_{};
  std::optional<std::size_t> max_payload_;
  TimerPtr heartbeat_;
  TimerPtr connect_timer_;
};

namespace {

template <class NextLayer>
class WsTransport : public Transport, public std::enable_shared_from_this<WsTransport<NextLayer>> {
 public:
  template <class... Args>
  WsTransport(std::weak_ptr<Engine> owner, Endpoint ep, Args&&... args)
      : owner_(std::move(owner)),
        ep_(std::move(ep)),
        ws_(std::forward<Args>(args)...),
        resolver_(ws_.get_executor()) {}

  void start() override {
    auto& opts = owner_.lock()->options();
    ws_.read_message_max(opts.max_message_size);
    ws_.auto_fragment(false);
    websocket::permessage_deflate pmd;
    pmd.client_enable = opts.compress;
    pmd.msg_size_threshold = 1024;  // small frames cost more to deflate than they save
    ws_.set_option(pmd);
    // Time-outs are the engine's (connect time-out, heartbeat); this only bounds a closing
    // handshake with a peer that never answers.
    ws_.set_option(websocket::stream_base::timeout{std::chrono::seconds(30), websocket::stream_base::none(), false});
    resolver_.async_resolve(ep_.host, ep_.port,
                            [self = this->shared_from_this()](beast::error_code ec, tcp::resolver::results_type r) {
                              self->onResolve(ec, std::move(r));
                            });
  }

  void send(Outgoing frame) override {
    if (closing_) return;
    queue_.push_back(std::move(frame));
    if (!writing_ && open_) writeNext();
  }

  void close() override {
    if (closing_) return;
    closing_ = true;
    owner_.reset();
    if (!open_) {
      beast::error_code ec;
      beast::get_lowest_layer(ws_).socket().close(ec);
      resolver_.cancel();
      return;
    }
    if (!writing_) closeNow();
  }

 private:
  void fail(const std::string& why) {
    if (closing_) return;
    auto owner = owner_.lock();
    close();
    if (owner) owner->onTransportClosed(why);
  }

  static std::string describe(beast::error_code ec) {
    if (ec == net::error::eof || ec == beast::http::error::end_of_stream) return reason::kTransportClose;
    return "Transport error: " + ec.message();
  }

  void onResolve(beast::error_code ec, tcp::resolver::results_type results) {
    if (closing_) return;
    if (ec) return fail(describe(ec));
    beast::get_lowest_layer(ws_).async_connect(
        results, [self = this->shared_from_this()](beast::error_code ec, const tcp::endpoint&) {
          self->onConnect(ec);
        });
  }

  void onConnect(beast::error_code ec) {
    if (closing_) return;
    if (ec) return fail(describe(ec));
    beast::get_lowest_layer(ws_).socket().set_option(tcp::no_delay(true), ec);
    if constexpr (std::is_same_v<NextLayer, beast::tcp_stream>) {
      handshake();
    } else {
      if (auto err = tls::prepare(ws_.next_layer(), ep_.host, ep_.host_is_ip)) return fail(describe(err));
      ws_.next_layer().async_handshake(net::ssl::stream_base::client,
                                       [self = this->shared_from_this()](beast::error_code ec) {
                                         if (self->closing_) return;
                                         if (ec) return self->fail(describe(ec));
                                         self->handshake();
                                       });
    }
  }

  void handshake() {
    ws_.async_handshake(response_, ep_.host_header, ep_.target,
                        [self = this->shared_from_this()](beast::error_code ec) { self->onHandshake(ec); });
  }

  void onHandshake(beast::error_code ec) {
    if (closing_) return;
    if (ec) {
      if (response_.result_int() != 0 && response_.result() != beast::http::status::switching_protocols) {
        std::string why = "Handshake failed: HTTP " + std::to_string(response_.result_int());
        if (!response_.body().empty()) why += " " + response_.body().substr(0, 200);
        return fail(why);
      }
      return fail(describe(ec));
    }
    open_ = true;
    if (!queue_.empty() && !writing_) writeNext();
    read();
  }

  void read() {
    ws_.async_read(buffer_, [self = this->shared_from_this()](beast::error_code ec, std::size_t) {
      self->onRead(ec);
    });
  }

  void onRead(beast::error_code ec) {
    if (closing_) return;
    if (ec) {
      if (ec == websocket::error::closed) {
        std::string why = reason::kTransportClose;
        if (ws_.reason().code != websocket::close_code::none) {
          why += " (code " + std::to_string(ws_.reason().code) + ")";
        }
        return fail(why);
      }
      return fail(describe(ec));
    }
    auto owner = owner_.lock();
    if (!owner) return close();
    auto data = buffer_.cdata();
    if (ws_.got_text()) {
      owner->onText(std::string_view(static_cast<const char*>(data.data()), data.size()));
    } else {
      auto bytes = static_cast<const std::uint8_t*>(data.data());
      owner->onBinary(std::make_shared<const Buffer>(bytes, bytes + data.size()));
    }
    buffer_.consume(buffer_.size());
    if (!closing_) read();
  }

  void writeNext() {
    writing_ = true;
    auto& f = queue_.front();
    auto done = [self = this->shared_from_this()](beast::error_code ec, std::size_t) { self->onWrite(ec); };
    if (f.binary) {
      ws_.binary(true);
      ws_.async_write(net::buffer(*f.binary), std::move(done));
    } else {
      ws_.text(true);
      ws_.async_write(net::buffer(f.text), std::move(done));
    }
  }

  void onWrite(beast::error_code ec) {
    writing_ = false;
    queue_.pop_front();
    if (ec) {
      if (closing_) return;
      return fail(describe(ec));
    }
    if (!queue_.empty()) return writeNext();
    if (closing_) closeNow();
  }

  void closeNow() {
    queue_.clear();
    ws_.async_close(websocket::close_code::normal, [self = this->shared_from_this()](beast::error_code) {
      beast::error_code ignored;
      beast::get_lowest_layer(self->ws_).socket().close(ignored);
    });
  }

  std::weak_ptr<Engine> owner_;
  Endpoint ep_;
  websocket::stream<NextLayer> ws_;
  tcp::resolver resolver_;
  websocket::response_type response_;
  beast::flat_buffer buffer_;
  std::deque<Outgoing> queue_;
  bool open_ = false;
  bool writing_ = false;
  bool closing_ = false;
};

}  // namespace

std::shared_ptr<Transport> Engine::makeTransport(const Endpoint& ep) {
  if (ep.tls) {
    return std::make_shared<WsTransport<net::ssl::stream<beast::tcp_stream>>>(weak_from_this(), ep, ex_,
                                                                             tls::clientContext());
  }
  return std::make_shared<WsTransport<beast::tcp_stream>>(weak_from_this(), ep, ex_);
}

void Engine::connect(std::chrono::milliseconds timeout, std::function<void()> on_timeout) {
  auto s = status_.load();
  if (abandoned_ || s == Socket::Status::Connecting || s == Socket::Status::Connected) return;
  setStatus(Socket::Status::Connecting);
  {
    std::lock_guard lock(info_mutex_);
    sid_.clear();
  }
  engine_open_ = false;
  max_payload_.reset();
  decoder_.reset();
  auto ep = buildEndpoint(url_, options_.path, options_.query);
  if (!ep) {
    // Reported like any other failed attempt, but not from inside connect() itself.
    net::post(ex_, [self = shared_from_this(), why = "Transport error: " + ep.error] { self->close(why, true); });
    return;
  }
  connect_timer_ = Clock::current().schedule(
      ex_, timeout, [weak = weak_from_this(), on_timeout = std::move(on_timeout)]() mutable {
        auto self = weak.lock();
        if (!self || self->status_.load() != Socket::Status::Connecting) return;
        self->close("", false);
        safeCall(on_timeout);
      });
  transport_ = makeTransport(*ep.value);
  transport_->start();
}

void Engine::onText(std::string_view frame) {
  auto packet = engine::decodeText(frame);
  if (!packet) return close("Transport error: " + packet.error, true);
  switch (packet.value->type) {
    case engine::Type::Open: {
      auto hs = engine::decodeHandshake(packet.value->data);
      if (!hs || engine_open_) return close("Transport error: invalid open packet", true);
      engine_open_ = true;
      {
        std::lock_guard lock(info_mutex_);
        // The engine id stands until the namespace answers with its own.
        sid_.clear();
      }
      heartbeat_window_ = hs.value->ping_interval + hs.value->ping_timeout;
      max_payload_ = hs.value->max_payload;
      armHeartbeat();
      transmit(encodeConnect());
      return;
    }
    case engine::Type::Ping:
      armHeartbeat();
      transport_->send(Outgoing{"3", nullptr});
      return;
    case engine::Type::Close:
      return close(reason::kTransportClose, true);
    case engine::Type::Message: {
      auto out = decoder_.onText(packet.value->data);
      if (!out) return close("Parse error: " + out.error, true);
      if (auto* p = std::get_if<Packet>(&*out.value)) onPacket(std::move(*p));
      return;
    }
    case engine::Type::Pong:
    case engine::Type::Upgrade:
    case engine::Type::Noop:
      return;
  }
}

void Engine::onBinary(BufferPtr frame) {
  auto out = decoder_.onBinary(std::move(frame));
  if (!out) return close("Parse error: " + out.error, true);
  if (auto* p = std::get_if<Packet>(&*out.value)) onPacket(std::move(*p));
}

void Engine::onPacket(Packet packet) {
  if (packet.nsp != "/") return;  // only the default namespace is used
  switch (packet.type) {
    case PacketType::Connect:
      return onConnectReply(packet);
    case PacketType::ConnectError: {
      std::string message;
      if (packet.data.is_string()) {
        message = packet.data.as_string();
      } else if (auto* o = packet.data.if_object()) {
        if (auto* m = o->if_contains("message"); m && m->is_string()) message = m->as_string();
      }
      return close("Connect error: " + message, true);
    }
    case PacketType::Disconnect:
      return close(reason::kServerDisconnect, true);
    case PacketType::Event:
    case PacketType::BinaryEvent:
      return deliverEvent(std::move(packet));
    case PacketType::Ack:
    case PacketType::BinaryAck:
      return deliverAck(std::move(packet));
  }
}

void Engine::onConnectReply(const Packet& packet) {
  if (status_.load() != Socket::Status::Connecting) return;
  const boost::json::value* sid = nullptr;
  if (auto* o = packet.data.if_object()) sid = o->if_contains("sid");
  if (!sid || !sid->is_string() || sid->as_string().empty()) {
    return close("Connect error: the server's connect reply has no sid", true);
  }
  {
    std::lock_guard lock(info_mutex_);
    sid_ = sid->as_string();
  }
  if (connect_timer_) connect_timer_->cancel();
  connect_timer_.reset();
  setStatus(Socket::Status::Connected);
  auto pending = std::move(outbox_);
  outbox_.clear();
  for (auto& frames : pending) transmit(std::move(frames));
  fire("connect", Payload{});
}

void Engine::deliverEvent(Packet packet) {
  auto* args = packet.data.if_array();
  if (!args || args->empty()) return;
  std::string name;
  if (auto* s = (*args)[0].if_string()) {
    name.assign(s->data(), s->size());
  } else {
    name = boost::json::serialize((*args)[0]);
  }
  auto it = handlers_.find(name);
  if (it == handlers_.end()) return;
  args->erase(args->begin());
  Payload payload{std::move(*args), std::move(packet.buffers)};
  Responder responder;
  if (packet.id) {
    responder.send_ = std::make_shared<std::function<void(const Payload&)>>(
        [weak = weak_from_this(), id = *packet.id, sent = false](const Payload& reply) mutable {
          if (std::exchange(sent, true)) return;
          if (auto self = weak.lock()) {
            self->run([id, reply](Engine& e) {
              if (e.status_.load() == Socket::Status::Connected) e.transmit(encodeAck(id, reply));
            });
          }
        });
  }
  // A copy: the handler may replace or remove itself while it runs.
  auto handler = it->second;
  safeCall(handler, payload, responder);
}

void Engine::deliverAck(Packet packet) {
  if (!packet.id) return;
  Payload payload;
  if (auto* a = packet.data.if_array()) payload.args = std::move(*a);
  payload.buffers = std::move(packet.buffers);
  acks_->answer(*packet.id, payload);
}

void Engine::emit(std::string event, Payload args, std::optional<std::chrono::milliseconds> timeout,
                  AckCallback callback) {
  std::optional<std::uint64_t> id;
  if (timeout) {
    id = next_ack_id_++;
    acks_->add(*id, *timeout, std::move(callback));
  }
  auto s = status_.load();
  if (abandoned_ || s == Socket::Status::Disconnected || isReservedEventName(event)) return;
  args.args.insert(args.args.begin(), boost::json::value(event));
  auto frames = encodeEvent(args, id);
  if (!validUtf8(frames.text)) return;
  if (s == Socket::Status::Connected) {
    transmit(std::move(frames));
  } else {
    outbox_.push_back(std::move(frames));
  }
}

void Engine::transmit(Frames frames) {
  if (!transport_) return;
  if (max_payload_) {
    // The server would close the whole connection (1009) on a frame above its limit.
    if (frames.text.size() > *max_payload_) return;
    for (auto& b : frames.binary) {
      if (b->size() > *max_payload_) return;
    }
  }
  transport_->send(Outgoing{std::move(frames.text), nullptr});
  for (auto& b : frames.binary) transport_->send(Outgoing{{}, std::move(b)});
}

void Engine::disconnect() {
  auto s = status_.load();
  if (s == Socket::Status::Connected) transmit(encodeDisconnect());
  if (s == Socket::Status::Connected || s == Socket::Status::Connecting) close(reason::kClientDisconnect, true);
}

void Engine::armHeartbeat() {
  if (heartbeat_) heartbeat_->cancel();
  heartbeat_ = Clock::current().schedule(ex_, heartbeat_window_, [weak = weak_from_this()] {
    if (auto self = weak.lock()) self->close(reason::kPingTimeout, true);
  });
}

void Engine::fire(const std::string& event, const Payload& args, const Responder& responder) {
  auto it = handlers_.find(event);
  if (it == handlers_.end()) return;
  auto handler = it->second;
  safeCall(handler, args, responder);
}

void Engine::close(const std::string& why, bool report) {
  auto s = status_.load();
  if (s != Socket::Status::Connecting && s != Socket::Status::Connected) return;
  setStatus(Socket::Status::Disconnected);
  if (heartbeat_) heartbeat_->cancel();
  if (connect_timer_) connect_timer_->cancel();
  heartbeat_.reset();
  connect_timer_.reset();
  outbox_.clear();
  decoder_.reset();
  engine_open_ = false;
  if (transport_) {
    transport_->close();
    transport_.reset();
  }
  if (report) {
    Payload p;
    p.args.emplace_back(why);
    fire("disconnect", p);
  }
}

}  // namespace detail

void Responder::operator()(const Payload& args) const {
  if (send_) (*send_)(args);
}

Socket::~Socket() = default;

void Socket::on(std::string event, EventHandler handler) {
  engine_->run([event = std::move(event), handler = std::move(handler)](detail::Engine& e) mutable {
    e.on(std::move(event), std::move(handler));
  });
}

void Socket::connect(std::chrono::milliseconds timeout, std::function<void()> on_timeout) {
  engine_->run([timeout, on_timeout = std::move(on_timeout)](detail::Engine& e) mutable {
    e.connect(timeout, std::move(on_timeout));
  });
}

void Socket::emit(std::string event, Payload args) {
  engine_->run([event = std::move(event), args = std::move(args)](detail::Engine& e) mutable {
    e.emit(std::move(event), std::move(args), std::nullopt, nullptr);
  });
}

void Socket::emitWithAck(std::string event, Payload args, std::chrono::milliseconds timeout, AckCallback callback) {
  engine_->run([event = std::move(event), args = std::move(args), timeout,
                callback = std::move(callback)](detail::Engine& e) mutable {
    e.emit(std::move(event), std::move(args), timeout, std::move(callback));
  });
}

void Socket::disconnect() {
  engine_->run([](detail::Engine& e) { e.disconnect(); });
}

std::string Socket::sid() const { return engine_->sid(); }
Socket::Status Socket::status() const { return engine_->status(); }

Manager::Manager(boost::asio::any_io_executor executor, std::string url, Options options)
    : url_(url),
      socket_(new Socket(std::make_shared<detail::Engine>(std::move(executor), std::move(url), std::move(options)))) {}

Manager::~Manager() {
  auto& engine = socket_->engine_;
  auto* io = engine->executor().target<boost::asio::io_context::executor_type>();
  if (!io || io->running_in_this_thread()) {
    engine->run([](detail::Engine& e) { e.abandon(); });
    return;
  }
  // From another thread: wait, so that no handler runs once the manager is gone.
  std::promise<void> done;
  engine->run([&done](detail::Engine& e) {
    e.abandon();
    done.set_value();
  });
  done.get_future().wait();
}

}  // namespace sio
