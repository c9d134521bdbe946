// qnbrl: the command-line client of the signalling service, over the SDK's public API. Interactive on
// a terminal, scripted from a file or standard input; `--dev` brings its own local service.
#include "loops.hpp"
#include "output.hpp"
#include "session.hpp"

#include "devserver/dev_server.hpp"

#include <CLI/CLI.hpp>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

namespace {

// Any token is accepted by the dev server; the real service needs the application's.
constexpr const char* kDevToken = "dev-token";

std::string devServerDirectory(const std::string& option) {
  if (!option.empty()) return option;
  if (const char* env = std::getenv("QNBRL_DEVSERVER"); env && *env) return env;
  return QNBRL_CLI_DEVSERVER_DIR;
}

}  // namespace

int main(int argc, char** argv) {
  std::setlocale(LC_CTYPE, "");  // the line editor reads UTF-8 by the locale

  CLI::App app{
      "qnbrl: command-line client of the signalling service.\n"
      "Interactive on a terminal (type help); otherwise commands come one a line from SCRIPT or\n"
      "standard input, each waited for, and the first failure ends the run with status 1.",
      "qnbrl"};
  bool dev = false, jsonOutput = false;
  std::string devDir, api, log, appId = "qnbrl-cli", user, token, script;
  int timeout = 20;
  app.add_flag("--dev", dev, "start the embedded dev server (the service emulator) and use it");
  app.add_option("--devserver", devDir,
                 "the dev server's directory (default: $QNBRL_DEVSERVER, else the source tree's)");
  auto* apiOption = app.add_option("--api", api, "API (server discovery) base URL, http(s)://host[:port]");
  app.add_option("--log", log, "telemetry collection base URL (default: the --api URL)");
  app.add_option("--app", appId, "app id")->capture_default_str();
  app.add_option("--user", user, "log this user in at start");
  app.add_option("--token", token, "the login's token (on --dev any token works)");
  app.add_flag("--json", jsonOutput,
               "one JSON object per event and per completion on stdout; other text on stderr");
  app.add_option("--timeout", timeout, "seconds a script waits for a completion")
      ->check(CLI::Range(1, 3600))
      ->capture_default_str();
  app.add_option("SCRIPT", script, "commands, one a line ('-': standard input)");
  app.set_version_flag("--version", qnbrl::QNBRLKit::getSDKVersion());
  apiOption->excludes(app.get_option("--dev"));
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? 0 : 2;  // --help and --version end well; a usage error is status 2
  }

  qnbrl_cli::Console console(jsonOutput);
  if (jsonOutput) {
    // Stdout carries the records only: the lines the library itself prints there go to stderr.
    std::fflush(stdout);
    if (std::FILE* records = ::fdopen(::dup(STDOUT_FILENO), "w")) {
      ::dup2(STDERR_FILENO, STDOUT_FILENO);
      console.setStreams(records, stderr);
    }
  }
  qnbrl_cli::Settings settings;
  settings.appId = appId;
  settings.token = token;
  settings.limit = std::chrono::seconds(timeout);

  std::unique_ptr<devserver::DevServer> server;
  if (dev) {
    const std::string directory = devServerDirectory(devDir);
    std::error_code missing;
    if (!std::filesystem::exists(directory + "/src/main.js", missing)) {
      console.error("--dev is unavailable: no dev server in '" + directory +
                    "' (this qnbrl was installed without the sources: give their devserver/ folder with "
                    "--devserver DIR or QNBRL_DEVSERVER, or use --api)");
      return 2;
    }
    devserver::DevServerOptions options;
    options.tavern = 1;
    options.tavernTls = 0;
    options.session = true;
    options.directory = directory;
    std::string failure;
    options.onError = [&failure](const std::string& reason) { failure = reason; };
    server = std::make_unique<devserver::DevServer>(options);
    if (!server->ready()) {
      console.error("--dev: the dev server did not start: " + failure);
      return 1;
    }
    api = server->httpUrl();
    if (settings.token.empty()) settings.token = kDevToken;
    console.text("dev server at " + api);
  }
  if (!api.empty()) settings.options.envConfig.apiServer = api;
  if (!log.empty() || !api.empty()) settings.options.envConfig.logServer = log.empty() ? api : log;

  auto inbox = std::make_shared<qnbrl_cli::Inbox>();
  qnbrl_cli::Session session(settings, inbox, console);
  if (!session.ready()) {
    console.error("the client refused the server URLs: --api and --log take http(s)://host[:port]");
    return 2;
  }

  int fd = STDIN_FILENO;
  if (!script.empty() && script != "-") {
    fd = ::open(script.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
      console.error("cannot read '" + script + "': " + std::strerror(errno));
      return 2;
    }
  }
  const bool interactive = script.empty() && ::isatty(STDIN_FILENO);

  // The login of --user is the run's first command, printed and waited for like any other.
  const std::string login = user.empty() ? "" : "login '" + user + "'\n";
  if (interactive) {
    if (!login.empty()) session.run(login);
    const char* home = std::getenv("HOME");
    return qnbrl_cli::runInteractive(session, *inbox, console,
                                     home && *home ? std::string(home) + "/.qnbrl_history" : std::string());
  }
  return qnbrl_cli::runScript(session, *inbox, console, fd, login);
}
