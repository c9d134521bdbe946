// Server discovery and the HTTP client against the dev server: the good list, every failure ending in
// none, time-outs on the clock seam, and TLS verification against the test CA.
#include "support/http_request.hpp"
#include "support/socketio_fixture.hpp"
#include "transport/api_helper.hpp"

#include <gtest/gtest.h>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/streambuf.hpp>
#include <boost/asio/write.hpp>

#include <future>
#include <thread>

using namespace qnbrl;
using namespace testing_support;
using namespace std::chrono_literals;

namespace {

using ServerList = std::optional<std::vector<std::string>>;

std::future<ServerList> startDiscovery(const std::string& apiServer, const std::string& appId) {
  auto answer = std::make_shared<std::promise<ServerList>>();
  QNApiHelper::apiServer(apiServer, appId, [answer](ServerList list) { answer->set_value(std::move(list)); });
  return answer->get_future();
}

// Runs discovery and waits (bounded) for its single answer.
ServerList discover(const std::string& apiServer, const std::string& appId) {
  auto future = startDiscovery(apiServer, appId);
  if (future.wait_for(20s) == std::future_status::ready) return future.get();
  ADD_FAILURE() << "discovery never answered";
  return std::nullopt;
}

class DiscoveryTest : public DevServerSuite {};

}  // namespace

TEST_F(DiscoveryTest, GoodListInTheServersOrder) {
  server_->scriptDiscovery(
      DiscoveryAnswer().servers({"http://b.example.com", "http://a.example.com"}).times(1));
  EXPECT_EQ(discover(server_->httpUrl(), "app-1"),
            (std::vector<std::string>{"http://b.example.com", "http://a.example.com"}));
  auto requests = server_->discoveryRequests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].method, "GET");
  EXPECT_EQ(requests[0].rawQuery, "appId=app-1");
  EXPECT_EQ(requests[0].headers.at("content-type"), "application/json");
}

TEST_F(DiscoveryTest, EveryFailureEndsInNone) {
  struct Case {
    const char* what;
    DiscoveryAnswer answer;
  };
  std::vector<Case> cases = {
      {"code other than 200", DiscoveryAnswer().code(500)},
      // Far past any integer type: must saturate, not convert out of range.
      {"code out of range", DiscoveryAnswer().body(R"({"code":1e300,"data":{"tavernServers":["ws://x"]}})")},
      {"bad JSON", DiscoveryAnswer().body("{\"code\":200,")},
      {"a JSON fragment", DiscoveryAnswer().body("200")},
      {"empty data", DiscoveryAnswer().data(boost::json::object{})},
      {"list that is no list", DiscoveryAnswer().data(boost::json::object{{"tavernServers", "ws://x"}})},
      {"connection closed", DiscoveryAnswer().refuse()},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    server_->scriptDiscovery(c.answer);
    EXPECT_EQ(discover(server_->httpUrl(), "app"), std::nullopt);
  }
  EXPECT_EQ(discover("http://127.0.0.1:1", "app"), std::nullopt);  // nothing listens there
  EXPECT_EQ(discover("not a url", "app"), std::nullopt);
  // The app id is joined unescaped; one that breaks the URL fails like any other error.
  EXPECT_EQ(discover(server_->httpUrl(), "an app"), std::nullopt);
}

TEST_F(DiscoveryTest, SilentServerTimesOutAfterSixSeconds) {
  ManualTime time;
  server_->scriptDiscovery(DiscoveryAnswer().after(60s));
  auto future = startDiscovery(server_->httpUrl(), "app");
  ASSERT_TRUE(waitUntil([&] { return server_->discoveryRequests().size() == 1; }));
  time.advance(5999ms);
  EXPECT_EQ(future.wait_for(0s), std::future_status::timeout);
  time.advance(1ms);
  ASSERT_EQ(future.wait_for(10s), std::future_status::ready);
  EXPECT_EQ(future.get(), std::nullopt);
}

TEST_F(DiscoveryTest, HttpsIsVerifiedAgainstTheTrustedCa) {
  // The default answer lists the dev server's own tavern servers; the HTTP status is not looked at.
  server_->scriptDiscovery(DiscoveryAnswer().status(500));
  EXPECT_EQ(discover(server_->httpsUrl(), "app"), server_->tavernUrls());
  auto requests = server_->discoveryRequests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_TRUE(requests[0].tls);

  DevServerOptions untrusted;
  untrusted.untrustedCert = true;
  untrusted.tavern = 0;
  untrusted.tavernTls = 0;
  DevServer other(untrusted);
  ASSERT_TRUE(other.ready());
  EXPECT_EQ(discover(other.httpsUrl(), "app"), std::nullopt);
  EXPECT_TRUE(other.discoveryRequests().empty());
}

TEST(HttpRequest, GarbageAnswerIsAnError) {
  // A one-shot loopback server that answers anything with bytes that are not HTTP.
  boost::asio::io_context ioc;
  boost::asio::ip::tcp::acceptor acceptor(ioc, {boost::asio::ip::make_address("127.0.0.1"), 0});
  auto port = acceptor.local_endpoint().port();
  std::thread peer([&] {
    boost::system::error_code ec;
    auto socket = acceptor.accept(ec);
    if (ec) return;
    boost::asio::streambuf request;
    boost::asio::read_until(socket, request, "\r\n\r\n", ec);
    boost::asio::write(socket, boost::asio::buffer(std::string("\x01\x02 no http here\r\n\r\n")), ec);
  });
  auto got = std::make_shared<std::promise<std::pair<std::optional<std::string>, std::error_code>>>();
  QNHttpRequest::getRequest("http://127.0.0.1:" + std::to_string(port) + "/",
                            [got](std::optional<std::string> data, std::error_code ec) {
                              got->set_value({std::move(data), ec});
                            });
  auto future = got->get_future();
  ASSERT_EQ(future.wait_for(10s), std::future_status::ready);
  auto [data, error] = future.get();
  EXPECT_TRUE(error);
  EXPECT_EQ(data, std::nullopt);
  peer.join();
}
