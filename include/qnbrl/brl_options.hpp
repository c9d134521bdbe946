#pragma once
/// @file
/// Client configuration. Every field is optional; an absent server means the built-in default.
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
};

}  // namespace qnbrl
