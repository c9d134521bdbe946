#pragma once
// The one seam through which every delay and time-out passes. Production code uses the steady clock;
// tests install a ManualClock and move time by hand, so 6-second time-outs run in microseconds and
// always in the same order.
#include <boost/asio/any_io_executor.hpp>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace sio {

class Timer {
 public:
  virtual ~Timer() = default;
  // Idempotent; after it returns from the timer's own executor the handler will not run.
  virtual void cancel() = 0;
};
using TimerPtr = std::shared_ptr<Timer>;

class Clock {
 public:
  using duration = std::chrono::steady_clock::duration;
  using time_point = std::chrono::steady_clock::time_point;

  virtual ~Clock() = default;
  virtual time_point now() const = 0;
  // Runs `fn` on `ex` once `delay` has passed, unless cancelled first. The timer stays armed even
  // when the caller drops the handle: only cancel() stops it.
  virtual TimerPtr schedule(boost::asio::any_io_executor ex, duration delay, std::function<void()> fn) = 0;

  // The process-wide clock. Tests swap it with install(); nullptr restores the steady clock.
  static Clock& current();
  static void install(std::shared_ptr<Clock> clock);
};

// Deterministic clock for tests: time moves only through advance(). Due handlers are posted to their
// executors in deadline order (ties in scheduling order).
class ManualClock : public Clock {
 public:
  time_point now() const override;
  TimerPtr schedule(boost::asio::any_io_executor ex, duration delay, std::function<void()> fn) override;
  void advance(duration d);
  // Number of armed timers, so tests can wait until a component has armed the one they expect.
  std::size_t pending() const;
  // Earliest deadline among armed timers, or time_point::max() when none.
  time_point next_deadline() const;

 private:
  struct Entry;
  mutable std::mutex mutex_;
  time_point now_{};
  std::uint64_t seq_ = 0;
  std::vector<std::shared_ptr<Entry>> entries_;
};

}  // namespace sio
