#include "support/queues.hpp"

#include "socketio/clock.hpp"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>

#include <atomic>
#include <future>
#include <thread>

namespace qnbrl {
namespace {

thread_local const void* t_current_queue = nullptr;
std::atomic<bool> g_by_hand{false};

struct Main {
  boost::asio::io_context ioc{1};
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> guard{ioc.get_executor()};
  std::thread::id thread_id;
  explicit Main(bool byHand) {
    if (byHand) {
      thread_id = std::this_thread::get_id();
      return;
    }
    std::promise<std::thread::id> started;
    auto id = started.get_future();
    std::thread([this, &started] {
      started.set_value(std::this_thread::get_id());
      for (;;) {
        try {
          ioc.run();
          break;
        } catch (...) {
          // A throwing handler must not stop the loop; callbacks into the app are guarded where they
          // are made, this is the last line of defence.
        }
      }
    }).detach();
    thread_id = id.get();
  }
};

// Created on first use and never destroyed: nothing depends on static destruction order at exit.
Main& main_loop() {
  static auto* m = new Main(g_by_hand);
  return *m;
}

}  // namespace

boost::asio::any_io_executor MainQueue::executor() { return main_loop().ioc.get_executor(); }
bool MainQueue::isCurrent() { return std::this_thread::get_id() == main_loop().thread_id; }
void MainQueue::async(std::function<void()> fn) { boost::asio::post(main_loop().ioc, std::move(fn)); }

void MainQueue::after(std::chrono::steady_clock::duration delay, std::function<void()> fn) {
  sio::Clock::current().schedule(executor(), delay, std::move(fn));
}

namespace {

// Runs fn and hands its outcome to the waiting caller: a throwing fn must not leave it waiting for ever.
void settle(const std::function<void()>& fn, std::promise<void>& done) {
  try {
    fn();
    done.set_value();
  } catch (...) {
    done.set_exception(std::current_exception());
  }
}

}  // namespace

void MainQueue::sync(const std::function<void()>& fn) {
  if (isCurrent()) {
    fn();
    return;
  }
  std::promise<void> done;
  auto outcome = done.get_future();
  boost::asio::post(main_loop().ioc, [&] { settle(fn, done); });
  outcome.get();
}

void MainQueue::runByHand() {
  g_by_hand = true;
  main_loop();
}

std::size_t MainQueue::poll() {
  std::size_t ran = 0;
  for (;;) {
    try {
      return ran + main_loop().ioc.poll();
    } catch (...) {
      ++ran;  // as on the loop's own thread, a throwing handler does not stop the others
    }
  }
}

boost::asio::any_io_executor backgroundExecutor() {
  static auto* executor = new boost::asio::any_io_executor(
      g_by_hand ? MainQueue::executor() : (new boost::asio::thread_pool(2))->get_executor());
  return *executor;
}

struct AdmissionGate::State : std::enable_shared_from_this<State> {
  std::mutex mutex;
  const std::size_t limit;
  std::size_t out = 0;
  std::deque<std::function<void(Ticket)>> waiting;

  explicit State(std::size_t n) : limit(n) {}

  // Hands a ticket to `start` on the main queue; the ticket's last owner lets the next one in.
  void admit(std::function<void(Ticket)> start) {
    Ticket ticket(static_cast<void*>(nullptr), [self = shared_from_this()](void*) { self->leave(); });
    MainQueue::async(
        [start = std::move(start), ticket = std::move(ticket)]() mutable { start(std::move(ticket)); });
  }

  void leave() {
    std::function<void(Ticket)> next;
    {
      std::lock_guard lock(mutex);
      if (waiting.empty()) {
        --out;
        return;
      }
      next = std::move(waiting.front());
      waiting.pop_front();
    }
    admit(std::move(next));
  }
};

AdmissionGate::AdmissionGate(std::size_t limit) : state_(std::make_shared<State>(limit)) {}

void AdmissionGate::enter(std::function<void(Ticket)> start) {
  {
    std::lock_guard lock(state_->mutex);
    if (state_->out == state_->limit) {
      state_->waiting.push_back(std::move(start));
      return;
    }
    ++state_->out;
  }
  state_->admit(std::move(start));
}

std::shared_ptr<SerialQueue> SerialQueue::create(std::string label) {
  return std::shared_ptr<SerialQueue>(new SerialQueue(std::move(label)));
}

void SerialQueue::async(std::function<void()> task) {
  asyncWaiting([task = std::move(task)](std::function<void()> done) {
    task();
    done();
  });
}

void SerialQueue::asyncWaiting(WaitingTask task) {
  std::lock_guard lock(mutex_);
  tasks_.push_back(std::move(task));
  if (!running_) {
    running_ = true;
    schedule();
  }
}

void SerialQueue::sync(const std::function<void()>& task) {
  // Shared with the queued task, so that a task dropped unrun (cancelPending) breaks the promise and
  // the wait ends instead of lasting for ever.
  auto done = std::make_shared<std::promise<void>>();
  auto outcome = done->get_future();
  async([&task, done] { settle(task, *done); });
  outcome.get();
}

void SerialQueue::cancelPending() {
  std::lock_guard lock(mutex_);
  tasks_.clear();
}

bool SerialQueue::isCurrent() const { return t_current_queue == this; }

void SerialQueue::schedule() {
  boost::asio::post(backgroundExecutor(), [self = shared_from_this()] { self->runNext(); });
}

void SerialQueue::runNext() {
  WaitingTask task;
  {
    std::lock_guard lock(mutex_);
    if (tasks_.empty()) {
      running_ = false;
      return;
    }
    task = std::move(tasks_.front());
    tasks_.pop_front();
  }
  auto finished = std::make_shared<std::once_flag>();
  auto done = [self = shared_from_this(), finished] {
    std::call_once(*finished, [&] { self->schedule(); });
  };
  t_current_queue = this;
  try {
    task(done);
  } catch (...) {
    done();
  }
  t_current_queue = nullptr;
}

}  // namespace qnbrl
