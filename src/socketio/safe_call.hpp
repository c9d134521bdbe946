#pragma once
#include <utility>

namespace sio::detail {

// Application code runs through here: a handler that throws must not take the event loop down.
template <class F, class... Args>
void safeCall(F& f, Args&&... args) {
  if (!f) return;
  try {
    f(std::forward<Args>(args)...);
  } catch (...) {
  }
}

}  // namespace sio::detail
