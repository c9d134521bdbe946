#pragma once
// Default server addresses and the check that every configured server URL must pass: an http or
// https URL of a host name or a dotted IPv4 address, with an optional port and nothing after it.
#include <string>
#include <string_view>

namespace qnbrl {

class QNApiManager {
 public:
  // Base URLs without a trailing slash; deployment settings chosen at build time.
  static std::string apiServer();
  static std::string logServer();
};

// Each test looks for a match on any line of the text, letter case ignored.
bool isValidServerDomain(std::string_view url);
bool isValidServerIP(std::string_view url);
bool isValidApiServer(std::string_view url);

}  // namespace qnbrl
