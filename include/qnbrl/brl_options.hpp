#pragma once
/// @file
/// Client configuration. Every field is optional; an absent server means the built-in default.
#include <functional>
#include <optional>
#include <string>

namespace qnbrl {

/// The service the client talks to.
struct QNBRLEnvConfig {
  /// Base URL of the API (server discovery) server, such as "https://api.example.com:8443".
  std::optional<std::string> apiServer;
  /// Base URL of the telemetry collection server.
  std::optional<std::string> logServer;
};

/// What QNBRLKit::create takes besides the app id and the delegate.
struct QNBRLOptions {
  QNBRLEnvConfig envConfig;  ///< The servers; the built-in defaults when absent.
  /// Where the client's completions and delegate callbacks run (the invitation kit's and the
  /// channels' too). Empty: on the library's main-queue thread. Set: every callback that would run
  /// there is handed to this function as a task instead, in the same order, and the library goes on
  /// without waiting for it; run the tasks in the order received, on a thread of the application's
  /// choosing (an application loop). A request refused locally still completes at once on the
  /// calling thread. The function is called from the library's threads and must not block. A
  /// delegate callback whose client was released before its task runs is dropped; a request's
  /// completion still runs, so keep what the function uses alive while requests are in flight.
  std::function<void(std::function<void()> task)> executor;
};

}  // namespace qnbrl
