#pragma once
// Client configuration. Every field is optional; an absent server means the built-in default.
#include <optional>
#include <string>

namespace qnbrl {

struct QNBRLEnvConfig {
  // Base URL of the API (server discovery) server, such as "https://api.example.com:8443".
  std::optional<std::string> apiServer;
  // Base URL of the telemetry collection server.
  std::optional<std::string> logServer;
};

struct QNBRLOptions {
  QNBRLEnvConfig envConfig;
};

}  // namespace qnbrl
