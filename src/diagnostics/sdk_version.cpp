#include "diagnostics/sdk_version.hpp"

namespace qnbrl {

const std::string& sdkVersionText() {
  // The library has no bundle: its name, and the project version as both short version and build.
  static const auto* text = new std::string("sdkVersion/qnbrl-" QNBRL_VERSION "-" QNBRL_VERSION);
  return *text;
}

}  // namespace qnbrl
