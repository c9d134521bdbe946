#pragma once
// A repeating or one-shot timer that runs a block. While it is scheduled the clock holds the timer
// object, so an owner may drop its own reference without cancelling it; stop() (or the single firing
// of a one-shot timer) ends that.
#include "socketio/clock.hpp"
#include "support/queues.hpp"

#include <boost/asio/any_io_executor.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

namespace qnbrl {

class QNBRLTimer : public std::enable_shared_from_this<QNBRLTimer> {
 public:
  using Block = std::function<void()>;

  // Fires on the main queue. The first firing comes one interval after the call, never at once.
  // Intervals of zero or less (or not a number) are taken as 0.1 ms, so a repeating timer cannot spin.
  static std::shared_ptr<QNBRLTimer> startTimer(double interval_seconds, bool repeats, Block block);
  // Fires on the given executor.
  static std::shared_ptr<QNBRLTimer> startTimer(double interval_seconds, bool repeats, Block block,
                                                boost::asio::any_io_executor executor);
  // Fires as a task of the given serial queue.
  static std::shared_ptr<QNBRLTimer> startTimer(double interval_seconds, bool repeats, Block block,
                                                std::shared_ptr<SerialQueue> queue);

  // Runs the block; the timer's action on every firing.
  void timerClock();
  // Cancels the timer; no firing starts after it returns. Safe from any thread, twice included. The
  // block is kept.
  void stop();

 private:
  using Dispatch = std::function<void(std::function<void()>)>;

  QNBRLTimer(sio::Clock::duration interval, bool repeats, Block block, boost::asio::any_io_executor executor,
             Dispatch dispatch);
  static std::shared_ptr<QNBRLTimer> start(double interval_seconds, bool repeats, Block block,
                                           boost::asio::any_io_executor executor, Dispatch dispatch);
  void arm(sio::Clock::duration delay);  // with mutex_ held
  void fire(std::uint64_t generation);

  const sio::Clock::duration interval_;
  const bool repeats_;
  const Block block_;
  const boost::asio::any_io_executor executor_;
  // How a firing reaches its target: run in place, or handed on to a serial queue.
  const Dispatch dispatch_;

  std::mutex mutex_;
  sio::TimerPtr timer_;  // the armed clock timer; null once stopped or fired for the last time
  sio::Clock::time_point deadline_{};
  std::uint64_t generation_ = 0;  // a firing of an older arming is ignored
};

}  // namespace qnbrl
