#include "transport/api_manager.hpp"

#include "support/text.hpp"

namespace qnbrl {
namespace {

// Letter case ignored; `^` and `$` match at every line, so one valid line is enough.
constexpr SearchOptions kLines{.caseInsensitive = true, .multiline = true};

}  // namespace

std::string QNApiManager::apiServer() {
  return QNBRL_DEFAULT_API_SERVER;
}
std::string QNApiManager::logServer() {
  return QNBRL_DEFAULT_LOG_SERVER;
}

bool isValidServerDomain(std::string_view url) {
  return search(url, R"(^https?:\/\/(([a-z0-9]+|[a-z0-9]+[a-z0-9\-_]*[a-z0-9]+)\.)+([a-z]+)(:\d+)?$)",
                kLines);
}

bool isValidServerIP(std::string_view url) {
  return search(url,
                R"(^https?:\/\/(\d{1,2}|1\d\d|2[0-4]\d|25[0-5])\.(\d{1,2}|1\d\d|2[0-4]\d|25[0-5])\.)"
                R"((\d{1,2}|1\d\d|2[0-4]\d|25[0-5])\.(\d{1,2}|1\d\d|2[0-4]\d|25[0-5])(:\d+)?$)",
                kLines);
}

bool isValidApiServer(std::string_view url) {
  return isValidServerDomain(url) || isValidServerIP(url);
}

}  // namespace qnbrl
