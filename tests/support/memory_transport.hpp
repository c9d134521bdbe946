#pragma once
// An in-memory transport, so that tests and fuzzers play the server against the engine without a
// network: what the engine sends is kept, what the server says goes straight to the engine. Used on
// the engine's executor only. Free of gtest: the fuzzers use it too.
#include "socketio/engine.hpp"

#include <memory>
#include <string>
#include <vector>

namespace testing_support {

class MemoryTransport : public sio::detail::Transport {
 public:
  explicit MemoryTransport(std::weak_ptr<sio::detail::TransportListener> engine) : engine_(std::move(engine)) {}

  void start() override {}
  void send(sio::detail::Outgoing frame) override { sent.push_back(std::move(frame)); }
  void close() override {
    closed = true;
    engine_.reset();
  }

  // The server's side. Nothing reaches the engine once it has closed the transport.
  void open() {
    if (auto e = engine_.lock()) e->onOpen();
  }
  void text(std::string_view frame) {
    if (auto e = engine_.lock()) e->onText(frame);
  }
  void binary(sio::Buffer bytes) {
    if (auto e = engine_.lock()) e->onBinary(std::make_shared<const sio::Buffer>(std::move(bytes)));
  }
  void drop(const std::string& why) {
    auto e = engine_.lock();
    close();
    if (e) e->onClosed(why);
  }

  std::vector<sio::detail::Outgoing> sent;
  bool closed = false;

 private:
  std::weak_ptr<sio::detail::TransportListener> engine_;
};

// Hands the engine a new MemoryTransport per connection attempt and keeps the latest.
struct MemoryLink {
  std::shared_ptr<MemoryTransport> current;

  sio::detail::TransportFactory factory() {
    return [this](auto&&, const sio::Endpoint&, const sio::Options&, std::weak_ptr<sio::detail::TransportListener> e) {
      current = std::make_shared<MemoryTransport>(std::move(e));
      return current;
    };
  }
};

}  // namespace testing_support
