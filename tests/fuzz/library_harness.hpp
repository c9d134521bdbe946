#pragma once
// What the fuzzers that drive the library share: a process set up so that nothing reaches the network
// or the disk, time moves only by hand and every queue runs on the fuzzer's own thread; a reader of the
// input's pieces; and a drain that runs the queued work and every timer an input left behind to
// completion. One thread keeps an input's allocations and frees within the input (a leak check per input
// otherwise) and costs no hand-over per step.
#include "diagnostics/logan_manager.hpp"
#include "socketio/clock.hpp"
#include "socketio/codec.hpp"
#include "support/queues.hpp"

#include <boost/json/parse.hpp>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string_view>

namespace fuzzing {

inline void check(bool ok) {
  if (!ok) std::abort();
}

// Set up once, before the library makes anything: the queues run by hand, the hand-moved clock, and no
// telemetry upload (its 60-second tick would post to a real server). Telemetry and the device id have no
// directory they could make, so records are dropped and a long run leaves no files; no keyring is asked
// either.
inline sio::ManualClock& clock() {
  static auto* c = [] {
    setenv("XDG_CACHE_HOME", "/dev/null/cache", 1);
    setenv("XDG_DATA_HOME", "/dev/null/data", 1);
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
    qnbrl::MainQueue::runByHand();
    auto manual = std::make_shared<sio::ManualClock>();
    sio::Clock::install(manual);
    qnbrl::LoganManager::sharedInstance().collectManager()->stopUploadTimer();
    return manual.get();
  }();
  return *c;
}

// Runs what is queued now, and what that queues in turn.
inline void settle() {
  while (qnbrl::MainQueue::poll() != 0) {
  }
}

// Runs the main queue and moves time from deadline to deadline until `done` holds; an input that
// never gets there (a hang on a real clock) aborts.
template <class Done>
void runUntil(Done done) {
  auto& c = clock();
  for (int i = 0; i < 100000; ++i) {
    if (done()) return;
    settle();
    if (done()) return;
    // Nothing left to run and no timer to fire: nothing could ever get there.
    check(c.pending() != 0);
    c.advance(std::max(c.next_deadline() - c.now(), sio::Clock::duration::zero()));
  }
  std::abort();
}

// Until no timer is left: every time-out an input armed has fired.
inline void drain() {
  runUntil([] { return clock().pending() == 0; });
}

// Steps (events, answers) one input may hold; the rest of it is ignored. Three-byte steps would
// otherwise pack a hundred reconnections into one input and make it cost a hundred short ones.
inline constexpr int kMaxSteps = 16;

// The input, read front to back; past its end every read gives zeros.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : p_(data), end_(data + size) {}
  bool done() const { return p_ == end_; }
  std::uint8_t byte() { return p_ == end_ ? 0 : *p_++; }
  std::string_view bytes(std::size_t n) {
    n = std::min(n, static_cast<std::size_t>(end_ - p_));
    std::string_view out(reinterpret_cast<const char*>(p_), n);
    p_ += n;
    return out;
  }

  // A payload as the Socket.IO layer hands it on: two bytes (little-endian) of JSON text length, the
  // text, then `attachments` binary attachments, each one byte of length and its bytes. Text that is
  // an array gives the arguments, other JSON one argument, anything else none.
  sio::Payload payload(std::size_t attachments) {
    const std::size_t length = byte() | std::size_t{byte()} << 8;
    const auto text = bytes(length);
    sio::Payload out;
    boost::system::error_code ec;
    auto value = boost::json::parse(text, ec);
    if (!ec) {
      if (auto* array = value.if_array()) {
        out.args = std::move(*array);
      } else {
        out.args.push_back(std::move(value));
      }
    }
    for (std::size_t i = 0; i < attachments; ++i) {
      const auto raw = bytes(byte());
      out.buffers.push_back(std::make_shared<const sio::Buffer>(raw.begin(), raw.end()));
    }
    return out;
  }

 private:
  const std::uint8_t* p_;
  const std::uint8_t* end_;
};

}  // namespace fuzzing
