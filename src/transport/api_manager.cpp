#include "transport/api_manager.hpp"

#include <re2/re2.h>

namespace qnbrl {
namespace {

// Anchors match at every line; RE2 runs in linear time whatever the input.
RE2* compileLines(const char* pattern) { return new RE2(std::string("(?im)") + pattern); }

}  // namespace

std::string QNApiManager::apiServer() { return QNBRL_DEFAULT_API_SERVER; }
std::string QNApiManager::logServer() { return QNBRL_DEFAULT_LOG_SERVER; }

bool isValidServerDomain(std::string_view url) {
  // Compiled once and never destroyed.
  static const RE2* re =
      compileLines(R"(^https?:\/\/(([a-z0-9]+|[a-z0-9]+[a-z0-9\-_]*[a-z0-9]+)\.)+([a-z]+)(:\d+)?$)");
  return RE2::PartialMatch(url, *re);
}

bool isValidServerIP(std::string_view url) {
  static const RE2* re =
      compileLines(R"(^https?:\/\/(\d{1,2}|1\d\d|2[0-4]\d|25[0-5])\.(\d{1,2}|1\d\d|2[0-4]\d|25[0-5])\.)"
                   R"((\d{1,2}|1\d\d|2[0-4]\d|25[0-5])\.(\d{1,2}|1\d\d|2[0-4]\d|25[0-5])(:\d+)?$)");
  return RE2::PartialMatch(url, *re);
}

bool isValidApiServer(std::string_view url) { return isValidServerDomain(url) || isValidServerIP(url); }

}  // namespace qnbrl
