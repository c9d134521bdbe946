// Drives the engine state machine over an in-memory transport. The input is a script: each step's
// first byte picks what happens next — the server sends a frame (raw text or binary, or a well-formed
// open packet, connect reply, ping, event or acknowledgement), the transport opens or drops, the
// application connects, emits (with or without an acknowledgement), disconnects or drops the socket,
// or time moves. After the script the server falls silent and time runs until no timer is left.
// Checked throughout: every acknowledgement asked for is answered exactly once, and all of them once
// their time-outs have passed; no handler runs after the close was reported or the socket was
// dropped (until the next attempt); no "connect" without an open packet on that connection; every
// text frame the engine sends decodes; a silent server is always detected.
#include "support/memory_transport.hpp"

#include <boost/asio/io_context.hpp>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace std::chrono_literals;
using testing_support::MemoryLink;
using testing_support::MemoryTransport;

void check(bool ok) {
  if (!ok) std::abort();
}

sio::ManualClock& manualClock() {
  static auto* c = [] {
    auto manual = std::make_shared<sio::ManualClock>();
    sio::Clock::install(manual);
    return manual.get();
  }();
  return *c;
}

class Script {
 public:
  Script(const std::uint8_t* data, std::size_t size) : p_(data), end_(data + size) {}
  bool done() const { return p_ == end_; }
  std::uint8_t byte() { return p_ == end_ ? 0 : *p_++; }
  std::string bytes() {
    const std::size_t n = std::min<std::size_t>(byte(), static_cast<std::size_t>(end_ - p_));
    std::string out(reinterpret_cast<const char*>(p_), n);
    p_ += n;
    return out;
  }

 private:
  const std::uint8_t* p_;
  const std::uint8_t* end_;
};

class Run {
 public:
  Run() {
    // Bounds small enough for the script's frames to meet them, the JSON budget's metering included.
    sio::Options options;
    options.packet_limits = {512, 8 * 1024};
    engine_ = std::make_shared<sio::detail::Engine>(io_.get_executor(), "http://memory", options, link_.factory());
    engine_->on("connect", [this](const sio::Payload&, const sio::Responder&) {
      check(live_ && open_accepted_);
    });
    engine_->on("disconnect", [this](const sio::Payload& p, const sio::Responder&) {
      check(live_ && p.args.size() == 1 && p.args[0].is_string());
      live_ = false;
    });
    engine_->on("news", [this](const sio::Payload&, const sio::Responder&) { check(live_); });
    engine_->on("ask", [this](const sio::Payload& p, const sio::Responder& respond) {
      check(live_);
      respond(p);
    });
  }

  void step(Script& s) {
    switch (s.byte() % 16) {
      case 0:
        engine_->connect(std::chrono::milliseconds(100 * (s.byte() + 1)), [this] {
          check(live_);
          live_ = false;
        });
        break;
      case 1:
        if (link_.current) {
          link_.current->open();
          transport_open_ = true;
        }
        break;
      case 2: {
        const auto interval = std::to_string(10 * (s.byte() + 1));
        const auto timeout = std::to_string(10 * (s.byte() + 1));
        const auto max_payload = std::to_string(s.byte() * 64 + 16);
        text(R"(0{"sid":"e","upgrades":[],"pingInterval":)" + interval + R"(,"pingTimeout":)" + timeout +
             R"(,"maxPayload":)" + max_payload + "}");
        break;
      }
      case 3:
        text(R"(40{"sid":"s"})");
        break;
      case 4:
        text("2");
        break;
      case 5:
        text(s.bytes());
        break;
      case 6:
        if (link_.current) {
          const auto raw = s.bytes();
          link_.current->binary(sio::Buffer(raw.begin(), raw.end()));
        }
        break;
      case 7:
        text("43" + std::to_string(s.byte() % (answers_.size() + 1)) + R"(["ok"])");
        break;
      case 8:
        text("42" + std::to_string(s.byte()) + R"(["ask",1])");
        break;
      case 9:
      case 10:
        emit(s, s.byte() & 1);
        break;
      case 11:
        engine_->disconnect();
        break;
      case 12:
        manualClock().advance(std::chrono::milliseconds(10 * s.byte()));
        break;
      case 13:
        if (link_.current) link_.current->drop("Transport close");
        break;
      case 14:
        engine_->abandon();
        live_ = false;
        abandoned_ = true;
        break;
      case 15:
        text(R"(451-["news",{"_placeholder":true,"num":0}])");
        break;
    }
    settle();
  }

  // The server falls silent; every timer is left to run out.
  void finish() {
    for (int i = 0; i < 10000 && manualClock().pending() > 0; ++i) {
      manualClock().advance(manualClock().next_deadline() - manualClock().now());
      settle();
    }
    check(manualClock().pending() == 0);
    const auto status = engine_->status();
    check(status != sio::Socket::Status::Connecting && status != sio::Socket::Status::Connected);
    for (int n : answers_) check(n == 1);
  }

 private:
  void settle() {
    io_.restart();
    io_.poll();
    // A new attempt: handlers may run again, and its transport has yet to open.
    if (link_.current != transport_) {
      transport_ = link_.current;
      transport_open_ = open_accepted_ = false;
      live_ = !abandoned_;
      checked_ = 0;
      decoder_.reset();
    }
    if (transport_) checkSent(*transport_);
  }

  void text(const std::string& frame) {
    if (!link_.current) return;
    const auto eio = sio::engine::decodeText(frame);
    if (transport_open_ && !open_accepted_ && eio && eio.value->type == sio::engine::Type::Open &&
        sio::engine::decodeHandshake(eio.value->data)) {
      open_accepted_ = true;
    }
    link_.current->text(frame);
  }

  void emit(Script& s, bool with_ack) {
    static const char* const kNames[] = {"news", "ask", "disconnect", "command"};
    sio::Payload args;
    double number;
    const auto raw = s.bytes();
    std::memcpy(&number, (raw + std::string(sizeof number, '\0')).data(), sizeof number);
    args.args.emplace_back(raw);
    args.args.emplace_back(number);  // any bit pattern: infinities and NaN too
    if (s.byte() & 1) {
      args.args.emplace_back(sio::makePlaceholder(0));
      args.buffers.push_back(std::make_shared<const sio::Buffer>(raw.begin(), raw.end()));
    }
    std::optional<std::chrono::milliseconds> timeout;
    sio::AckCallback callback;
    if (with_ack) {
      timeout = std::chrono::milliseconds(50 * (s.byte() + 1));
      const std::size_t id = answers_.size();
      answers_.push_back(0);
      callback = [this, id](const sio::Payload&) { check(++answers_[id] == 1); };
    }
    engine_->emit(kNames[s.byte() % 4], std::move(args), timeout, std::move(callback));
  }

  // What the engine sends, a server can read: each text frame with the binary frames that follow it.
  void checkSent(MemoryTransport& t) {
    for (; checked_ < t.sent.size(); ++checked_) {
      const auto& frame = t.sent[checked_];
      if (frame.binary) {
        check(decoder_.awaitingAttachments());
        check(static_cast<bool>(decoder_.onBinary(frame.binary)));
        continue;
      }
      check(!decoder_.awaitingAttachments());
      const auto eio = sio::engine::decodeText(frame.text);
      check(static_cast<bool>(eio));
      if (eio.value->type == sio::engine::Type::Message) check(static_cast<bool>(decoder_.onText(eio.value->data)));
    }
  }

  boost::asio::io_context io_;
  MemoryLink link_;
  std::shared_ptr<sio::detail::Engine> engine_;
  std::shared_ptr<MemoryTransport> transport_;  // the attempt being watched
  std::size_t checked_ = 0;
  sio::Decoder decoder_;
  bool transport_open_ = false;
  bool open_accepted_ = false;
  bool live_ = false;  // whether a handler may run now
  bool abandoned_ = false;
  std::vector<int> answers_;  // per acknowledgement asked for: how often it was answered
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  manualClock();
  Script script(data, size);
  Run run;
  while (!script.done()) run.step(script);
  run.finish();
  return 0;
}
