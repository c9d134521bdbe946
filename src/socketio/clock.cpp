#include "socketio/clock.hpp"

#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include <algorithm>
#include <atomic>

namespace sio {
namespace {

class SteadyTimer : public Timer, public std::enable_shared_from_this<SteadyTimer> {
 public:
  SteadyTimer(boost::asio::any_io_executor ex, std::function<void()> fn) : timer_(ex), fn_(std::move(fn)) {}

  void start(Clock::duration delay) {
    timer_.expires_after(delay);
    timer_.async_wait(Wait(shared_from_this()));
  }

  void cancel() override {
    if (cancelled_.exchange(true)) return;
    // The asio timer itself is only touched on its executor.
    boost::asio::post(timer_.get_executor(), [self = shared_from_this()] {
      self->timer_.cancel();
      self->fn_ = nullptr;
    });
  }

 private:
  // The wait's handler. Destroyed without having run, because its event loop went first, it drops
  // the function: that may hold the very object that holds this timer, and neither would be freed.
  class Wait {
   public:
    explicit Wait(std::shared_ptr<SteadyTimer> timer) : timer_(std::move(timer)) {}
    Wait(Wait&&) = default;
    ~Wait() {
      if (timer_) timer_->fn_ = nullptr;
    }
    void operator()(boost::system::error_code) {
      auto timer = std::move(timer_);
      // The flag, not the error code, decides: cancel() may race with a completion already queued.
      if (timer->cancelled_.exchange(true)) return;
      auto fn = std::move(timer->fn_);
      fn();
    }

   private:
    std::shared_ptr<SteadyTimer> timer_;
  };

  boost::asio::steady_timer timer_;
  std::function<void()> fn_;
  std::atomic<bool> cancelled_{false};
};

class SteadyClock : public Clock {
 public:
  time_point now() const override { return std::chrono::steady_clock::now(); }
  TimerPtr schedule(boost::asio::any_io_executor ex, duration delay, std::function<void()> fn) override {
    auto t = std::make_shared<SteadyTimer>(std::move(ex), std::move(fn));
    t->start(delay);
    return t;
  }
};

std::mutex g_install_mutex;
std::atomic<Clock*> g_current{nullptr};

Clock& steadyClock() {
  static auto* clock = new SteadyClock();
  return *clock;
}

}  // namespace

// Read on every emit: an atomic pointer, not a lock.
Clock& Clock::current() {
  if (auto* c = g_current.load(std::memory_order_acquire)) return *c;
  return steadyClock();
}

void Clock::install(std::shared_ptr<Clock> clock) {
  std::lock_guard lock(g_install_mutex);
  // Installed clocks are kept for the life of the process: timers may still point at them.
  static auto* keep = new std::vector<std::shared_ptr<Clock>>();
  if (clock) keep->push_back(clock);
  g_current.store(clock.get(), std::memory_order_release);
}

struct ManualClock::Entry : Timer {
  ManualClock* owner;
  time_point deadline;
  std::uint64_t seq;
  boost::asio::any_io_executor ex;
  std::function<void()> fn;
  std::atomic<bool> done{false};

  void cancel() override {
    if (done.exchange(true)) return;
    // Drop the handler now: it may hold the very object that holds this timer.
    auto dropped = std::move(fn);
    std::lock_guard lock(owner->mutex_);
    std::erase_if(owner->entries_, [this](auto& e) { return e.get() == this; });
  }
};

Clock::time_point ManualClock::now() const {
  std::lock_guard lock(mutex_);
  return now_;
}

TimerPtr ManualClock::schedule(boost::asio::any_io_executor ex, duration delay, std::function<void()> fn) {
  auto e = std::make_shared<Entry>();
  e->owner = this;
  e->ex = std::move(ex);
  e->fn = std::move(fn);
  std::lock_guard lock(mutex_);
  e->deadline = now_ + std::max(delay, duration::zero());
  e->seq = seq_++;
  entries_.push_back(e);
  return e;
}

void ManualClock::advance(duration d) {
  std::vector<std::shared_ptr<Entry>> due;
  {
    std::lock_guard lock(mutex_);
    now_ += d;
    auto split = std::stable_partition(entries_.begin(), entries_.end(),
                                       [this](auto& e) { return e->deadline > now_; });
    due.assign(split, entries_.end());
    entries_.erase(split, entries_.end());
  }
  std::sort(due.begin(), due.end(), [](auto& a, auto& b) {
    return a->deadline != b->deadline ? a->deadline < b->deadline : a->seq < b->seq;
  });
  for (auto& e : due) {
    boost::asio::post(e->ex, [e] {
      if (e->done.exchange(true)) return;
      auto fn = std::move(e->fn);
      fn();
    });
  }
}

std::size_t ManualClock::pending() const {
  std::lock_guard lock(mutex_);
  return entries_.size();
}

Clock::time_point ManualClock::next_deadline() const {
  std::lock_guard lock(mutex_);
  auto best = time_point::max();
  for (auto& e : entries_) best = std::min(best, e->deadline);
  return best;
}

}  // namespace sio
