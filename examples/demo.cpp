// A tour of the client against the local dev server: two users log in, the tavern server of the first
// one goes away and the client moves to the next one by itself, then both log out.
//
// The dev server (devserver/) stands in for the service: it answers server discovery with its tavern
// servers and checks every login the way the service does. The demo starts and drives it through the
// dev server's own library (devserver/cpp), as the tests and benchmarks do.
//
// Each step prints what happens; every wait is bounded, and the first step that fails ends the run with
// exit status 1.
#include "devserver/dev_server.hpp"
#include "qnbrl/qnbrl.hpp"

#include <boost/json.hpp>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace std::chrono_literals;
using qnbrl::QNBRLConnectionChangeReason;
using qnbrl::QNBRLConnectionState;
using qnbrl::QNBRLKit;

// The longest any one wait may take.
constexpr auto kWaitLimit = 10s;

// One line on standard output. The client's callbacks print from its own thread, so lines are written
// whole, one at a time.
void say(const std::string& line) {
  static std::mutex mutex;
  std::lock_guard lock(mutex);
  std::cout << line << std::endl;
}

bool fail(const std::string& why) {
  say("FAILED: " + why);
  return false;
}

// ---- What the client's numbers mean ----

std::string describe(QNBRLConnectionState state) {
  switch (state) {
    case QNBRLConnectionState::Disconnected:
      return "disconnected";
    case QNBRLConnectionState::Connecting:
      return "connecting";
    case QNBRLConnectionState::Connected:
      return "connected";
    case QNBRLConnectionState::Reconnecting:
      return "reconnecting";
  }
  return "state " + std::to_string(static_cast<int>(state));
}

std::string describe(QNBRLConnectionChangeReason reason) {
  switch (reason) {
    case QNBRLConnectionChangeReason::LoginStarted:
      return "login started";
    case QNBRLConnectionChangeReason::LoginSucceeded:
      return "login succeeded";
    case QNBRLConnectionChangeReason::LoginFailed:
      return "login failed: every tavern server refused";
    case QNBRLConnectionChangeReason::LoginTimedOut:
      return "login timed out: no tavern server answered";
    case QNBRLConnectionChangeReason::Interrupted:
      return "the connection was lost";
    case QNBRLConnectionChangeReason::LoggedOut:
      return "logged out";
    case QNBRLConnectionChangeReason::KickedOff:
      return "kicked off: the same user logged in elsewhere";
  }
  return "reason " + std::to_string(static_cast<int>(reason));
}

std::string describeLoginCode(int code) {
  switch (code) {
    case qnbrl::QNBRLLoginErrorOk:
      return "ok";
    case qnbrl::QNBRLLoginErrorUnknown:
      return "refused for an unlisted reason";
    case qnbrl::QNBRLLoginErrorAppForbidden:
      return "the app is forbidden";
    case qnbrl::QNBRLLoginErrorInvalidArgument:
      return "invalid argument";
    case qnbrl::QNBRLLoginErrorInvalidAppId:
      return "invalid app id";
    case qnbrl::QNBRLLoginErrorInvalidToken:
      return "invalid token";
    case qnbrl::QNBRLLoginErrorTokenExpired:
      return "the token expired";
    case qnbrl::QNBRLLoginErrorAuthFail:
      return "authentication failed";
    case qnbrl::QNBRLLoginErrorAlreadyLogin:
      return "already logged in or logging in";
    case qnbrl::QNBRLLoginErrorTimeout:
      return "timed out: no tavern server answered";
  }
  return "unknown code";
}

// The codes every request shares, logout among them.
std::string describeRequestCode(int code) {
  switch (code) {
    case qnbrl::QNBRLRequestOk:
      return "ok";
    case qnbrl::QNBRLRequestNotLoggedIn:
      return "not logged in";
  }
  return "unknown code";
}

// ---- One user of the app ----

// A completion code, waited for with a bound. Shared with the completion, so that a code arriving
// after the wait gave up still lands somewhere valid.
class Outcome {
 public:
  void set(int code) {
    std::lock_guard lock(mutex_);
    code_ = code;
    arrived_.notify_all();
  }
  std::optional<int> await() {
    std::unique_lock lock(mutex_);
    arrived_.wait_for(lock, kWaitLimit, [&] { return code_.has_value(); });
    return code_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::optional<int> code_;
};

// A person using the app: their client, and a delegate that prints every connection change and keeps
// it for the steps to wait on.
class User {
 public:
  using Change = std::pair<QNBRLConnectionState, QNBRLConnectionChangeReason>;
  static constexpr Change kLoggedIn{QNBRLConnectionState::Connected,
                                    QNBRLConnectionChangeReason::LoginSucceeded};
  static constexpr Change kLoggedOut{QNBRLConnectionState::Disconnected,
                                     QNBRLConnectionChangeReason::LoggedOut};

  explicit User(std::string name)
      : name_(std::move(name)), delegate_(std::make_shared<qnbrl::QNBRLDelegate>()) {
    delegate_->connectionStateChanged = [this](QNBRLKit&, QNBRLConnectionState state,
                                               QNBRLConnectionChangeReason reason) {
      say(tag() + "connection: " + describe(state) + " (" + describe(reason) + ")");
      std::lock_guard lock(mutex_);
      changes_.emplace_back(state, reason);
      changed_.notify_all();
    };
  }
  User(const User&) = delete;
  User& operator=(const User&) = delete;

  const std::string& name() const { return name_; }

  // The client talks to `serverUrl` for server discovery and for telemetry uploads.
  bool createClient(const std::string& serverUrl) {
    qnbrl::QNBRLOptions options;
    options.envConfig.apiServer = serverUrl;
    options.envConfig.logServer = serverUrl;
    kit_ = QNBRLKit::create("demo-app", delegate_, options);
    if (!kit_) return fail(name_ + "'s client was not created: the server URL was refused");
    say(tag() + "client created");
    return true;
  }

  // Logs in and waits for the login's completion and the connected state.
  bool logIn() {
    auto seen = count(kLoggedIn);
    auto outcome = std::make_shared<Outcome>();
    kit_->loginByToken("token-of-" + name_, nowMs(), name_, report("login", describeLoginCode, outcome));
    return succeeded("login", outcome->await()) && awaitChange(kLoggedIn, seen + 1);
  }

  // Logs out and waits for the logout's completion and the disconnected state.
  bool logOut() {
    auto seen = count(kLoggedOut);
    auto outcome = std::make_shared<Outcome>();
    kit_->logoutWithCompletion(report("logout", describeRequestCode, outcome));
    return succeeded("logout", outcome->await()) && awaitChange(kLoggedOut, seen + 1);
  }

  // How many times the delegate has heard `change` so far.
  std::size_t count(Change change) const {
    std::lock_guard lock(mutex_);
    return countLocked(change);
  }

  // Waits until the delegate has heard `change` `times` times in all.
  bool awaitChange(Change change, std::size_t times) {
    std::unique_lock lock(mutex_);
    if (changed_.wait_for(lock, kWaitLimit, [&] { return countLocked(change) >= times; })) return true;
    return fail(name_ + " did not become " + describe(change.first) + " (" + describe(change.second) +
                ") within " + std::to_string(kWaitLimit.count()) + " s");
  }

  // The tavern server the client is on, from its debug information.
  std::optional<std::string> tavernServer() const {
    boost::system::error_code error;
    auto info = boost::json::parse(kit_->getDebugInfo(), error);
    if (error || !info.is_object()) return std::nullopt;
    auto* socket = info.as_object().if_contains("tavernSocket");
    auto* server = socket && socket->is_object() ? socket->as_object().if_contains("tavernServer") : nullptr;
    if (!server || !server->is_string()) return std::nullopt;
    return std::string(server->as_string());
  }

  // Clients go before the dev server, so that none is left talking to a server that has gone.
  void dropClient() { kit_.reset(); }

 private:
  std::string tag() const { return "[" + name_ + "] "; }

  std::size_t countLocked(Change change) const {
    return static_cast<std::size_t>(std::count(changes_.begin(), changes_.end(), change));
  }

  // Every operation's code 0 means success (login and request codes alike); the completion has already
  // printed any other code.
  bool succeeded(const std::string& what, std::optional<int> code) const {
    if (!code)
      return fail(name_ + "'s " + what + " did not complete within " + std::to_string(kWaitLimit.count()) +
                  " s");
    if (*code != 0) return fail(name_ + "'s " + what + " failed");
    return true;
  }

  static std::int64_t nowMs() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
  }

  // A completion that prints its code with what it means, then hands it to `outcome`.
  QNBRLKit::Completion report(std::string what, std::string (*meaning)(int),
                              std::shared_ptr<Outcome> outcome) const {
    return [line = tag() + what + " completed: ", meaning, outcome](int code) {
      say(line + std::to_string(code) + " (" + meaning(code) + ")");
      outcome->set(code);
    };
  }

  std::string name_;
  std::shared_ptr<qnbrl::QNBRLDelegate> delegate_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Change> changes_;
  // Last: the client, and with it every callback into this object, goes first.
  std::shared_ptr<QNBRLKit> kit_;
};

// ---- The steps ----

class Demo {
 public:
  bool startServer() {
    devserver::DevServerOptions options;
    options.tavern = 3;  // three ws tavern servers, so that there is somewhere to fail over to
    options.tavernTls = 0;
    options.session = true;  // tavern servers check logins as the service does
    server_ = std::make_unique<devserver::DevServer>(options);
    if (!server_->ready())
      return fail("the dev server did not start (scripts/bootstrap.sh installs node and its modules)");
    say("dev server up; server discovery at " + server_->httpUrl() + " lists these tavern servers:");
    for (std::size_t i = 0; i < server_->tavernUrls().size(); ++i)
      say("  tavern server " + std::to_string(i) + ": " + server_->tavernUrls()[i]);
    return true;
  }

  bool createClients() {
    say("(the library's own lines below: in a fresh HOME the first client finds no device id stored and "
        "makes one; it also names its telemetry directory)");
    for (const char* name : {"alice", "bob"}) {
      users_.push_back(std::make_unique<User>(name));
      if (!users_.back()->createClient(server_->httpUrl())) return false;
    }
    say("SDK version: " + QNBRLKit::getSDKVersion());
    return true;
  }

  bool logIn() {
    for (auto& user : users_) {
      if (!user->logIn()) return false;
      say(user->name() + " is on " + where(*user));
    }
    return true;
  }

  // Stops the first user's tavern server: everyone on it loses the connection, and each client pauses
  // 1 s and logs in again on the next server of the list.
  bool failOver() {
    auto stopped = tavernIndex(*users_.front());
    if (!stopped) return fail(users_.front()->name() + " is on no tavern server the dev server knows");
    std::vector<std::pair<User*, std::size_t>> moving;  // each user on that server, with logins so far
    for (auto& user : users_) {
      if (tavernIndex(*user) == stopped) moving.emplace_back(user.get(), user->count(User::kLoggedIn));
    }
    say("stopping tavern server " + std::to_string(*stopped) + " (" + names(moving) +
        " on it); expect a 1 s pause, then a move to the next server (the library counts its attempts: "
        "\"connectIndex:1\")");
    auto start = std::chrono::steady_clock::now();
    if (!server_->stopTavern(*stopped))
      return fail("the dev server did not stop tavern server " + std::to_string(*stopped));

    for (auto& [user, seen] : moving) {
      if (!user->awaitChange(User::kLoggedIn, seen + 1)) return false;
      auto took = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      char seconds[32];
      std::snprintf(seconds, sizeof seconds, "%.1f", took);
      say(user->name() + " is back after " + seconds + " s, now on " + where(*user));
      if (tavernIndex(*user) == stopped) return fail(user->name() + " is still on the stopped server");
    }
    return true;
  }

  bool logOut() {
    for (auto& user : users_) {
      if (!user->logOut()) return false;
    }
    return true;
  }

  bool stopServer() {
    for (auto& user : users_) user->dropClient();
    server_->stop();
    say("dev server stopped");
    return true;
  }

 private:
  // The position of the user's tavern server in the discovery list.
  std::optional<int> tavernIndex(const User& user) const {
    auto url = user.tavernServer();
    const auto& urls = server_->tavernUrls();
    for (std::size_t i = 0; url && i < urls.size(); ++i) {
      if (urls[i] == *url) return static_cast<int>(i);
    }
    return std::nullopt;
  }

  std::string where(const User& user) const {
    auto index = tavernIndex(user);
    auto url = user.tavernServer();
    if (!index) return "an unknown tavern server (" + url.value_or("none") + ")";
    return "tavern server " + std::to_string(*index) + " (" + *url + ")";
  }

  static std::string names(const std::vector<std::pair<User*, std::size_t>>& users) {
    std::string text;
    for (std::size_t i = 0; i < users.size(); ++i) {
      text += (i == 0 ? "" : i + 1 == users.size() ? " and " : ", ") + users[i].first->name();
    }
    return text + (users.size() == 1 ? " is" : " are");
  }

  std::unique_ptr<devserver::DevServer> server_;
  std::vector<std::unique_ptr<User>> users_;  // after the server, so that they go first
};

}  // namespace

int main() {
  Demo demo;
  const std::pair<const char*, bool (Demo::*)()> steps[] = {
      {"Start the dev server", &Demo::startServer},
      {"Create a client for alice and one for bob", &Demo::createClients},
      {"Log both in", &Demo::logIn},
      {"Take alice's tavern server down: the client fails over and reconnects", &Demo::failOver},
      {"Log both out", &Demo::logOut},
      {"Stop the dev server", &Demo::stopServer},
  };
  int number = 0;
  for (const auto& [title, step] : steps) {
    say("\n" + std::to_string(++number) + ". " + title);
    if (!(demo.*step)()) {
      say("The demo stopped at step " + std::to_string(number) + ".");
      return 1;
    }
  }
  say("\nDone: every step worked.");
  return 0;
}
