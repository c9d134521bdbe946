#pragma once
// The one way into application code: completions and delegate members. What the application throws
// is caught here and logged, so the library's own thread keeps running.
#include <functional>
#include <memory>
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

}  // namespace qnbrl
