#pragma once
// The small HTTP client of the SDK: one process-wide session that carries server discovery (GET) and
// telemetry uploads (POST of a file). Every exchange is bounded by a time-out on the clock seam, so a
// server that never answers costs one time-out and nothing more.
#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace qnbrl {

struct HttpRequest {
  std::string method = "GET";
  std::string url;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
  // Bounds the whole exchange (connect, TLS, request and answer); the session's resource time-out
  // caps it.
  std::chrono::steady_clock::duration timeout = std::chrono::seconds(6);
};

struct HttpResponse {
  int status = 0;  // 0 when no answer arrived
  std::string body;
  std::error_code error;  // set on transport failure, time-out or an unusable URL
};

class HttpSession {
 public:
  using Completion = std::function<void(HttpResponse)>;

  static constexpr std::chrono::seconds requestTimeout{6};
  static constexpr std::chrono::seconds resourceTimeout{36};

  // Starts one exchange; `completion` runs exactly once, on a background executor.
  void send(HttpRequest request, Completion completion);
};

class QNHttpRequest {
 public:
  using Completion = std::function<void(std::optional<std::string> data, std::error_code error)>;

  // GET with the session's request time-out and "Content-Type: application/json". Without a
  // transport error the completion gets the body (whatever the status code), otherwise the error.
  static void getRequest(const std::string& url, Completion completion);
  // Never sends anything and never calls its completion: uploads build their own requests.
  static void postRequest(const std::string& body, const std::string& url, const Completion& completion);
  // Created on first use and kept for the life of the process.
  static HttpSession& sharedSession();
};

}  // namespace qnbrl
