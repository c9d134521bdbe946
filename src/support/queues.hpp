#pragma once
// The library's execution contexts. The main queue is one process-wide event-loop thread that runs
// socket I/O, time-outs, completions and delegate calls. Serial queues run tasks one at a time, in
// order, on a small shared pool, so ten thousand clients do not mean ten thousand threads.
#include <boost/asio/any_io_executor.hpp>

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace qnbrl {

class MainQueue {
 public:
  static boost::asio::any_io_executor executor();
  static bool isCurrent();
  static void async(std::function<void()> fn);
  // Runs fn on the main queue once `delay` has passed, through the clock seam (so tests move time by
  // hand). Nothing outside support reaches the clock directly.
  static void after(std::chrono::steady_clock::duration delay, std::function<void()> fn);
  // Runs fn on the main queue and waits for it; runs inline when already there. What fn throws is
  // rethrown here.
  static void sync(const std::function<void()>& fn);

  // For fuzzers, which want one input's whole effect on one thread without a hand-over per step: the
  // main queue and the worker pool become one queue that only poll() runs, on the thread that called
  // this. Call it before anything else uses a queue; there is no way back.
  static void runByHand();
  // Runs every handler that is ready, and those they make ready; returns how many ran.
  static std::size_t poll();
};

// The shared worker pool behind every serial queue and the HTTP session.
boost::asio::any_io_executor backgroundExecutor();

// Lets at most `limit` holders in at a time, in arrival order; each keeps its place until it drops its
// ticket. Thousands of clients that start the same work at once (reconnections after a shared outage)
// then meet their server, and the main queue, a few dozen at a time instead of all together.
class AdmissionGate {
 public:
  using Ticket = std::shared_ptr<void>;

  explicit AdmissionGate(std::size_t limit);  // limit > 0
  // Runs `start` on the main queue with a ticket once fewer than `limit` tickets are out.
  void enter(std::function<void(Ticket)> start);

 private:
  struct State;
  std::shared_ptr<State> state_;
};

class SerialQueue : public std::enable_shared_from_this<SerialQueue> {
 public:
  // A task that holds the queue until it calls `done` (e.g. while it waits for an HTTP answer or a
  // pause); everything queued behind it waits, but no thread is blocked.
  using WaitingTask = std::function<void(std::function<void()> done)>;

  static std::shared_ptr<SerialQueue> create(std::string label);

  const std::string& label() const { return label_; }
  void async(std::function<void()> task);
  void asyncWaiting(WaitingTask task);
  // Runs task after everything queued so far and waits for it; what it throws is rethrown here. A task
  // dropped unrun (cancelPending) ends the wait with std::future_error. Never call it from the queue itself.
  void sync(const std::function<void()>& task);
  // Drops every task not yet started; the running one finishes.
  void cancelPending();
  bool isCurrent() const;

 private:
  explicit SerialQueue(std::string label) : label_(std::move(label)) {}
  void schedule();
  void runNext();

  std::string label_;
  std::mutex mutex_;
  std::deque<WaitingTask> tasks_;
  bool running_ = false;
};

}  // namespace qnbrl
