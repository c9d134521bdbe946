#include "devserver/dev_server.hpp"

#include <openssl/evp.h>
#include <boost/json/serialize.hpp>

#include <cstdio>
#include <thread>

namespace devserver {
namespace json = boost::json;
using namespace std::chrono_literals;

// ---- binary values ----

json::value bytesValue(const Bytes& bytes) {
  std::string out(4 * ((bytes.size() + 2) / 3), '\0');
  const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()), bytes.data(),
                                static_cast<int>(bytes.size()));
  out.resize(static_cast<std::size_t>(n));
  return json::object{{"$base64", out}};
}

std::optional<Bytes> bytesFrom(const json::value& value) {
  const auto* obj = value.if_object();
  if (!obj || obj->size() != 1) return std::nullopt;
  const auto* text = obj->if_contains("$base64");
  if (!text || !text->is_string()) return std::nullopt;
  const json::string& s = text->get_string();
  if (s.size() % 4 != 0) return std::nullopt;
  Bytes out(s.size() / 4 * 3);
  const int n = EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char*>(s.data()),
                                static_cast<int>(s.size()));
  if (n < 0) return std::nullopt;
  // EVP_DecodeBlock counts the padding as zero bytes.
  std::size_t size = static_cast<std::size_t>(n);
  for (std::size_t i = s.size(); i > 0 && s[i - 1] == '='; --i) --size;
  out.resize(size);
  return out;
}

std::string testCaFile() {
  return QNBRL_SOURCE_DIR "/tests/data/tls/ca.pem";
}

// ---- reading replies ----

namespace {

std::string str(const json::object& o, std::string_view key) {
  const auto* v = o.if_contains(key);
  return v && v->is_string() ? std::string(v->get_string()) : std::string();
}

bool flag(const json::object& o, std::string_view key) {
  const auto* v = o.if_contains(key);
  return v && v->is_bool() && v->get_bool();
}

std::uint64_t count(const json::object& o, std::string_view key) {
  const auto* v = o.if_contains(key);
  if (!v) return 0;
  if (v->is_uint64()) return v->get_uint64();
  if (v->is_int64() && v->get_int64() >= 0) return static_cast<std::uint64_t>(v->get_int64());
  if (v->is_double() && v->get_double() >= 0) return static_cast<std::uint64_t>(v->get_double());
  return 0;
}

std::int64_t integer(const json::object& o, std::string_view key) {
  const auto* v = o.if_contains(key);
  return v && v->is_int64() ? v->get_int64() : 0;
}

json::object objectAt(const json::object& o, std::string_view key) {
  const auto* v = o.if_contains(key);
  return v && v->is_object() ? v->get_object() : json::object();
}

json::array arrayAt(const json::object& o, std::string_view key) {
  const auto* v = o.if_contains(key);
  return v && v->is_array() ? v->get_array() : json::array();
}

std::vector<std::string> strings(const json::object& o, std::string_view key) {
  std::vector<std::string> out;
  for (const auto& v : arrayAt(o, key)) {
    if (v.is_string()) out.emplace_back(v.get_string());
  }
  return out;
}

std::vector<Connection> connectionsFrom(const json::object& reply) {
  std::vector<Connection> out;
  for (const auto& v : arrayAt(reply, "connections")) {
    if (!v.is_object()) continue;
    const auto& o = v.get_object();
    Connection c;
    c.id = str(o, "id");
    c.sid = str(o, "sid");
    c.connected = flag(o, "connected");
    c.disconnectReason = str(o, "disconnectReason");
    c.query = objectAt(o, "query");
    c.headers = objectAt(o, "headers");
    c.extensions = str(o, "extensions");
    c.deflate = flag(o, "deflate");
    c.bytesRead = count(o, "bytesRead");
    c.bytesWritten = count(o, "bytesWritten");
    for (const auto& e : arrayAt(o, "events")) {
      if (!e.is_object()) continue;
      c.events.push_back(
          {str(e.get_object(), "name"), arrayAt(e.get_object(), "args"), flag(e.get_object(), "ack")});
    }
    out.push_back(std::move(c));
  }
  return out;
}

HttpRequestRecord requestFrom(const json::object& o) {
  return {str(o, "method"),     str(o, "path"),         str(o, "rawQuery"),
          objectAt(o, "query"), objectAt(o, "headers"), flag(o, "tls")};
}

json::object withCommand(std::string_view cmd, const json::object& fields) {
  json::object req = fields;
  req["cmd"] = cmd;
  return req;
}

void setSocket(json::object& req, const std::string& socket) {
  if (!socket.empty()) req["socket"] = socket;
}

}  // namespace

DiscoveryAnswer& DiscoveryAnswer::servers(const std::vector<std::string>& urls) {
  json::array list;
  for (const auto& u : urls) list.emplace_back(u);
  return set("servers", std::move(list));
}

// ---- ControlledServer ----

ControlledServer::ControlledServer(const std::vector<std::string>& argv, const std::string& stderrPath,
                                   std::chrono::milliseconds startTimeout, ErrorHook onError)
    : onError_(std::move(onError)), channel_(argv, stderrPath, startTimeout) {
  if (!channel_.ready()) fail(channel_.startError());
}

json::object ControlledServer::request(json::object req, std::chrono::milliseconds timeout) {
  return channel_.request(std::move(req), timeout);
}

json::object ControlledServer::call(json::object req, std::chrono::milliseconds timeout) {
  const std::string cmd = req.contains("cmd") ? json::serialize(req.at("cmd")) : "?";
  json::object reply = request(std::move(req), timeout);
  if (!isOk(reply)) fail("control request " + cmd + " failed: " + errorOf(reply));
  return reply;
}

void ControlledServer::fail(const std::string& reason) const {
  if (onError_) {
    onError_(reason);
  } else {
    std::fprintf(stderr, "[devserver] %s\n", reason.c_str());
  }
}

// ---- DevServer ----

namespace {

// Polls `pred` until it holds or `limit` has passed; the servers answer within a millisecond or so.
bool pollUntil(const std::function<bool()>& pred, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!pred()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(1ms);
  }
  return true;
}

std::vector<std::string> devServerArgv(const DevServerOptions& o) {
  json::object opts{
      {"tavern", o.tavern},
      {"tavernTls", o.tavernTls},
      {"pingInterval", o.pingInterval.count()},
      {"pingTimeout", o.pingTimeout.count()},
      {"perMessageDeflate", o.perMessageDeflate},
      {"maxHttpBufferSize", o.maxHttpBufferSize},
      {"cert", o.untrustedCert   ? "untrusted"
               : o.wrongHostCert ? "wronghost"
                                 : "trusted"},
      {"session", o.session},
      {"memberGraceMs", o.memberGrace.count()},
      {"rateLimit", o.rateLimit},
      {"record", o.record},
      {"verbose", o.verbose},
  };
  const std::string directory = o.directory.empty() ? QNBRL_SOURCE_DIR "/devserver" : o.directory;
  return {"node", directory + "/src/main.js", json::serialize(opts)};
}

}  // namespace

DevServer::DevServer(DevServerOptions options)
    : ControlledServer(devServerArgv(options), options.stderrPath, options.startTimeout,
                       std::move(options.onError)) {
  const auto& r = readyLine();
  tavernUrls_ = strings(r, "tavern");
  tavernTlsUrls_ = strings(r, "tavernTls");
  silentUrl_ = str(r, "silent");
  silentId_ = r.contains("silentId") && r.at("silentId").is_int64()
                  ? static_cast<int>(r.at("silentId").get_int64())
                  : -1;
  httpUrl_ = str(r, "http");
  httpsUrl_ = str(r, "https");
  echoUrl_ = str(r, "echo");
  echoTlsUrl_ = str(r, "echoTls");
  blackholeUrl_ = str(r, "blackhole");
  hostileUrl_ = str(r, "hostile");
}

std::vector<Connection> DevServer::connections(int server, bool connectedOnly) {
  return connectionsFrom(
      call({{"cmd", "connections"}, {"server", server}, {"connectedOnly", connectedOnly}}));
}

std::optional<Connection> DevServer::awaitConnection(int server, std::size_t wanted,
                                                     std::chrono::milliseconds limit) {
  std::vector<Connection> live;
  if (pollUntil([&] { return (live = connections(server, true)).size() >= wanted; }, limit)) {
    return std::move(live.back());
  }
  fail("tavern " + std::to_string(server) + ": fewer than " + std::to_string(wanted) + " live connections");
  return std::nullopt;
}

bool DevServer::scriptCommand(const std::string& name, const CommandAnswer& answer) {
  json::object req = withCommand("scriptCommand", answer.fields());
  req["name"] = name;
  return isOk(call(std::move(req)));
}

std::vector<CommandRecord> DevServer::commands(bool clear) {
  std::vector<CommandRecord> out;
  for (const auto& v : arrayAt(call({{"cmd", "commands"}, {"clear", clear}}), "commands")) {
    if (!v.is_object()) continue;
    const auto& o = v.get_object();
    const auto* payload = o.if_contains("payload");
    out.push_back({static_cast<int>(count(o, "server")), str(o, "socket"), str(o, "name"),
                   payload ? *payload : json::value(), flag(o, "ack")});
  }
  return out;
}

bool DevServer::scriptLogin(const LoginScript& script) {
  json::object req{{"cmd", "scriptLogin"}};
  if (script.server) req["server"] = *script.server;
  if (!script.fail.empty()) req["fail"] = script.fail;
  if (script.silent) req["silent"] = true;
  if (script.delay) req["delayMs"] = script.delay->count();
  if (script.times > 0) req["times"] = script.times;
  return isOk(call(std::move(req)));
}

std::vector<Login> DevServer::logins(bool clear) {
  std::vector<Login> out;
  for (const auto& v : arrayAt(call({{"cmd", "logins"}, {"clear", clear}}), "logins")) {
    if (!v.is_object()) continue;
    const auto& o = v.get_object();
    out.push_back({static_cast<int>(count(o, "server")), str(o, "socket"), str(o, "roomId"), str(o, "userId"),
                   str(o, "token"), integer(o, "timestamp"), integer(o, "connectTimeStamp"),
                   str(o, "result")});
  }
  return out;
}

std::vector<Login> DevServer::awaitLogins(std::size_t wanted, std::chrono::milliseconds limit) {
  std::vector<Login> all;
  if (pollUntil([&] { return (all = logins()).size() >= wanted; }, limit)) return all;
  fail("fewer than " + std::to_string(wanted) + " logins");
  return {};
}

bool DevServer::onConnect(std::optional<int> server, json::array steps) {
  json::object req{{"cmd", "onConnect"}, {"steps", std::move(steps)}};
  if (server) req["server"] = *server;
  return isOk(call(std::move(req)));
}

bool DevServer::push(int server, const std::string& socket, const std::string& event, json::array args) {
  json::object req{{"cmd", "push"}, {"server", server}, {"event", event}, {"args", std::move(args)}};
  setSocket(req, socket);
  return isOk(call(std::move(req)));
}

std::optional<json::array> DevServer::pushWithAck(int server, const std::string& socket,
                                                  const std::string& event, json::array args,
                                                  std::chrono::milliseconds timeout) {
  json::object req{{"cmd", "push"},           {"server", server}, {"event", event},
                   {"args", std::move(args)}, {"ack", true},      {"timeoutMs", timeout.count()}};
  setSocket(req, socket);
  const auto reply = call(std::move(req), timeout + 10s);
  const auto acks = arrayAt(reply, "acks");
  if (acks.empty() || !acks.front().is_object() || !acks.front().get_object().contains("args"))
    return std::nullopt;
  return arrayAt(acks.front().get_object(), "args");
}

bool DevServer::raw(int server, const std::string& socket, json::array frames) {
  json::object req{{"cmd", "raw"}, {"server", server}, {"frames", std::move(frames)}};
  setSocket(req, socket);
  return isOk(call(std::move(req)));
}

bool DevServer::disconnect(int server, const std::string& socket, std::optional<std::string> reason,
                           bool close) {
  json::object req{{"cmd", "disconnect"}, {"server", server}, {"close", close}};
  setSocket(req, socket);
  if (reason) req["reason"] = *reason;
  return isOk(call(std::move(req)));
}

bool DevServer::dropTransport(int server, const std::string& socket) {
  json::object req{{"cmd", "dropTransport"}, {"server", server}};
  setSocket(req, socket);
  return isOk(call(std::move(req)));
}

bool DevServer::stopTavern(int server) {
  return isOk(call({{"cmd", "stopTavern"}, {"server", server}}));
}

std::string DevServer::startTavern(int server) {
  return str(call({{"cmd", "startTavern"}, {"server", server}}), "url");
}

bool DevServer::setSilent(int server, Silence mode) {
  json::value m = nullptr;
  if (mode == Silence::AfterConnect) m = "connected";
  if (mode == Silence::AfterOpen) m = "open";
  return isOk(call({{"cmd", "silent"}, {"server", server}, {"mode", m}}));
}

std::optional<double> DevServer::burst(int server, const std::string& socket, const std::string& event, int n,
                                       int size, std::optional<boost::json::array> args, bool cycle) {
  boost::json::object request{{"cmd", "burst"}, {"server", server}, {"socket", socket},
                              {"event", event}, {"count", n},       {"size", size}, {"cycle", cycle}};
  if (args) request["args"] = std::move(*args);
  const auto reply = call(std::move(request), 10min);
  const auto* ms = reply.if_contains("ms");
  if (!isOk(reply) || !ms || !ms->is_number()) return std::nullopt;
  return ms->to_number<double>();
}

namespace {

std::vector<std::string> stringList(const json::value* v) {
  std::vector<std::string> out;
  if (v && v->is_array()) {
    for (const auto& s : v->get_array()) {
      if (s.is_string()) out.emplace_back(s.get_string());
    }
  }
  return out;
}

std::map<std::string, std::string> stringMap(const json::object& o) {
  std::map<std::string, std::string> out;
  for (const auto& [k, v] : o) {
    if (v.is_string()) out[std::string(k)] = v.get_string();
  }
  return out;
}

ChannelState channelFrom(const json::object& o) {
  return {stringList(o.if_contains("members")), stringList(o.if_contains("away")),
          stringMap(objectAt(o, "attributes"))};
}

UserState userFrom(const json::object& o) {
  return {stringMap(objectAt(o, "attributes")), stringList(o.if_contains("onlineStatusSubscriptions")),
          stringList(o.if_contains("attributeSubscriptions"))};
}

KeptMessage keptFrom(const json::object& o) {
  KeptMessage m{str(o, "fromUserId"), integer(o, "serverReceivedTs"), std::nullopt, std::nullopt};
  const auto content = objectAt(o, "content");
  if (const auto* t = content.if_contains("text"); t && t->is_string()) m.text = std::string(t->get_string());
  if (const auto* b = content.if_contains("binary")) m.binary = bytesFrom(*b);
  return m;
}

}  // namespace

std::map<std::string, AppState> DevServer::model(const std::string& app) {
  json::object req{{"cmd", "model"}};
  if (!app.empty()) req["app"] = app;
  std::map<std::string, AppState> out;
  for (const auto& [id, v] : objectAt(call(std::move(req)), "apps")) {
    if (!v.is_object()) continue;
    const auto& o = v.get_object();
    AppState& a = out[std::string(id)];
    a.online = stringList(o.if_contains("online"));
    for (const auto& [channel, c] : objectAt(o, "channels")) {
      if (c.is_object()) a.channels[std::string(channel)] = channelFrom(c.get_object());
    }
    for (const auto& [user, u] : objectAt(o, "users")) {
      if (u.is_object()) a.users[std::string(user)] = userFrom(u.get_object());
    }
    for (const auto& [user, list] : objectAt(o, "offlineMessages")) {
      if (!list.is_array()) continue;
      auto& kept = a.offlineMessages[std::string(user)];
      for (const auto& m : list.get_array()) {
        if (m.is_object()) kept.push_back(keptFrom(m.get_object()));
      }
    }
  }
  return out;
}

bool DevServer::setRateLimit(int perSecond) {
  return isOk(call({{"cmd", "options"}, {"rateLimit", perSecond}}));
}

bool DevServer::setMemberGrace(std::chrono::milliseconds grace) {
  return isOk(call({{"cmd", "options"}, {"memberGraceMs", grace.count()}}));
}

bool DevServer::scriptDiscovery(const DiscoveryAnswer& answer) {
  return isOk(call(withCommand("scriptDiscovery", answer.fields())));
}

bool DevServer::scriptCollection(const CollectionAnswer& answer) {
  return isOk(call(withCommand("scriptCollection", answer.fields())));
}

std::vector<HttpRequestRecord> DevServer::requests(const std::string& path, bool clear) {
  json::object req{{"cmd", "requests"}, {"clear", clear}};
  if (!path.empty()) req["path"] = path;
  std::vector<HttpRequestRecord> out;
  for (const auto& v : arrayAt(call(std::move(req)), "requests")) {
    if (v.is_object()) out.push_back(requestFrom(v.get_object()));
  }
  return out;
}

std::vector<Upload> DevServer::uploads(bool clear) {
  std::vector<Upload> out;
  for (const auto& v : arrayAt(call({{"cmd", "uploads"}, {"clear", clear}}), "uploads")) {
    if (!v.is_object()) continue;
    const auto& o = v.get_object();
    const auto body = bytesFrom(json::object{{"$base64", str(o, "body")}});
    out.push_back({requestFrom(o), body.value_or(Bytes{})});
  }
  return out;
}

bool DevServer::clear() {
  return isOk(call({{"cmd", "clear"}}));
}

bool DevServer::reset(bool emptyModel) {
  return isOk(call({{"cmd", "reset"}, {"model", emptyModel}}));
}

// ---- PythonServer ----

namespace {

std::vector<std::string> pythonServerArgv(const PythonServerOptions& o) {
  json::object opts{{"pingInterval", o.pingInterval.count()}, {"pingTimeout", o.pingTimeout.count()}};
  return {"/usr/bin/python3", QNBRL_SOURCE_DIR "/devserver/python/server.py", json::serialize(opts)};
}

}  // namespace

PythonServer::PythonServer(PythonServerOptions options)
    : ControlledServer(pythonServerArgv(options), options.stderrPath, options.startTimeout,
                       std::move(options.onError)),
      url_(str(readyLine(), "url")) {}

std::vector<Connection> PythonServer::connections() {
  return connectionsFrom(call({{"cmd", "connections"}}));
}

bool PythonServer::push(const std::string& sid, const std::string& event, json::array args) {
  return isOk(call({{"cmd", "push"}, {"sid", sid}, {"event", event}, {"args", std::move(args)}}));
}

bool PythonServer::disconnect(const std::string& sid) {
  return isOk(call({{"cmd", "disconnect"}, {"sid", sid}}));
}

}  // namespace devserver
