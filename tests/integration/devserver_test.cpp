// The test servers themselves: distinct listeners, refusals that reach the test with their reason, and
// nothing left running after the fixture is gone. What the servers serve, and a tavern server stopped
// and restarted on its port, are exercised by the client tests that use them.
#include "support/socketio_fixture.hpp"

#include <gtest/gtest-spi.h>
#include <signal.h>

#include <cerrno>
#include <set>

namespace {

using namespace testing_support;

int portOf(const std::string& url) {
  return std::stoi(url.substr(url.rfind(':') + 1));
}

// A raw request hands a refusal back; a typed call, a server that has gone and one that never gets
// ready fail the running test with the reason.
TEST(DevServer, DescribesDistinctListenersAndReportsRefusals) {
  DevServer dev;
  ASSERT_TRUE(dev.ready());
  ASSERT_EQ(dev.tavernUrls().size(), 2u);
  ASSERT_EQ(dev.tavernTlsUrls().size(), 1u);
  std::set<int> ports;
  for (const auto& u : dev.tavernUrls()) ports.insert(portOf(u));
  for (const auto& u :
       {dev.tavernTlsUrls()[0], dev.silentUrl(), dev.httpUrl(), dev.httpsUrl(), dev.blackholeUrl()})
    ports.insert(portOf(u));
  EXPECT_EQ(ports.size(), 7u);

  auto reply = dev.request({{"cmd", "no such command"}});
  EXPECT_EQ(reply.at("ok"), false);
  EXPECT_EQ(devserver::errorOf(reply), "unknown cmd \"no such command\"");
  EXPECT_NONFATAL_FAILURE(dev.connections(99), "control request \"connections\" failed: no tavern server 99");
  EXPECT_TRUE(dev.connections(0).empty());  // still answering

  dev.stop();
  EXPECT_NONFATAL_FAILURE(dev.clear(), "failed: the server is not running");
  DevServerOptions impatient;
  impatient.startTimeout = std::chrono::milliseconds(1);
  EXPECT_NONFATAL_FAILURE(DevServer late(impatient), "main.js: no ready line within 1 ms");
}

TEST(DevServer, StoppingLeavesNoProcessOrListenerBehind) {
  pid_t devPid = 0, pyPid = 0;
  std::string tavern;
  {
    DevServer dev;
    PythonServer py;
    ASSERT_TRUE(dev.ready());
    ASSERT_TRUE(py.ready());
    devPid = dev.pid();
    pyPid = py.pid();
    tavern = dev.tavernUrls()[0];
  }
  for (pid_t pid : {devPid, pyPid}) {
    errno = 0;
    EXPECT_EQ(kill(pid, 0), -1);
    EXPECT_EQ(errno, ESRCH);  // exited and reaped: not even a zombie
  }
  Session s(tavern);
  ASSERT_TRUE(s.recorder().waitFor("disconnect"));
  EXPECT_NE(s.recorder().disconnects()[0].find("refused"), std::string::npos);
}

}  // namespace
