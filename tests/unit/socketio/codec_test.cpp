#include "socketio/codec.hpp"

#include <gtest/gtest.h>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include <string>
#include <vector>

namespace json = boost::json;
using namespace sio;

namespace {

// Frames as the wire brief writes them: text frames verbatim, binary frames as "B:" + hex.
using Wire = std::vector<std::string>;

bool isBinary(const std::string& frame) {
  return frame.rfind("B:", 0) == 0;
}

BufferPtr bytes(std::string_view hex) {
  auto buf = std::make_shared<Buffer>();
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    buf->push_back(static_cast<std::uint8_t>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
  }
  return buf;
}

std::string hex(const BufferPtr& buf) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  for (auto b : *buf) out += {kHex[b >> 4], kHex[b & 15]};
  return out;
}

// Runs frames through the Engine.IO and Socket.IO decoders as the connection would: the result of
// the last frame, or the first error.
Result<Decoder::Output> feed(Decoder& decoder, const Wire& frames) {
  Result<Decoder::Output> last = Result<Decoder::Output>::fail("no frames");
  for (const auto& frame : frames) {
    if (isBinary(frame)) {
      last = decoder.onBinary(bytes(std::string_view(frame).substr(2)));
    } else {
      auto eio = engine::decodeText(frame);
      if (!eio) return Result<Decoder::Output>::fail(eio.error);
      if (eio.value->type == engine::Type::Open) {
        auto hs = engine::decodeHandshake(eio.value->data);
        last = hs ? Result<Decoder::Output>{Decoder::Output{}, {}} : Result<Decoder::Output>::fail(hs.error);
      } else {
        last = decoder.onText(eio.value->data);
      }
    }
    if (!last) return last;
  }
  return last;
}

struct Vector {
  Wire frames;
  PacketType type;
  std::string nsp;
  std::optional<std::uint64_t> id;
  std::string data;  // JSON text, empty when the packet has no payload
  std::vector<std::string> buffers;
};

const std::vector<Vector>& vectors() {
  static const std::vector<Vector> v = {
      {{R"(40)"}, PacketType::Connect, "/", {}, "", {}},
      {{R"(40{"sid":"wZX3oN0bSVIhsaknAAAI"})"},
       PacketType::Connect,
       "/",
       {},
       R"({"sid":"wZX3oN0bSVIhsaknAAAI"})",
       {}},
      {{R"(40/,{"sid":"abc","pid":"x"})"}, PacketType::Connect, "/", {}, R"({"sid":"abc","pid":"x"})", {}},
      {{R"(44{"message":"Not authorized","data":{"code":401}})"},
       PacketType::ConnectError,
       "/",
       {},
       R"({"message":"Not authorized","data":{"code":401}})",
       {}},
      {{R"(44/random,{"message":"Invalid namespace"})"},
       PacketType::ConnectError,
       "/random",
       {},
       R"({"message":"Invalid namespace"})",
       {}},
      {{R"(44"Not authorized")"}, PacketType::ConnectError, "/", {}, R"("Not authorized")", {}},
      {{R"(42["hey","Jude"])"}, PacketType::Event, "/", {}, R"(["hey","Jude"])", {}},
      {{R"(4213["ask",1])"}, PacketType::Event, "/", 13, R"(["ask",1])", {}},
      {{R"(4312["bar"])"}, PacketType::Ack, "/", 12, R"(["bar"])", {}},
      {{R"(4312[])"}, PacketType::Ack, "/", 12, "[]", {}},
      {{R"(4399["x"])"}, PacketType::Ack, "/", 99, R"(["x"])", {}},
      {{R"(4218446744073709551615["max"])"}, PacketType::Event, "/", 18446744073709551615u, R"(["max"])", {}},
      {{R"(41)"}, PacketType::Disconnect, "/", {}, "", {}},
      {{R"(41/admin,)"}, PacketType::Disconnect, "/admin", {}, "", {}},
      {{R"(41/admin)"}, PacketType::Disconnect, "/admin", {}, "", {}},
      {{R"(42["x",{"_placeholder":true,"num":0}])"},
       PacketType::Event,
       "/",
       {},
       R"(["x",{"_placeholder":true,"num":0}])",
       {}},
      {{R"(42[1,"a"])"}, PacketType::Event, "/", {}, R"([1,"a"])", {}},
      {{R"(450-["a"])"}, PacketType::BinaryEvent, "/", {}, R"(["a"])", {}},
      {{R"(451-["file",{"_placeholder":true,"num":0}])", "B:01020304"},
       PacketType::BinaryEvent,
       "/",
       {},
       R"(["file",{"_placeholder":true,"num":0}])",
       {"01020304"}},
      {{R"(452-["files",{"_placeholder":true,"num":0},{"_placeholder":true,"num":1}])", "B:0102", "B:0304"},
       PacketType::BinaryEvent,
       "/",
       {},
       R"(["files",{"_placeholder":true,"num":0},{"_placeholder":true,"num":1}])",
       {"0102", "0304"}},
      {{R"(452-["x",{"_placeholder":true,"num":1},{"_placeholder":true,"num":0}])", "B:aa", "B:bb"},
       PacketType::BinaryEvent,
       "/",
       {},
       R"(["x",{"_placeholder":true,"num":1},{"_placeholder":true,"num":0}])",
       {"aa", "bb"}},
      {{R"(451-["doc",{"meta":{"n":1},"blob":{"_placeholder":true,"num":0}}])", "B:00"},
       PacketType::BinaryEvent,
       "/",
       {},
       R"(["doc",{"meta":{"n":1},"blob":{"_placeholder":true,"num":0}}])",
       {"00"}},
      {{R"(451-7["upload",{"_placeholder":true,"num":0}])", "B:ff"},
       PacketType::BinaryEvent,
       "/",
       7,
       R"(["upload",{"_placeholder":true,"num":0}])",
       {"ff"}},
      {{R"(461-15["bar",{"_placeholder":true,"num":0}])", "B:01020304"},
       PacketType::BinaryAck,
       "/",
       15,
       R"(["bar",{"_placeholder":true,"num":0}])",
       {"01020304"}},
      {{R"(452-3["up",{"_placeholder":true,"num":0},{"_placeholder":true,"num":1}])", "B:010203", "B:040506"},
       PacketType::BinaryEvent,
       "/",
       3,
       R"(["up",{"_placeholder":true,"num":0},{"_placeholder":true,"num":1}])",
       {"010203", "040506"}},
  };
  return v;
}

void expectPacket(const Vector& v, const Result<Decoder::Output>& r) {
  ASSERT_TRUE(r) << v.frames[0] << ": " << r.error;
  const auto* p = std::get_if<Packet>(&*r.value);
  ASSERT_NE(p, nullptr) << v.frames[0];
  EXPECT_EQ(p->type, v.type) << v.frames[0];
  EXPECT_EQ(p->nsp, v.nsp) << v.frames[0];
  EXPECT_EQ(p->id, v.id) << v.frames[0];
  EXPECT_EQ(p->data, v.data.empty() ? json::value() : json::parse(v.data)) << v.frames[0];
  std::vector<std::string> buffers;
  for (const auto& b : p->buffers) buffers.push_back(hex(b));
  EXPECT_EQ(buffers, v.buffers) << v.frames[0];
}

}  // namespace

TEST(SocketIoCodec, EngineTextAndHandshake) {
  auto open = engine::decodeText(
      R"(0{"sid":"lv_VI97HAXpY6yYWAAAC","upgrades":[],"pingInterval":25000,"pingTimeout":20000,"maxPayload":1000000})");
  ASSERT_TRUE(open);
  EXPECT_EQ(open.value->type, engine::Type::Open);
  auto hs = engine::decodeHandshake(open.value->data);
  ASSERT_TRUE(hs) << hs.error;
  EXPECT_EQ(hs.value->sid, "lv_VI97HAXpY6yYWAAAC");
  EXPECT_EQ(hs.value->ping_interval, std::chrono::milliseconds(25000));
  EXPECT_EQ(hs.value->ping_timeout, std::chrono::milliseconds(20000));
  EXPECT_EQ(hs.value->max_payload, 1000000u);

  auto lean = engine::decodeHandshake(R"({"pingTimeout":200,"sid":"s","x":{"y":[1]},"pingInterval":300})");
  ASSERT_TRUE(lean) << lean.error;
  EXPECT_FALSE(lean.value->max_payload);

  auto ping = engine::decodeText("2");
  ASSERT_TRUE(ping);
  EXPECT_EQ(ping.value->type, engine::Type::Ping);
  EXPECT_TRUE(ping.value->data.empty());

  for (const char* bad :
       {R"({"sid":)", R"([])", R"({"pingInterval":1,"pingTimeout":1})",
        R"({"sid":"","pingInterval":1,"pingTimeout":1})", R"({"sid":5,"pingInterval":1,"pingTimeout":1})",
        R"({"sid":"s","pingInterval":0,"pingTimeout":1})", R"({"sid":"s","pingInterval":-5,"pingTimeout":1})",
        R"({"sid":"s","pingInterval":"5","pingTimeout":1})",
        R"({"sid":"s","pingInterval":1.5,"pingTimeout":1})", R"({"sid":"s","pingInterval":1})",
        R"({"sid":"s","pingInterval":1,"pingTimeout":1e30})",
        R"({"sid":"s","pingInterval":1,"pingTimeout":1,"maxPayload":0})"}) {
    EXPECT_FALSE(engine::decodeHandshake(bad)) << bad;
  }
}

TEST(SocketIoCodec, DecodesTheWireVectors) {
  for (const auto& v : vectors()) {
    Decoder decoder;
    expectPacket(v, feed(decoder, v.frames));
    EXPECT_FALSE(decoder.awaitingAttachments());
  }
}

TEST(SocketIoCodec, RejectsMalformedInput) {
  const std::vector<Wire> malformed = {
      {""},
      {"9"},
      {"x"},
      {R"(0{"sid":)"},
      {"4"},
      {"4abc"},
      {"47"},
      {"42{}"},
      {"42[]"},
      {R"(42"x")"},
      {R"(42[true,"x"])"},
      {"42[null]"},
      {"42"},
      {R"(42["connect"])"},
      {R"(42["disconnect","x"])"},
      {R"(42["newListener"])"},
      {R"(42["a")"},
      {R"(42abc["a"])"},
      {R"(42["a"]x)"},
      {"41{}"},
      {"40[]"},
      {R"(40"x")"},
      {"4312"},
      {R"(43["x"])"},
      {R"(43{})"},
      {"44{}"},
      {R"(44{"message":1})"},
      {"45"},
      {"451"},
      {R"(45a-["a"])"},
      {R"(451.5-["a"])"},
      {R"(45-["a"])"},
      {R"(452["a"])"},
      {R"(4511-["a"])"},
      {R"(4599999999999999999999-["a"])"},
      {R"(451-["a",{"_placeholder":true,"num":1}])", "B:00"},
      {R"(451-["a",{"_placeholder":true,"num":-1}])"},
      {R"(451-["a",{"_placeholder":true,"num":"0"}])"},
      {R"(451-["a",{"_placeholder":true,"num":0.5}])"},
      {R"(451-["a",{"_placeholder":true}])"},
      {R"(450-["a",{"_placeholder":true,"num":0}])"},
      {R"(451-["a",{"_placeholder":true,"num":0}])", R"(42["b"])"},
      {"B:00"},
      {R"(4299999999999999999999["a"])"},
      {R"(4218446744073709551616["a"])"},
      {"42[" + std::string(100, '[') + std::string(100, ']') + "]"},
  };
  for (const auto& frames : malformed) {
    Decoder decoder;
    EXPECT_FALSE(feed(decoder, frames)) << frames[0];
    // An error leaves the decoder clean for whoever reuses it.
    EXPECT_FALSE(decoder.awaitingAttachments()) << frames[0];
  }
}

TEST(SocketIoCodec, TruncatedVectorsFailCleanly) {
  for (const auto& v : vectors()) {
    const std::string& text = v.frames[0];
    const std::size_t json_start = text.find_first_of("[{\"");
    for (std::size_t n = 0; n < text.size(); ++n) {
      Decoder decoder;
      auto r = feed(decoder, {text.substr(0, n)});
      // A JSON payload cut short never parses; shorter cuts may or may not form a packet.
      if (json_start != std::string::npos && n > json_start) {
        EXPECT_FALSE(r) << text.substr(0, n);
      }
      decoder.reset();
      expectPacket(v, feed(decoder, v.frames));
    }
    // Missing attachments keep the packet pending.
    for (std::size_t k = 1; k < v.frames.size(); ++k) {
      Decoder decoder;
      auto r = feed(decoder, Wire(v.frames.begin(), v.frames.begin() + static_cast<std::ptrdiff_t>(k)));
      ASSERT_TRUE(r) << text;
      EXPECT_TRUE(std::holds_alternative<std::monostate>(*r.value));
      EXPECT_TRUE(decoder.awaitingAttachments());
    }
  }
}

TEST(SocketIoCodec, EncodesTheWireVectors) {
  EXPECT_EQ(encodeConnect().text, "40");
  const json::object auth{{"token", "123"}};
  EXPECT_EQ(encodeConnect(&auth).text, R"(40{"token":"123"})");
  EXPECT_EQ(encodeDisconnect().text, "41");

  const auto args = [](const char* text) { return json::parse(text).as_array(); };
  EXPECT_EQ(encodeEvent({args(R"(["hey","Jude"])"), {}}, std::nullopt).text, R"(42["hey","Jude"])");
  EXPECT_EQ(encodeEvent({args(R"(["foo"])"), {}}, 12).text, R"(4212["foo"])");
  EXPECT_EQ(encodeAck(13, {args(R"(["answer"])"), {}}).text, R"(4313["answer"])");
  EXPECT_EQ(encodeAck(12, {}).text, "4312[]");
  EXPECT_EQ(encodeEvent({json::array{"é\"\n", -1, 2.5, nullptr, json::object{}}, {}}, std::nullopt).text,
            "42[\"é\\\"\\n\",-1,2.5E0,null,{}]");

  const Payload up{json::array{"up", makePlaceholder(0), makePlaceholder(1)},
                   {bytes("010203"), bytes("040506")}};
  const Frames sent = encodeEvent(up, 3);
  EXPECT_EQ(sent.text, R"(452-3["up",{"_placeholder":true,"num":0},{"_placeholder":true,"num":1}])");
  EXPECT_EQ(sent.binary, up.buffers);

  const Payload reply{json::array{"bar", makePlaceholder(0)}, {bytes("01020304")}};
  const Frames acked = encodeAck(15, reply);
  EXPECT_EQ(acked.text, R"(461-15["bar",{"_placeholder":true,"num":0}])");

  // What we send, we can read back.
  Decoder decoder;
  ASSERT_TRUE(decoder.onText(std::string_view(acked.text).substr(1)));
  auto back = decoder.onBinary(acked.binary[0]);
  ASSERT_TRUE(back) << back.error;
  const auto& packet = std::get<Packet>(*back.value);
  EXPECT_EQ(packet.data, json::value(reply.args));
  EXPECT_EQ(packet.buffers, reply.buffers);
}

TEST(SocketIoCodec, NamesAndPlaceholders) {
  for (const char* name :
       {"connect", "connect_error", "disconnect", "disconnecting", "newListener", "removeListener"}) {
    EXPECT_TRUE(isReservedEventName(name)) << name;
  }
  EXPECT_FALSE(isReservedEventName("Connect"));
  EXPECT_FALSE(isReservedEventName("message"));

  EXPECT_TRUE(isPlaceholder(makePlaceholder(2), 3));
  EXPECT_FALSE(isPlaceholder(makePlaceholder(3), 3));
  EXPECT_TRUE(isPlaceholder(json::parse(R"({"num":0,"_placeholder":true,"x":1})"), 1));
  for (const char* other : {R"({"_placeholder":"true","num":0})", R"({"_placeholder":true,"num":-1})",
                            R"({"_placeholder":true,"num":0.0})", R"({"_placeholder":true})", "[0]"}) {
    EXPECT_FALSE(isPlaceholder(json::parse(other), 1)) << other;
  }
}

TEST(SocketIoCodec, BuildsEndpoints) {
  using Query = std::vector<std::pair<std::string, std::string>>;
  struct Case {
    const char* url;
    Query query;
    const char* target;
    const char* host;
    const char* port;
    const char* host_header;
    bool tls;
    bool ip;
  };
  const Case cases[] = {
      {"http://localhost:3000",
       {{"token", "abc"}},
       "/socket.io/?token=abc&EIO=4&transport=websocket",
       "localhost",
       "3000",
       "localhost:3000",
       false,
       false},
      {"https://example.com",
       {},
       "/socket.io/?EIO=4&transport=websocket",
       "example.com",
       "443",
       "example.com",
       true,
       false},
      {"https://example.com:8443/",
       {},
       "/socket.io/?EIO=4&transport=websocket",
       "example.com",
       "8443",
       "example.com:8443",
       true,
       false},
      {"http://example.com:80",
       {},
       "/socket.io/?EIO=4&transport=websocket",
       "example.com",
       "80",
       "example.com",
       false,
       false},
      {"http://[::1]:3000",
       {},
       "/socket.io/?EIO=4&transport=websocket",
       "::1",
       "3000",
       "[::1]:3000",
       false,
       true},
      {"http://h",
       {{"na me", "a b&c=d/é+"}},
       "/socket.io/?na%20me=a%20b%26c%3Dd%2F%C3%A9%2B&EIO=4&transport=websocket",
       "h",
       "80",
       "h",
       false,
       false},
      {"WSS://127.0.0.1:443?a=1&b=x+y&flag&a=2",
       {{"b", "3"}, {"c", ""}},
       "/socket.io/?a=1&flag&a=2&b=3&c=&EIO=4&transport=websocket",
       "127.0.0.1",
       "443",
       "127.0.0.1",
       true,
       true},
      {"ws://h:8080/?q=%2B",
       {},
       "/socket.io/?q=%2B&EIO=4&transport=websocket",
       "h",
       "8080",
       "h:8080",
       false,
       false},
  };
  for (const auto& c : cases) {
    auto ep = buildEndpoint(c.url, "/socket.io/", c.query);
    ASSERT_TRUE(ep) << c.url << ": " << ep.error;
    EXPECT_EQ(ep.value->target, c.target) << c.url;
    EXPECT_EQ(ep.value->host, c.host) << c.url;
    EXPECT_EQ(ep.value->port, c.port) << c.url;
    EXPECT_EQ(ep.value->host_header, c.host_header) << c.url;
    EXPECT_EQ(ep.value->tls, c.tls) << c.url;
    EXPECT_EQ(ep.value->host_is_ip, c.ip) << c.url;
  }
  auto prefixed = buildEndpoint("https://example.com", "/app/socket.io", {});
  ASSERT_TRUE(prefixed) << prefixed.error;
  EXPECT_EQ(prefixed.value->target, "/app/socket.io/?EIO=4&transport=websocket");

  const std::pair<const char*, Query> rejected[] = {
      {"http://h/chat", {}},
      {"ftp://h", {}},
      {"localhost:3000", {}},
      {"not a url", {}},
      {"http://", {}},
      {"http://h:0", {}},
      {"http://h:65536", {}},
      {"http://h:99999", {}},
      {"http://u:p@h", {}},
      {"http://a%0d%0ab", {}},
      {"http://h?EIO=3", {}},
      {"http://h?sid=x", {}},
      {"http://h", {{"transport", "polling"}}},
      {"http://h", {{"t", "1"}}},
      {"http://h", {{"j", "1"}}},
      {"http://h", {{"b64", "1"}}},
  };
  for (const auto& [url, query] : rejected) EXPECT_FALSE(buildEndpoint(url, "/socket.io/", query)) << url;
  for (const char* path : {"", "socket.io/", "/a b/", "/a?b/"}) {
    EXPECT_FALSE(buildEndpoint("http://h", path, {})) << path;
  }
}
