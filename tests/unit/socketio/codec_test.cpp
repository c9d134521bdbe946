#include "socketio/codec.hpp"

#include <gtest/gtest.h>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

namespace json = boost::json;
using namespace sio;
using namespace std::string_literals;

namespace {

// Frames as they travel: text frames verbatim, binary frames as "B:" and their bytes.
using Wire = std::vector<std::string>;

BufferPtr bytes(std::string_view raw) { return std::make_shared<Buffer>(raw.begin(), raw.end()); }

// Runs frames through the Engine.IO and Socket.IO decoders as the connection would: the result of
// the last frame, or the first error.
Result<Decoder::Output> feed(Decoder& decoder, const Wire& frames) {
  using R = Result<Decoder::Output>;
  R last = R::fail("no frames");
  for (const auto& frame : frames) {
    if (frame.rfind("B:", 0) == 0) {
      last = decoder.onBinary(bytes(std::string_view(frame).substr(2)));
    } else {
      auto eio = engine::decodeText(frame);
      if (!eio) return R::fail(eio.error);
      last = eio.value->type == engine::Type::Message ? decoder.onText(eio.value->data) : R::fail("not a message");
    }
    if (!last) return last;
  }
  return last;
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
  using T = PacketType;
  // A packet as it travels; its payload is the JSON that ends the text frame, its attachments the
  // binary frames in order.
  struct Vector {
    Wire frames;
    PacketType type;
    std::string nsp = "/";
    std::optional<std::uint64_t> id = std::nullopt;
  };
  // clang-format off
  const Vector vectors[] = {
      {{"40"}, T::Connect},
      {{R"(40{"sid":"wZX3oN0bSVIhsaknAAAI"})"}, T::Connect},
      {{R"(40/,{"sid":"abc","pid":"x"})"}, T::Connect},
      {{R"(44{"message":"Not authorized","data":{"code":401}})"}, T::ConnectError},
      {{R"(44/random,{"message":"Invalid namespace"})"}, T::ConnectError, "/random"},
      {{R"(44"Not authorized")"}, T::ConnectError},
      {{R"(42["hey","Jude"])"}, T::Event},
      {{R"(4213["ask",1])"}, T::Event, "/", 13},
      {{R"(4312["bar"])"}, T::Ack, "/", 12},
      {{"4312[]"}, T::Ack, "/", 12},
      {{R"(4218446744073709551615["max"])"}, T::Event, "/", 18446744073709551615u},
      {{"41"}, T::Disconnect},
      {{"41/admin,"}, T::Disconnect, "/admin"},
      {{R"(42["x",{"_placeholder":true,"num":0}])"}, T::Event},
      {{R"(42[1,"a"])"}, T::Event},
      {{R"(450-["a"])"}, T::BinaryEvent},
      {{R"(452-["files",{"_placeholder":true,"num":0},{"_placeholder":true,"num":1}])", "B:\x01\x02", "B:\x03"}, T::BinaryEvent},
      {{R"(452-["x",{"_placeholder":true,"num":1},{"_placeholder":true,"num":0}])", "B:a", "B:b"}, T::BinaryEvent},
      {{R"(451-["doc",{"meta":{"n":1},"blob":{"_placeholder":true,"num":0}}])", "B:\0"s}, T::BinaryEvent},
      {{R"(451-7["upload",{"_placeholder":true,"num":0}])", "B:\xff"}, T::BinaryEvent, "/", 7},
      {{R"(461-15["bar",{"_placeholder":true,"num":0}])", "B:\x01\x02\x03\x04"}, T::BinaryAck, "/", 15},
  };
  // clang-format on
  for (const auto& v : vectors) {
    const std::string& text = v.frames[0];
    Decoder decoder;
    // Every frame but the last leaves the packet waiting for its attachments.
    for (std::size_t k = 1; k < v.frames.size(); ++k) {
      auto partial = feed(decoder, Wire(v.frames.begin(), v.frames.begin() + static_cast<std::ptrdiff_t>(k)));
      ASSERT_TRUE(partial && std::holds_alternative<std::monostate>(*partial.value)) << text;
      decoder.reset();
    }
    auto r = feed(decoder, v.frames);
    ASSERT_TRUE(r) << text << ": " << r.error;
    const auto* p = std::get_if<Packet>(&*r.value);
    ASSERT_NE(p, nullptr) << text;
    EXPECT_EQ(p->type, v.type) << text;
    EXPECT_EQ(p->nsp, v.nsp) << text;
    EXPECT_EQ(p->id, v.id) << text;
    const std::size_t start = text.find_first_of("[{\"");
    EXPECT_EQ(p->data, start == std::string::npos ? json::value() : json::parse(text.substr(start))) << text;
    Wire buffers;
    for (const auto& b : p->buffers) buffers.push_back("B:" + std::string(b->begin(), b->end()));
    EXPECT_EQ(buffers, Wire(v.frames.begin() + 1, v.frames.end())) << text;
    EXPECT_FALSE(decoder.awaitingAttachments());
  }
}

TEST(SocketIoCodec, RejectsMalformedInput) {
  // clang-format off
  const std::vector<Wire> malformed = {
      {""}, {"9"}, {"x"}, {"4"}, {"4abc"}, {"47"},
      {"42"}, {"42{}"}, {"42[]"}, {R"(42"x")"}, {R"(42[true,"x"])"}, {"42[null]"}, {"42[1e400]"},
      {R"(42["connect"])"}, {R"(42["disconnect","x"])"}, {R"(42["newListener"])"},
      {R"(42["a")"}, {R"(42abc["a"])"}, {R"(42["a"]x)"}, {"42[" + std::string(100, '[') + std::string(100, ']') + "]"},
      {"41{}"}, {"40[]"}, {R"(40"x")"}, {"4312"}, {R"(43["x"])"}, {"43{}"}, {"44{}"}, {R"(44{"message":1})"},
      {"45"}, {"451"}, {R"(45a-["a"])"}, {R"(451.5-["a"])"}, {R"(45-["a"])"}, {R"(452["a"])"},
      {R"(4511-["a"])"}, {R"(4599999999999999999999-["a"])"},
      {R"(451-["a",{"_placeholder":true,"num":1}])", "B:\0"s}, {R"(451-["a",{"_placeholder":true,"num":-1}])"},
      {R"(451-["a",{"_placeholder":true,"num":"0"}])"}, {R"(451-["a",{"_placeholder":true,"num":0.5}])"},
      {R"(451-["a",{"_placeholder":true}])"}, {R"(450-["a",{"_placeholder":true,"num":0}])"},
      {R"(451-["a",{"_placeholder":true,"num":0}])", R"(42["b"])"}, {"B:\0"s},
      {R"(4299999999999999999999["a"])"}, {R"(4218446744073709551616["a"])"},
  };
  // clang-format on
  for (const auto& frames : malformed) {
    Decoder decoder;
    EXPECT_FALSE(feed(decoder, frames)) << frames[0];
    // An error leaves the decoder clean for whoever reuses it.
    EXPECT_FALSE(decoder.awaitingAttachments()) << frames[0];
    EXPECT_TRUE(feed(decoder, {R"(42["a",{"b":[1,"c"]}])"})) << "after " << frames[0];
  }
}

// One decoder parses every packet of a connection: what a refused packet used leaves the budget of
// the next ones untouched.
TEST(SocketIoCodec, ADecoderKeepsItsMemoryBoundFromPacketToPacket) {
  const auto zeros = [](std::size_t n) {
    std::string s = "2[\"news\",[0";
    for (std::size_t i = 1; i < n; ++i) s += ",0";
    return s + "]]";
  };
  const std::string nested = R"(2["m",{"from":{"id":"u"},"ts":1718000000123,"content":{"text":"hi"}}])";
  const std::string text = "2[\"t\",\"" + std::string(10 * 1024, 'x') + "\"]";
  const struct {
    std::string data;
    bool ok;
  } packets[] = {{nested, true}, {zeros(3000), false}, {nested, true}, {text, true},
                 {zeros(100), true}, {zeros(3000), false}, {"2[\"a\",{\"b\":", false}, {nested, true}};
  Decoder decoder(DecoderLimits{1024, 16 * 1024});
  for (int round = 0; round < 2; ++round) {
    for (const auto& p : packets) {
      auto r = decoder.onText(p.data);
      ASSERT_EQ(static_cast<bool>(r), p.ok) << p.data.substr(0, 40) << ": " << r.error;
      if (!r) continue;
      const auto* packet = std::get_if<Packet>(&*r.value);
      ASSERT_NE(packet, nullptr);
      EXPECT_EQ(packet->data, json::parse(p.data.substr(1)));
    }
  }
}

TEST(SocketIoCodec, EncodesTheWireVectors) {
  EXPECT_EQ(encodeConnect().text, "40");
  EXPECT_EQ(encodeDisconnect().text, "41");

  const auto args = [](const char* text) { return json::parse(text).as_array(); };
  EXPECT_EQ(encodeEvent("hey", {args(R"(["Jude"])"), {}}, std::nullopt).text, R"(42["hey","Jude"])");
  EXPECT_EQ(encodeEvent("foo", {}, 12).text, R"(4212["foo"])");
  EXPECT_EQ(encodeAck(13, {args(R"(["answer"])"), {}}).text, R"(4313["answer"])");
  EXPECT_EQ(encodeAck(12, {}).text, "4312[]");
  EXPECT_EQ(encodeEvent("é\"\n", {json::array{"\x01\\\t", -1, 2.5, 18446744073709551615u, nullptr, json::object{}}, {}},
                        std::nullopt)
                .text,
            "42[\"é\\\"\\n\",\"\\u0001\\\\\\t\",-1,2.5,18446744073709551615,null,{}]");

  // Numbers that overflowed to infinity, or that the caller made non-finite, go out as JSON does them.
  const double inf = std::numeric_limits<double>::infinity();
  const Payload odd{json::array{inf, json::object{{"k", json::array{-inf, std::nan("")}}}, -1.0}, {}};
  EXPECT_EQ(encodeEvent("n", odd, std::nullopt).text, R"(42["n",null,{"k":[null,null]},-1.0])");
  EXPECT_EQ(encodeAck(2, odd).text, R"(432[null,{"k":[null,null]},-1.0])");

  const Payload up{json::array{makePlaceholder(0), makePlaceholder(1)},
                   {bytes("\x01\x02\x03"), bytes("\x04\x05\x06")}};
  const Frames sent = encodeEvent("up", up, 3);
  EXPECT_EQ(sent.text, R"(452-3["up",{"_placeholder":true,"num":0},{"_placeholder":true,"num":1}])");
  EXPECT_EQ(sent.binary, up.buffers);

  const Payload reply{json::array{"bar", makePlaceholder(0)}, {bytes("\x01\x02\x03\x04")}};
  const Frames acked = encodeAck(15, reply);
  EXPECT_EQ(acked.text, R"(461-15["bar",{"_placeholder":true,"num":0}])");
}

// Long strings are escaped a slice at a time: escapes on and around the slices' edges, and strings
// made of nothing but escapes, come out as Boost.JSON's own serializer writes them.
TEST(SocketIoCodec, EscapesLongStringsAcrossSlices) {
  const auto with = [](std::size_t n, std::initializer_list<std::pair<std::size_t, char>> marks) {
    std::string s(n, 'a');
    for (const auto& [at, c] : marks) s[at] = c;
    return s;
  };
  const std::string strings[] = {
      with(4095, {{4094, '"'}}),
      with(4096, {{4095, '\n'}, {0, '\x01'}}),
      with(4097, {{4095, '\\'}, {4096, '"'}}),
      with(9000, {{4096, '\x1f'}, {8191, '\t'}, {8192, '\b'}, {8999, '\f'}}),
      std::string(5000, '\x02'),
      std::string(4100, '"') + "\xc3\xa9",
  };
  for (const auto& s : strings) {
    const Payload p{json::array{json::string(s)}, {}};
    EXPECT_EQ(encodeEvent("e", p, std::nullopt).text, "42[\"e\"," + json::serialize(json::string(s)) + "]")
        << s.size();
  }
}

TEST(SocketIoCodec, BuildsEndpoints) {
  using Query = std::vector<std::pair<std::string, std::string>>;
  struct Case {
    const char* base;
    Query query;
    const char* url;      // what the connection asks for
    const char* address;  // host, port and whether the host is an IP literal
  };
  // clang-format off
  const Case cases[] = {
      {"http://localhost:3000", {{"token", "abc"}}, "ws://localhost:3000/socket.io/?token=abc&EIO=4&transport=websocket", "localhost 3000"},
      {"https://example.com", {}, "wss://example.com/socket.io/?EIO=4&transport=websocket", "example.com 443"},
      {"https://example.com:8443/", {}, "wss://example.com:8443/socket.io/?EIO=4&transport=websocket", "example.com 8443"},
      {"http://example.com:80", {}, "ws://example.com/socket.io/?EIO=4&transport=websocket", "example.com 80"},
      {"http://[::1]:3000", {}, "ws://[::1]:3000/socket.io/?EIO=4&transport=websocket", "::1 3000 ip"},
      {"http://h", {{"na me", "a b&c=d/é+"}}, "ws://h/socket.io/?na%20me=a%20b%26c%3Dd%2F%C3%A9%2B&EIO=4&transport=websocket", "h 80"},
      {"WSS://127.0.0.1:443?a=1&b=x+y&flag&a=2", {{"b", "3"}, {"c", ""}}, "wss://127.0.0.1/socket.io/?a=1&flag&a=2&b=3&c=&EIO=4&transport=websocket", "127.0.0.1 443 ip"},
      {"ws://h:08080/?q=%2B", {}, "ws://h:8080/socket.io/?q=%2B&EIO=4&transport=websocket", "h 8080"},
  };
  // clang-format on
  for (const auto& c : cases) {
    auto ep = buildEndpoint(c.base, "/socket.io/", c.query);
    ASSERT_TRUE(ep) << c.base << ": " << ep.error;
    const Endpoint& e = *ep.value;
    EXPECT_EQ((e.tls ? "wss://" : "ws://") + e.host_header + e.target, c.url);
    EXPECT_EQ(e.host + " " + e.port + (e.host_is_ip ? " ip" : ""), c.address);
  }
  auto prefixed = buildEndpoint("https://example.com", "/app/socket.io", {});
  ASSERT_TRUE(prefixed) << prefixed.error;
  EXPECT_EQ(prefixed.value->target, "/app/socket.io/?EIO=4&transport=websocket");

  // clang-format off
  const std::pair<const char*, Query> rejected[] = {
      {"http://h/chat", {}}, {"ftp://h", {}}, {"localhost:3000", {}}, {"not a url", {}}, {"http://", {}},
      {"http://h:0", {}}, {"http://h:65536", {}}, {"http://h:99999", {}}, {"http://u:p@h", {}},
      {"http://a%0d%0ab", {}}, {"http://h?EIO=3", {}}, {"http://h?sid=x", {}},
      {"http://h", {{"transport", "polling"}}}, {"http://h", {{"t", "1"}}}, {"http://h", {{"j", "1"}}},
      {"http://h", {{"b64", "1"}}},
  };
  // clang-format on
  for (const auto& [base, query] : rejected) EXPECT_FALSE(buildEndpoint(base, "/socket.io/", query)) << base;
  for (const char* path : {"", "socket.io/", "/a b/", "/a?b/"}) {
    EXPECT_FALSE(buildEndpoint("http://h", path, {})) << path;
  }
}
