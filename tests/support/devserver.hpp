#pragma once
// The dev server and the Python server for tests (devserver/cpp/devserver/dev_server.hpp has the whole
// API): a server that does not start, a refused or unanswered control request and a wait that runs out
// fail the running test with the server's reason, and the test goes on with an empty result.
#include "devserver/dev_server.hpp"

#include <gtest/gtest.h>
#include <boost/json.hpp>  // tests build and read control JSON with all of it

namespace testing_support {

using devserver::Bytes;
using devserver::bytesFrom;
using devserver::bytesValue;
using devserver::CollectionAnswer;
using devserver::CommandAnswer;
using devserver::CommandRecord;
using devserver::Connection;
using devserver::DevServerOptions;
using devserver::DiscoveryAnswer;
using devserver::Event;
using devserver::HttpRequestRecord;
using devserver::Login;
using devserver::LoginScript;
using devserver::PythonServerOptions;
using devserver::Silence;
using devserver::testCaFile;
using devserver::Upload;

// Hands the failures of a server to the running test, unless the options route them elsewhere.
template <class Options>
Options failingTheTest(Options options) {
  if (!options.onError) options.onError = [](const std::string& reason) { ADD_FAILURE() << reason; };
  return options;
}

class DevServer : public devserver::DevServer {
 public:
  explicit DevServer(DevServerOptions options = {})
      : devserver::DevServer(failingTheTest(std::move(options))) {}
};

class PythonServer : public devserver::PythonServer {
 public:
  explicit PythonServer(PythonServerOptions options = {})
      : devserver::PythonServer(failingTheTest(std::move(options))) {}
};

// A fixture whose suite shares one dev server, started with Config::options() and reset before each
// test. Each Config has a server of its own.
template <class Config>
class DevServerSuiteOf : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { server_ = new DevServer(Config::options()); }
  static void TearDownTestSuite() {
    delete server_;
    server_ = nullptr;
  }
  void SetUp() override {
    ASSERT_TRUE(server_->ready());
    ASSERT_TRUE(server_->reset());
  }
  static inline DevServer* server_ = nullptr;
};

struct DefaultDevServer {
  static DevServerOptions options() { return {}; }
};
using DevServerSuite = DevServerSuiteOf<DefaultDevServer>;

// The session side on: logins and the model of the service.
struct SessionDevServer {
  static DevServerOptions options() {
    DevServerOptions o;
    o.session = true;
    return o;
  }
};

}  // namespace testing_support
