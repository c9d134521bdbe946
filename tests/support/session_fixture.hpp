#pragma once
// Clients against the dev server's session side: three tavern servers that check the login query,
// answer "loginSuccess" or refuse, and kick a user who logs in twice. Time runs on a manual clock, so
// connect time-outs and reconnection pauses happen when a test advances it.
#include "qnbrl/qnbrl.hpp"
#include "socketio/clock.hpp"
#include "support/devserver.hpp"
#include "support/socketio_fixture.hpp"
#include "support/wait.hpp"

#include <gtest/gtest.h>
#include <boost/json/parse.hpp>

#include <algorithm>
#include <mutex>
#include <utility>
#include <vector>

namespace testing_support {

using Change = std::pair<int, int>;  // (state, reason) as integers

// The application's delegate, recording what it hears. Its callbacks share the recorded state, so a
// callback still running when the test drops its client writes into live memory.
class Listener {
 public:
  Listener() : delegate(std::make_shared<qnbrl::QNBRLDelegate>()) {
    delegate->connectionStateChanged = [state = state_](qnbrl::QNBRLKit&, qnbrl::QNBRLConnectionState s,
                                                        qnbrl::QNBRLConnectionChangeReason reason) {
      std::lock_guard lock(state->mutex);
      state->changes.emplace_back(static_cast<int>(s), static_cast<int>(reason));
    };
    delegate->tokenDidExpire = [state = state_](qnbrl::QNBRLKit&) {
      std::lock_guard lock(state->mutex);
      ++state->expired;
    };
  }
  std::vector<Change> changes() const {
    std::lock_guard lock(state_->mutex);
    return state_->changes;
  }
  int expired() const {
    std::lock_guard lock(state_->mutex);
    return state_->expired;
  }
  bool waitFor(Change change, std::size_t count = 1) const {
    return waitUntil([&] {
      auto all = changes();
      return static_cast<std::size_t>(std::count(all.begin(), all.end(), change)) >= count;
    });
  }

 private:
  struct State {
    std::mutex mutex;
    std::vector<Change> changes;
    int expired = 0;
  };
  std::shared_ptr<State> state_ = std::make_shared<State>();

 public:
  std::shared_ptr<qnbrl::QNBRLDelegate> delegate;
};

// Completion codes, in arrival order. A completion that comes after the test has given up on it
// writes into state that it shares, never into a dead object.
class Codes {
 public:
  qnbrl::QNBRLKit::Completion completion() {
    return [state = state_](int code) {
      std::lock_guard lock(state->mutex);
      state->codes.push_back(code);
    };
  }
  std::vector<int> all() const {
    std::lock_guard lock(state_->mutex);
    return state_->codes;
  }
  // The n-th code (from 1), waiting for it; -1 when it never came.
  int await(std::size_t n = 1) const {
    if (!waitUntil([&] { return all().size() >= n; })) return -1;
    return all()[n - 1];
  }

 private:
  struct State {
    std::mutex mutex;
    std::vector<int> codes;
  };
  std::shared_ptr<State> state_ = std::make_shared<State>();
};

// A login script that refuses with `text`, on one server or on all.
inline LoginScript refusal(std::string text, std::optional<int> server = std::nullopt) {
  LoginScript script;
  script.server = server;
  script.fail = std::move(text);
  return script;
}

// Three ws tavern servers with the session side on.
struct SessionDevServer3 {
  static DevServerOptions options() {
    DevServerOptions options;
    options.tavern = 3;
    options.tavernTls = 0;
    options.session = true;
    return options;
  }
};

class SessionTest : public DevServerSuiteOf<SessionDevServer3> {
 protected:
  static constexpr int A = 0, B = 1, C = 2;

  void SetUp() override {
    DevServerSuiteOf::SetUp();
    server_->logins(true);
  }

  // A client of the dev server's discovery and collection endpoints.
  static std::shared_ptr<qnbrl::QNBRLKit> makeKit(std::weak_ptr<qnbrl::QNBRLDelegate> delegate,
                                                  const std::string& appId = "app-1") {
    qnbrl::QNBRLOptions options;
    options.envConfig.apiServer = server_->httpUrl();
    options.envConfig.logServer = server_->httpUrl();
    return qnbrl::QNBRLKit::create(appId, std::move(delegate), options);
  }
  static std::shared_ptr<qnbrl::QNBRLKit> makeKit(const Listener& listener,
                                                  const std::string& appId = "app-1") {
    return makeKit(listener.delegate, appId);
  }

  // Logs in and waits for the outcome.
  static int login(qnbrl::QNBRLKit& kit, const std::string& userId, const std::string& token = "token-1") {
    Codes codes;
    kit.loginByToken(token, 1700000000000, userId, codes.completion());
    return codes.await();
  }

  // Waits until the earliest armed timer is `pause` away, i.e. a reconnection pause has started.
  bool awaitPause(std::chrono::milliseconds pause) {
    return waitUntil([&] { return time_.clock().next_deadline() - time_.clock().now() == pause; });
  }

  // Waits until the client's socket is the one for `url` (its connect time-out then runs from now).
  static bool awaitSocketOn(const qnbrl::QNBRLKit& kit, const std::string& url) {
    return waitUntil([&] {
      auto info = boost::json::parse(kit.getDebugInfo());
      auto* server = info.at("tavernSocket").as_object().if_contains("tavernServer");
      return server && *server == url.c_str();
    });
  }

  // Live connections of a tavern server.
  static std::size_t live(int server) { return server_->connections(server, true).size(); }

  ManualTime time_;
};

}  // namespace testing_support
