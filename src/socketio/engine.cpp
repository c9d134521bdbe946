#include "socketio/engine.hpp"

#include "socketio/ack_table.hpp"
#include "socketio/safe_call.hpp"
#include "socketio/utf8.hpp"

#include <boost/asio/post.hpp>
#include <boost/json/serialize.hpp>

namespace sio::detail {

namespace net = boost::asio;

namespace {
constexpr const char* kPacketBeforeOpen = "Transport error: packet before open";
}  // namespace

Engine::Engine(net::any_io_executor ex, std::string url, Options options, TransportFactory factory)
    : ex_(std::move(ex)),
      url_(std::move(url)),
      options_(std::move(options)),
      factory_(std::move(factory)),
      acks_(std::make_shared<AckTable>(ex_)),
      decoder_(options_.packet_limits) {}

std::string Engine::sid() const {
  std::lock_guard lock(info_mutex_);
  return sid_;
}

void Engine::on(std::string event, EventHandler handler) {
  if (!abandoned_) handlers_[std::move(event)] = std::make_shared<const EventHandler>(std::move(handler));
}

void Engine::abandon() {
  abandoned_.store(true);
  run([](Engine& e) {
    e.handlers_.clear();
    e.close("", false);
  });
}

void Engine::connect(std::chrono::milliseconds timeout, std::function<void()> on_timeout) {
  auto s = status_.load();
  if (abandoned_ || s == Socket::Status::Connecting || s == Socket::Status::Connected) return;
  setStatus(Socket::Status::Connecting);
  {
    std::lock_guard lock(info_mutex_);
    sid_.clear();
  }
  stage_ = Stage::Dialing;
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
        if (!self->abandoned_.load()) safeCall(on_timeout);
      });
  transport_ = factory_(ex_, *ep.value, options_, weak_from_this());
  transport_->start();
}

void Engine::onOpen() {
  if (stage_ == Stage::Dialing) stage_ = Stage::TransportOpen;
}

void Engine::onText(std::string_view frame) {
  auto packet = engine::decodeText(frame);
  if (!packet) return close("Transport error: " + packet.error, true);
  // Until the open packet there is no heartbeat: a server that skipped it could go silent unseen.
  if (packet.value->type != engine::Type::Open && stage_ != Stage::EngineOpen) {
    return close(kPacketBeforeOpen, true);
  }
  switch (packet.value->type) {
    case engine::Type::Open: {
      auto hs = engine::decodeHandshake(packet.value->data);
      if (!hs || stage_ != Stage::TransportOpen) return close("Transport error: invalid open packet", true);
      stage_ = Stage::EngineOpen;
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
      if (auto* p = std::get_if<Packet>(&*out.value)) onPacket(*p);
      return;
    }
    case engine::Type::Pong:
    case engine::Type::Upgrade:
    case engine::Type::Noop:
      return;
  }
}

void Engine::onBinary(BufferPtr frame) {
  if (stage_ != Stage::EngineOpen) return close(kPacketBeforeOpen, true);
  auto out = decoder_.onBinary(std::move(frame));
  if (!out) return close("Parse error: " + out.error, true);
  if (auto* p = std::get_if<Packet>(&*out.value)) onPacket(*p);
}

void Engine::onPacket(Packet& packet) {
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
      return deliverEvent(packet);
    case PacketType::Ack:
    case PacketType::BinaryAck:
      return deliverAck(packet);
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

void Engine::deliverEvent(Packet& packet) {
  auto* args = packet.data.if_array();
  if (!args || args->empty()) return;
  std::string number;  // a name that is a number is looked up as its text
  std::string_view name;
  if (auto* s = (*args)[0].if_string()) {
    name = std::string_view(s->data(), s->size());
  } else {
    number = boost::json::serialize((*args)[0]);
    name = number;
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
  // Held: the handler may replace or remove itself while it runs.
  const auto handler = it->second;
  if (!abandoned_.load()) safeCall(*handler, payload, responder);
}

void Engine::deliverAck(Packet& packet) {
  if (!packet.id) return;
  // Constructed, not assigned: the arguments keep the memory resource they were parsed into.
  auto* args = packet.data.if_array();
  Payload payload{args ? std::move(*args) : boost::json::array(), std::move(packet.buffers)};
  acks_->answer(*packet.id, payload);
}

void Engine::emit(std::string_view event, const Payload& args, std::optional<std::chrono::milliseconds> timeout,
                  AckCallback&& callback) {
  std::optional<std::uint64_t> id;
  if (timeout) id = acks_->add(*timeout, std::move(callback));
  auto s = status_.load();
  if (abandoned_ || s == Socket::Status::Disconnected || isReservedEventName(event)) return;
  auto frames = encodeEvent(event, args, id);
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
  const auto handler = it->second;
  if (!abandoned_.load()) safeCall(*handler, args, responder);
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

}  // namespace sio::detail
