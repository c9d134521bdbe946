#include "socketio/client.hpp"

#include "socketio/engine.hpp"
#include "socketio/websocket_transport.hpp"

#include <boost/asio/io_context.hpp>

#include <stdexcept>

namespace sio {

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
    e.emit(event, args, std::nullopt, nullptr);
  });
}

void Socket::emitWithAck(std::string event, Payload args, std::chrono::milliseconds timeout, AckCallback callback) {
  engine_->run([event = std::move(event), args = std::move(args), timeout,
                callback = std::move(callback)](detail::Engine& e) mutable {
    e.emit(event, args, timeout, std::move(callback));
  });
}

void Socket::disconnect() {
  engine_->run([](detail::Engine& e) { e.disconnect(); });
}

std::string Socket::sid() const { return engine_->sid(); }
Socket::Status Socket::status() const { return engine_->status(); }

namespace {
boost::asio::any_io_executor loopExecutor(boost::asio::any_io_executor executor) {
  if (!executor.target<boost::asio::io_context::executor_type>()) {
    throw std::invalid_argument("sio::Manager needs an io_context's executor");
  }
  return executor;
}
}  // namespace

Manager::Manager(boost::asio::any_io_executor executor, std::string url, Options options)
    : Manager(std::make_shared<detail::Engine>(loopExecutor(std::move(executor)), std::move(url), std::move(options),
                                               detail::makeWebSocketTransport)) {}

Manager::Manager(std::shared_ptr<detail::Engine> engine) : socket_(new Socket(std::move(engine))) {}

const std::string& Manager::url() const { return socket_->engine_->url(); }

Manager::~Manager() { socket_->engine_->abandon(); }

}  // namespace sio
