#pragma once
// The console sink of the telemetry pieces: one line to standard error per call.
#include <string_view>

namespace qnbrl {

void consoleEcho(std::string_view line);

}  // namespace qnbrl
