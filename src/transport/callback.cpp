#include "transport/callback.hpp"

#include "diagnostics/log.hpp"

namespace qnbrl {

void noteThrowingCallback() {
  QNLog::shared().error("an application callback threw; ignored");
}

void ApplicationCalls::handOver(std::function<void()> task) const {
  try {
    executor_(std::move(task));
  } catch (...) {
    QNLog::shared().error("the application's executor threw; a callback was dropped");
  }
}

}  // namespace qnbrl
