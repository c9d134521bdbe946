#pragma once
// The one way into application code: completions and delegate members. What the application throws
// is caught here and logged, so the library's own thread keeps running.
#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <type_traits>
#include <utility>

namespace qnbrl {

void noteThrowingCallback();

template <class F, class... Args>
void callApplication(const F& f, Args&&... args) {
  if (!f) return;
  try {
    f(std::forward<Args>(args)...);
  } catch (...) {
    noteThrowingCallback();
  }
}

// Calls the delegate's member when the delegate still exists and implements it; true when called.
template <class Delegate, class Member, class... Args>
bool tellDelegate(const std::weak_ptr<Delegate>& delegate, Member Delegate::*member, Args&&... args) {
  auto listener = delegate.lock();
  if (!listener || !((*listener).*member)) return false;
  callApplication((*listener).*member, std::forward<Args>(args)...);
  return true;
}

// Where one client's completions and delegate callbacks run. Without an application executor they
// run on the library's thread (a local refusal on the caller's). With one, each is handed to it as a
// task holding copies of its arguments, in the order the library produced them; the library never
// waits for the task to run.
class ApplicationCalls : public std::enable_shared_from_this<ApplicationCalls> {
 public:
  using Executor = std::function<void(std::function<void()> task)>;

  static std::shared_ptr<ApplicationCalls> create(Executor executor = {}) {
    return std::shared_ptr<ApplicationCalls>(new ApplicationCalls(std::move(executor)));
  }

  // The application released the client: delegate callbacks not begun yet are dropped. Completions
  // still run, exactly once.
  void release() { released_.store(true); }
  bool released() const { return released_.load(); }

  // Request completions run even after the release; login and logout completions, like delegate
  // callbacks, do not begin after it.
  enum class Delivery { always, whileHeld };

  // The application's completion as the library calls it: called on the thread that made the request
  // (a local refusal) it runs there at once; called anywhere else it goes to the executor.
  template <class... A>
  std::function<void(A...)> completion(std::function<void(A...)> f, Delivery delivery = Delivery::always) const {
    if (!executor_ || !f) return f;
    return [self = shared_from_this(), caller = std::this_thread::get_id(), delivery, f = std::move(f)](A... args) {
      if (std::this_thread::get_id() == caller) return callApplication(f, std::forward<A>(args)...);
      self->handOver([self, delivery, f, ... a = std::decay_t<A>(std::forward<A>(args))] {
        if (delivery == Delivery::always || !self->released()) callApplication(f, a...);
      });
    };
  }

  // Calls the delegate's member with the sender first, when the client is not released and the
  // delegate exists and implements the member; true when it does (some telemetry depends on it).
  // Handed to the executor, the call is checked again when it runs.
  template <class Delegate, class Member, class Sender, class... Args>
  bool tell(const std::weak_ptr<Delegate>& delegate, Member Delegate::*member, const std::shared_ptr<Sender>& sender,
            Args&&... args) const {
    if (released()) return false;
    if (!executor_) return tellDelegate(delegate, member, *sender, std::forward<Args>(args)...);
    auto listener = delegate.lock();
    if (!listener || !((*listener).*member)) return false;
    handOver([self = shared_from_this(), delegate, member, weakSender = std::weak_ptr<Sender>(sender),
              ... a = std::decay_t<Args>(std::forward<Args>(args))] {
      auto from = weakSender.lock();
      if (from && !self->released()) tellDelegate(delegate, member, *from, a...);
    });
    return true;
  }

 private:
  explicit ApplicationCalls(Executor executor) : executor_(std::move(executor)) {}
  void handOver(std::function<void()> task) const;

  const Executor executor_;
  std::atomic<bool> released_{false};
};

}  // namespace qnbrl
