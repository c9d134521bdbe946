#include "transport/callback.hpp"

#include "diagnostics/log.hpp"

namespace qnbrl {

void noteThrowingCallback() {
  QNLog::shared().error("an application callback threw; ignored");
}

}  // namespace qnbrl
