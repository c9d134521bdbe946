// Smoke test of the test servers and their fixture: start-up, the control channel, discovery over HTTP
// and HTTPS with the test certificates, a raw Socket.IO session on each server, and a clean stop.
#include "support/devserver.hpp"
#include "socketio/tls.hpp"

#include <gtest/gtest.h>
#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>

#include <signal.h>

#include <cerrno>
#include <optional>
#include <set>

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace json = boost::json;
namespace websocket = beast::websocket;
using namespace std::chrono_literals;
using boost::system::error_code;
using namespace testing_support;

int portOf(const std::string& url) {
  return std::stoi(url.substr(url.rfind(':') + 1));
}

asio::ip::tcp::endpoint endpointOf(const std::string& url) {
  return {asio::ip::make_address("127.0.0.1"), static_cast<unsigned short>(portOf(url))};
}

// Runs one asynchronous operation to completion, for at most five seconds.
template <class Start>
error_code runBounded(asio::io_context& ioc, Start start) {
  std::optional<error_code> result;
  start([&](error_code ec, auto&&...) { result = ec; });
  ioc.restart();
  ioc.run_for(5s);
  return result.value_or(asio::error::timed_out);
}

struct HttpReply {
  error_code ec;
  unsigned status = 0;
  std::string body;
};

HttpReply failed(error_code ec) {
  HttpReply r;
  r.ec = ec;
  return r;
}

// One request and its response on a connected stream.
template <class Stream, class Request>
HttpReply exchange(asio::io_context& ioc, Stream& stream, Request& req) {
  req.set(http::field::host, "127.0.0.1");
  req.prepare_payload();
  HttpReply out;
  if ((out.ec = runBounded(ioc, [&](auto h) { http::async_write(stream, req, h); }))) return out;
  beast::flat_buffer buf;
  http::response<http::string_body> res;
  out.ec = runBounded(ioc, [&](auto h) { http::async_read(stream, buf, res, h); });
  out.status = res.result_int();
  out.body = res.body();
  return out;
}

http::request<http::empty_body> getRequest(const std::string& target) {
  http::request<http::empty_body> req{http::verb::get, target, 11};
  req.set(http::field::content_type, "application/json");
  return req;
}

template <class Request>
HttpReply plain(const std::string& base, Request req) {
  asio::io_context ioc;
  asio::ip::tcp::socket socket(ioc);
  if (error_code ec = runBounded(ioc, [&](auto h) { socket.async_connect(endpointOf(base), h); })) {
    return failed(ec);
  }
  return exchange(ioc, socket, req);
}

HttpReply getPlain(const std::string& base, const std::string& target) {
  return plain(base, getRequest(target));
}

HttpReply post(const std::string& base, const std::string& target, const Bytes& body) {
  http::request<http::vector_body<std::uint8_t>> req{http::verb::post, target, 11, body};
  req.set(http::field::content_type, "application/octet-stream");
  return plain(base, std::move(req));
}

// Over TLS with the project's client setup, trusting only `caFile`.
HttpReply getTls(const std::string& base, const std::string& target, const std::string& caFile) {
  asio::io_context ioc;
  asio::ssl::context ctx(asio::ssl::context::tls_client);
  ctx.load_verify_file(caFile);
  asio::ssl::stream<asio::ip::tcp::socket> stream(ioc, ctx);
  if (error_code ec = sio::tls::prepare(stream, "127.0.0.1", true)) return failed(ec);
  if (error_code ec =
          runBounded(ioc, [&](auto h) { stream.next_layer().async_connect(endpointOf(base), h); })) {
    return failed(ec);
  }
  if (error_code ec =
          runBounded(ioc, [&](auto h) { stream.async_handshake(asio::ssl::stream_base::client, h); })) {
    return failed(ec);
  }
  auto req = getRequest(target);
  return exchange(ioc, stream, req);
}

// A bare Engine.IO/Socket.IO session over a WebSocket, enough to see the servers answer on the wire.
class RawSession {
 public:
  RawSession(const std::string& url, const std::string& query) {
    ec_ = runBounded(ioc_, [&](auto h) { ws_.next_layer().async_connect(endpointOf(url), h); });
    if (!ec_) {
      ec_ = runBounded(ioc_, [&](auto h) {
        ws_.async_handshake("127.0.0.1", "/socket.io/?" + query + "EIO=4&transport=websocket", h);
      });
    }
  }
  error_code error() const { return ec_; }

  // The next frame, as text (binary frames too); "" on time-out or error.
  std::string read() {
    beast::flat_buffer buf;
    if (runBounded(ioc_, [&](auto h) { ws_.async_read(buf, h); })) return {};
    return beast::buffers_to_string(buf.data());
  }
  bool send(const std::string& text) {
    ws_.text(true);
    return !runBounded(ioc_, [&](auto h) { ws_.async_write(asio::buffer(text), h); });
  }
  // Open packet, "40", and the connect reply's socket id.
  std::string connect() {
    if (read().rfind("0{", 0) != 0 || !send("40")) return {};
    const std::string reply = read();
    if (reply.rfind("40{", 0) != 0) return {};
    return std::string(json::parse(reply.substr(2)).at("sid").as_string());
  }

 private:
  asio::io_context ioc_;
  websocket::stream<asio::ip::tcp::socket> ws_{ioc_};
  error_code ec_;
};

TEST(DevServer, DescribesDistinctListenersAndAnswersControlRequests) {
  DevServer dev;
  ASSERT_TRUE(dev.ready());
  ASSERT_EQ(dev.tavernUrls().size(), 2u);
  ASSERT_EQ(dev.tavernTlsUrls().size(), 1u);
  EXPECT_EQ(dev.silentId(), 3);
  std::set<int> ports;
  for (const auto& u : dev.tavernUrls()) ports.insert(portOf(u));
  ports.insert(portOf(dev.tavernTlsUrls()[0]));
  for (const auto* u : {&dev.silentUrl(), &dev.httpUrl(), &dev.httpsUrl(), &dev.blackholeUrl()}) {
    ports.insert(portOf(*u));
  }
  EXPECT_EQ(ports.size(), 7u);
  EXPECT_EQ(dev.tavernTlsUrls()[0].rfind("https://127.0.0.1:", 0), 0u);

  auto reply = dev.request({{"cmd", "no such command"}});
  EXPECT_EQ(reply.at("ok"), false);
  EXPECT_TRUE(reply.at("error").is_string());
  reply = dev.request({{"cmd", "connections"}, {"server", 99}});
  EXPECT_EQ(reply.at("ok"), false);
  EXPECT_TRUE(dev.connections(0).empty());
}

TEST(DevServer, DiscoveryIsScriptableAndServedOverTrustedTls) {
  DevServer dev;
  ASSERT_TRUE(dev.ready());
  const std::string target = "/config/api/v1/brl-server?appId=app+1";
  auto r = getPlain(dev.httpUrl(), target);
  ASSERT_FALSE(r.ec) << r.ec.message();
  ASSERT_EQ(r.status, 200u);
  json::array expected;
  for (const auto& u : dev.tavernUrls()) expected.emplace_back(u);
  EXPECT_EQ(json::parse(r.body), (json::object{{"code", 200}, {"data", {{"tavernServers", expected}}}}));

  ASSERT_TRUE(dev.scriptDiscovery(DiscoveryAnswer().code(500).data(json::object{}).times(1)));
  r = getTls(dev.httpsUrl(), target, testCaFile());
  ASSERT_FALSE(r.ec) << r.ec.message();
  EXPECT_EQ(json::parse(r.body), (json::object{{"code", 500}, {"data", json::object{}}}));
  EXPECT_EQ(json::parse(getPlain(dev.httpUrl(), target).body).at("code"), 200);  // the script was for once

  const auto seen = dev.discoveryRequests();
  ASSERT_EQ(seen.size(), 3u);
  EXPECT_EQ(seen[0].rawQuery, "appId=app+1");
  EXPECT_FALSE(seen[0].tls);
  EXPECT_TRUE(seen[1].tls);
  EXPECT_EQ(seen[1].headers.at("content-type"), "application/json");
}

TEST(DevServer, UntrustedCertificateIsRefusedByTheTestCa) {
  DevServerOptions options;
  options.untrustedCert = true;
  DevServer dev(options);
  ASSERT_TRUE(dev.ready());
  const auto refused = getTls(dev.httpsUrl(), "/config/api/v1/brl-server?appId=a", testCaFile());
  EXPECT_TRUE(refused.ec);
  const auto accepted = getTls(dev.httpsUrl(), "/config/api/v1/brl-server?appId=a", untrustedTestCaFile());
  EXPECT_FALSE(accepted.ec) << accepted.ec.message();
}

TEST(DevServer, RawSocketIoSessionIsRecordedScriptedAndPushedTo) {
  DevServer dev;
  ASSERT_TRUE(dev.ready());
  RawSession s(dev.tavernUrls()[1], "token=t%201&");
  ASSERT_FALSE(s.error()) << s.error().message();
  const std::string id = s.connect();
  ASSERT_FALSE(id.empty());

  const auto conn = dev.awaitConnection(1);
  ASSERT_TRUE(conn);
  EXPECT_EQ(conn->id, id);
  EXPECT_EQ(conn->query.at("token"), "t 1");
  EXPECT_FALSE(conn->deflate);

  ASSERT_TRUE(s.send(R"(420["command","join",{"channelId":"c"}])"));
  EXPECT_EQ(s.read(), R"(430[{"result":0}])");
  ASSERT_TRUE(
      dev.scriptCommand("join", CommandAnswer().ack({"Too Many Requests", {{"result", 5}}}).times(1)));
  ASSERT_TRUE(s.send(R"(421["command","join",{"channelId":"c"}])"));
  EXPECT_EQ(s.read(), R"(431["Too Many Requests",{"result":5}])");
  const auto commands = dev.commands();
  ASSERT_EQ(commands.size(), 2u);
  EXPECT_EQ(commands[1].server, 1);
  EXPECT_EQ(commands[1].socket, id);
  EXPECT_EQ(commands[1].payload, (json::object{{"channelId", "c"}}));

  ASSERT_TRUE(dev.push(1, id, "blob", {"a", bytesValue({1, 2, 0xff})}));
  EXPECT_EQ(s.read(), R"(451-["blob","a",{"_placeholder":true,"num":0}])");
  EXPECT_EQ(s.read(), std::string("\x01\x02\xff", 3));

  ASSERT_TRUE(dev.disconnect(1, id, "KickOff"));
  EXPECT_EQ(s.read(), R"(42["disconnectReason","KickOff"])");
  EXPECT_EQ(s.read(), "41");
}

TEST(DevServer, CollectionKeepsBodiesByteForByteAndAnswersAsScripted) {
  DevServer dev;
  ASSERT_TRUE(dev.ready());
  Bytes body;
  for (int i = 0; i < 256; ++i) body.push_back(static_cast<std::uint8_t>(255 - i));
  body.push_back(0);  // 257 bytes: the base64 form ends in padding

  ASSERT_TRUE(dev.scriptCollection(CollectionAnswer().status(500).times(1)));
  EXPECT_EQ(post(dev.httpUrl(), "/brl/v1/collect-logan", body).status, 500u);
  EXPECT_EQ(post(dev.httpUrl(), "/brl/v1/collect-logan", {}).status, 204u);
  const auto uploads = dev.uploads(true);
  ASSERT_EQ(uploads.size(), 2u);
  EXPECT_EQ(uploads[0].body, body);
  EXPECT_EQ(uploads[0].request.headers.at("content-type"), "application/octet-stream");
  EXPECT_TRUE(uploads[1].body.empty());
  EXPECT_TRUE(dev.uploads().empty());
}

TEST(DevServer, StoppedTavernRefusesConnectionsAndRestartsOnItsPort) {
  DevServer dev;
  ASSERT_TRUE(dev.ready());
  const std::string url = dev.tavernUrls()[0];
  ASSERT_TRUE(dev.stopTavern(0));
  EXPECT_EQ(RawSession(url, "").error(), asio::error::connection_refused);
  EXPECT_EQ(dev.startTavern(0), url);
  RawSession s(url, "");
  ASSERT_FALSE(s.error()) << s.error().message();
  EXPECT_FALSE(s.connect().empty());
}

TEST(PythonServer, AnswersARawSessionAndItsControlRequests) {
  PythonServer py;
  ASSERT_TRUE(py.ready());
  RawSession s(py.url(), "token=abc&");
  ASSERT_FALSE(s.error()) << s.error().message();
  const std::string id = s.connect();
  ASSERT_FALSE(id.empty());
  ASSERT_TRUE(s.send(R"(427["command","join",{}])"));
  EXPECT_EQ(s.read(), R"(437[{"result":0}])");

  const auto conns = py.connections();
  ASSERT_EQ(conns.size(), 1u);
  EXPECT_EQ(conns[0].id, id);
  EXPECT_EQ(conns[0].query.at("token"), "abc");
  ASSERT_TRUE(py.push(id, "hello", {"x"}));
  EXPECT_EQ(s.read(), R"(42["hello","x"])");
  EXPECT_EQ(py.request({{"cmd", "push"}, {"sid", "nobody"}}).at("ok"), false);
}

TEST(DevServer, StoppingLeavesNoProcessOrListenerBehind) {
  pid_t devPid = 0, pyPid = 0;
  std::string http;
  {
    DevServer dev;
    PythonServer py;
    ASSERT_TRUE(dev.ready());
    ASSERT_TRUE(py.ready());
    devPid = dev.pid();
    pyPid = py.pid();
    http = dev.httpUrl();
  }
  for (pid_t pid : {devPid, pyPid}) {
    errno = 0;
    EXPECT_EQ(kill(pid, 0), -1);
    EXPECT_EQ(errno, ESRCH);  // exited and reaped: not even a zombie
  }
  EXPECT_EQ(getPlain(http, "/").ec, asio::error::connection_refused);
}

}  // namespace
