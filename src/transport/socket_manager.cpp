#include "transport/socket_manager.hpp"

#include "support/queues.hpp"

#include <boost/json/serialize.hpp>

namespace qnbrl {
namespace {

// "forceWebsockets" needs no mapping: WebSocket is the socket layer's only transport.
sio::Options optionsFromConfig(const boost::json::object& config) {
  sio::Options options;
  if (auto* v = config.if_contains("compress"); v && v->is_bool()) options.compress = v->as_bool();
  if (auto* v = config.if_contains("connectParams"); v && v->is_object()) {
    for (auto& [key, value] : v->as_object()) {
      // Texts go as they are; numbers and booleans as their JSON text (12, true).
      options.query.emplace_back(std::string(key),
                                 value.is_string() ? std::string(value.as_string()) : boost::json::serialize(value));
    }
  }
  return options;
}

}  // namespace

std::shared_ptr<QNSocketManager> QNSocketManager::create() {
  return std::shared_ptr<QNSocketManager>(new QNSocketManager());
}

void QNSocketManager::setDelegate(std::weak_ptr<QNSocketManagerDelegate> delegate) {
  std::lock_guard lock(mutex_);
  delegate_ = std::move(delegate);
}

void QNSocketManager::setMessageDelegate(std::weak_ptr<QNSocketMessageDelegate> delegate) {
  std::lock_guard lock(mutex_);
  message_delegate_ = std::move(delegate);
}

std::shared_ptr<sio::Socket> QNSocketManager::createSocketWithUrl(const std::string& url,
                                                                  const boost::json::object& config) {
  auto manager = std::make_unique<sio::Manager>(MainQueue::executor(), url, optionsFromConfig(config));
  auto socket = manager->socket();
  std::unique_ptr<sio::Manager> previous;
  std::shared_ptr<QNSocketManagerDelegate> delegate;
  {
    std::lock_guard lock(mutex_);
    previous = std::exchange(manager_, std::move(manager));
    socket_ = socket;
    ++generation_;
    url_ = url;
    config_ = config;
    delegate = delegate_.lock();
  }
  previous.reset();  // outside the lock: dropping a manager closes its connection
  if (delegate && delegate->onSocketChange) delegate->onSocketChange(*this, socket);
  registerCallback();
  return socket;
}

void QNSocketManager::connect() {
  auto socket = socket_.lock();
  if (!socket) return;
  socket->connect(kConnectTimeout, [weak = weak_from_this()] {
    auto self = weak.lock();
    if (!self) return;
    auto delegate = [&] {
      std::lock_guard lock(self->mutex_);
      return self->delegate_.lock();
    }();
    if (delegate && delegate->onConnectTimeout) delegate->onConnectTimeout(*self, boost::json::array{});
  });
}

void QNSocketManager::disconnect() {
  if (auto socket = this->socket().lock()) socket->disconnect();
}

void QNSocketManager::destroy() {
  disconnect();
  std::unique_ptr<sio::Manager> dropped;
  {
    std::lock_guard lock(mutex_);
    dropped = std::move(manager_);
    socket_.reset();
    ++generation_;
  }
}

void QNSocketManager::registerCallback() {
  auto socket = this->socket().lock();
  if (!socket) return;
  std::uint64_t generation = 0;
  {
    std::lock_guard lock(mutex_);
    generation = generation_;
  }
  for (const char* event : kServerEvents) {
    socket->on(event, [weak = weak_from_this(), event, generation](const sio::Payload& args, const sio::Responder&) {
      auto self = weak.lock();
      if (!self) return;
      std::shared_ptr<QNSocketMessageDelegate> delegate;
      {
        std::lock_guard lock(self->mutex_);
        if (self->generation_ != generation) return;  // a socket already replaced or destroyed
        delegate = self->message_delegate_.lock();
      }
      if (delegate && delegate->onEvent) delegate->onEvent(*self, event, args);
    });
  }
}

std::weak_ptr<sio::Socket> QNSocketManager::socket() const {
  std::lock_guard lock(mutex_);
  return socket_;
}

std::string QNSocketManager::url() const {
  std::lock_guard lock(mutex_);
  return url_;
}

boost::json::object QNSocketManager::config() const {
  std::lock_guard lock(mutex_);
  return config_;
}

std::chrono::milliseconds QNSocketManager::commandTimeout(const std::string& name) {
  return name == "clearLocalUserAttributes" ? kSlowCommandTimeout : kCommandTimeout;
}

void QNSocketManager::command(const std::string& name, boost::json::object payload, AckHandler done,
                              std::vector<sio::BufferPtr> attachments) {
  auto socket = this->socket().lock();
  if (!socket) {
    // Between connections a request is still answered exactly once, as the socket would.
    MainQueue::after(commandTimeout(name), [done = std::move(done)] {
      sio::Payload ack;
      ack.args.emplace_back(sio::kNoAck);
      done(ack);
    });
    return;
  }
  sio::Payload args;
  args.args.reserve(2);
  args.args.emplace_back(name);
  args.args.emplace_back(std::move(payload));
  args.buffers = std::move(attachments);
  socket->emitWithAck("command", std::move(args), commandTimeout(name), std::move(done));
}

}  // namespace qnbrl
