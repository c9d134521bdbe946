#pragma once
// Server discovery: asks the API server which tavern (socket) servers serve an app id.
#include <functional>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

namespace qnbrl {

class QNApiHelper {
 public:
  using Completion = std::function<void(std::optional<std::vector<std::string>> tavernServers)>;

  // The completion runs once, on a background executor. Every failure (transport, time-out, bad
  // JSON, a "code" other than 200, a missing or malformed list) ends in none, without a reason.
  static void apiServer(const std::string& apiServer, const std::string& appId, Completion completion);
  // What apiServer makes of the HTTP answer (the body whatever the status, or the transport error).
  static std::optional<std::vector<std::string>> tavernServersOf(const std::optional<std::string>& body,
                                                                 std::error_code error);
};

}  // namespace qnbrl
