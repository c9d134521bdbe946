#include "support/timer.hpp"

#include <chrono>

namespace qnbrl {
namespace {

sio::Clock::duration toInterval(double seconds) {
  constexpr double kShortest = 0.0001;
  constexpr double kLongest = 3.0e9;                 // about a century; keeps the conversion in range
  if (!(seconds >= kShortest)) seconds = kShortest;  // also catches NaN
  if (seconds > kLongest) seconds = kLongest;
  return std::chrono::duration_cast<sio::Clock::duration>(std::chrono::duration<double>(seconds));
}

}  // namespace

QNBRLTimer::QNBRLTimer(sio::Clock::duration interval, bool repeats, Block block,
                       boost::asio::any_io_executor executor, Dispatch dispatch)
    : interval_(interval),
      repeats_(repeats),
      block_(std::move(block)),
      executor_(std::move(executor)),
      dispatch_(std::move(dispatch)) {}

std::shared_ptr<QNBRLTimer> QNBRLTimer::startTimer(double interval_seconds, bool repeats, Block block) {
  return start(interval_seconds, repeats, std::move(block), MainQueue::executor(), nullptr);
}

std::shared_ptr<QNBRLTimer> QNBRLTimer::startTimer(double interval_seconds, bool repeats, Block block,
                                                   boost::asio::any_io_executor executor) {
  return start(interval_seconds, repeats, std::move(block), std::move(executor), nullptr);
}

std::shared_ptr<QNBRLTimer> QNBRLTimer::startTimer(double interval_seconds, bool repeats, Block block,
                                                   std::shared_ptr<SerialQueue> queue) {
  // The clock wakes on the shared pool; the firing itself waits its turn on the queue.
  return start(interval_seconds, repeats, std::move(block), backgroundExecutor(),
               [queue = std::move(queue)](std::function<void()> fn) { queue->async(std::move(fn)); });
}

std::shared_ptr<QNBRLTimer> QNBRLTimer::start(double interval_seconds, bool repeats, Block block,
                                              boost::asio::any_io_executor executor, Dispatch dispatch) {
  std::shared_ptr<QNBRLTimer> timer(new QNBRLTimer(toInterval(interval_seconds), repeats, std::move(block),
                                                   std::move(executor), std::move(dispatch)));
  std::lock_guard lock(timer->mutex_);
  timer->deadline_ = sio::Clock::current().now() + timer->interval_;
  timer->arm(timer->interval_);
  return timer;
}

void QNBRLTimer::arm(sio::Clock::duration delay) {
  auto generation = ++generation_;
  // The closure holds the timer: this is the cycle that keeps a running timer alive.
  timer_ = sio::Clock::current().schedule(executor_, delay, [self = shared_from_this(), generation] {
    if (self->dispatch_) {
      self->dispatch_([self, generation] { self->fire(generation); });
    } else {
      self->fire(generation);
    }
  });
}

void QNBRLTimer::fire(std::uint64_t generation) {
  {
    std::lock_guard lock(mutex_);
    if (generation != generation_ || !timer_) return;  // stopped meanwhile
    if (repeats_) {
      // Keep the cadence of the first deadline; firings missed while the target was busy collapse
      // into this one.
      auto now = sio::Clock::current().now();
      deadline_ += interval_;
      if (deadline_ <= now) deadline_ += ((now - deadline_) / interval_ + 1) * interval_;
      arm(deadline_ - now);
    } else {
      timer_.reset();
    }
  }
  timerClock();
}

void QNBRLTimer::timerClock() {
  if (block_) block_();
}

void QNBRLTimer::stop() {
  sio::TimerPtr armed;
  {
    std::lock_guard lock(mutex_);
    armed = std::move(timer_);
    ++generation_;
  }
  if (armed) armed->cancel();
}

}  // namespace qnbrl
