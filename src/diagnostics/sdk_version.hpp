#pragma once
#include <string>

namespace qnbrl {

// "sdkVersion/<name>-<short version>-<build>", built once. The client's getSDKVersion and the
// telemetry's "sdkVer" are this text.
const std::string& sdkVersionText();

}  // namespace qnbrl
