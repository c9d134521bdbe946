#include "support/devserver.hpp"

#include "support/wait.hpp"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

extern char** environ;

namespace testing_support {
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
// ---- ChildProcess ----

namespace {

// Keeps our descriptors off 0..2, so that dup2 onto the child's standard streams always clears
// close-on-exec even when the test runs without a standard input.
int aboveStdio(int fd) {
  if (fd < 0 || fd > 2) return fd;
  const int moved = fcntl(fd, F_DUPFD_CLOEXEC, 3);
  close(fd);
  return moved;
}

void closeFd(int& fd) {
  if (fd >= 0) close(fd);
  fd = -1;
}

// Waits up to `limit` for the child to exit, without reaping it. Without pidfd support (Linux < 5.3) it
// reports false at once, and the caller goes straight to SIGKILL.
bool waitExit(pid_t pid, std::chrono::milliseconds limit) {
  const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  if (pidfd < 0) return false;
  pollfd p{pidfd, POLLIN, 0};
  int rc;
  do {
    rc = poll(&p, 1, static_cast<int>(limit.count()));
  } while (rc < 0 && errno == EINTR);
  close(pidfd);
  return rc > 0;
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& argv, LineHandler onLine, EndHandler onEnd,
                           const std::string& stderrPath) {
  if (argv.empty()) return;
  // stdin is a socket so that writing to a child that has gone fails with EPIPE (MSG_NOSIGNAL) instead
  // of raising SIGPIPE in the test process.
  int in[2];
  int out[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, in) != 0) return;
  if (pipe2(out, O_CLOEXEC) != 0) {
    close(in[0]);
    close(in[1]);
    return;
  }
  for (int* fd : {&in[0], &in[1], &out[0], &out[1]}) *fd = aboveStdio(*fd);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[1], 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  if (!stderrPath.empty()) {
    posix_spawn_file_actions_addopen(&actions, 2, stderrPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  }
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = -1;
  const int rc = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(in[1]);
  close(out[1]);
  if (rc != 0) {
    ADD_FAILURE() << "cannot start " << argv[0] << ": " << std::strerror(rc);
    close(in[0]);
    close(out[0]);
    return;
  }
  pid_ = pid;
  stdinFd_ = in[0];
  stdoutFd_ = out[0];
  reader_ =
      std::thread([this, onLine = std::move(onLine), onEnd = std::move(onEnd)] { readLoop(onLine, onEnd); });
}

ChildProcess::~ChildProcess() {
  stop();
}

void ChildProcess::readLoop(LineHandler onLine, EndHandler onEnd) {
  std::string pending;
  char buf[65536];
  for (;;) {
    const ssize_t n = read(stdoutFd_, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    pending.append(buf, static_cast<std::size_t>(n));
    std::size_t start = 0;
    for (std::size_t nl; (nl = pending.find('\n', start)) != std::string::npos; start = nl + 1) {
      onLine(pending.substr(start, nl - start));
    }
    pending.erase(0, start);
  }
  if (!pending.empty()) onLine(std::move(pending));
  onEnd();
}

bool ChildProcess::writeLine(std::string_view line) {
  std::string data(line);
  data.push_back('\n');
  std::lock_guard lock(writeMutex_);
  std::size_t done = 0;
  while (done < data.size()) {
    if (stdinFd_ < 0) return false;
    const ssize_t n = send(stdinFd_, data.data() + done, data.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

int ChildProcess::stop(std::chrono::milliseconds grace) {
  std::lock_guard stopLock(stopMutex_);
  if (pid_ <= 0 || reaped_) return status_;
  {
    std::lock_guard lock(writeMutex_);
    closeFd(stdinFd_);
  }
  kill(pid_, SIGTERM);
  if (!waitExit(pid_, grace)) kill(pid_, SIGKILL);
  int status = 0;
  while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  status_ = status;
  reaped_ = true;
  if (reader_.joinable()) reader_.join();
  closeFd(stdoutFd_);
  return status_;
}

// ---- ControlledProcess ----

ControlledProcess::ControlledProcess(const std::vector<std::string>& argv, const std::string& stderrPath,
                                     std::chrono::milliseconds readyTimeout) {
  child_ = std::make_unique<ChildProcess>(
      argv, [this](std::string line) { onLine(std::move(line)); }, [this] { onEnd(); }, stderrPath);
  if (!child_->started()) return;
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, readyTimeout, [&] { return pendingReady_.has_value() || ended_; });
  if (pendingReady_) {
    readyLine_ = std::move(*pendingReady_);
    ready_ = true;
  } else {
    ADD_FAILURE() << argv.back() << ": no ready line" << (ended_ ? " (the process exited)" : " in time");
  }
}

ControlledProcess::~ControlledProcess() {
  child_->stop();
}

void ControlledProcess::onLine(std::string line) {
  boost::system::error_code ec;
  json::value v = json::parse(line, ec);
  json::object* obj = ec ? nullptr : v.if_object();
  if (!obj) {
    std::fprintf(stderr, "[fixture] unexpected output: %s\n", line.c_str());
    return;
  }
  std::lock_guard lock(mutex_);
  if (const auto* r = obj->if_contains("ready"); r && r->is_bool() && r->get_bool()) {
    pendingReady_ = std::move(*obj);
  } else if (const auto* id = obj->if_contains("id"); id && id->is_int64()) {
    replies_[id->get_int64()] = std::move(*obj);
  } else {
    std::fprintf(stderr, "[fixture] reply without id: %s\n", line.c_str());
    return;
  }
  changed_.notify_all();
}

void ControlledProcess::onEnd() {
  std::lock_guard lock(mutex_);
  ended_ = true;
  changed_.notify_all();
}

json::object ControlledProcess::request(json::object req, std::chrono::milliseconds timeout) {
  std::int64_t id;
  {
    std::lock_guard lock(mutex_);
    id = nextId_++;
  }
  req["id"] = id;
  auto failure = [&](const char* why) { return json::object{{"id", id}, {"ok", false}, {"error", why}}; };
  if (!child_->writeLine(json::serialize(req))) return failure("the server is not running");
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, timeout, [&] { return replies_.count(id) != 0 || ended_; });
  auto it = replies_.find(id);
  if (it == replies_.end()) return failure(ended_ ? "the server exited" : "no reply in time");
  json::object reply = std::move(it->second);
  replies_.erase(it);
  return reply;
}

json::object ControlledProcess::call(json::object req, std::chrono::milliseconds timeout) {
  const std::string cmd = req.contains("cmd") ? json::serialize(req.at("cmd")) : "?";
  json::object reply = request(std::move(req), timeout);
  if (const auto* ok = reply.if_contains("ok"); !ok || !ok->is_bool() || !ok->get_bool()) {
    const auto* err = reply.if_contains("error");
    ADD_FAILURE() << "control request " << cmd << " failed: " << (err ? json::serialize(*err) : "?");
  }
  return reply;
}

// ---- reading replies ----

namespace {

bool isOk(const json::object& reply) {
  const auto* ok = reply.if_contains("ok");
  return ok && ok->is_bool() && ok->get_bool();
}

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

// ---- DevServer ----

namespace {

std::vector<std::string> devServerArgv(const DevServerOptions& o) {
  json::object opts{
      {"tavern", o.tavern},
      {"tavernTls", o.tavernTls},
      {"pingInterval", o.pingInterval.count()},
      {"pingTimeout", o.pingTimeout.count()},
      {"perMessageDeflate", o.perMessageDeflate},
      {"maxHttpBufferSize", o.maxHttpBufferSize},
      {"cert", o.untrustedCert ? "untrusted" : o.wrongHostCert ? "wronghost" : "trusted"},
      {"session", o.session},
      {"record", o.record},
      {"verbose", o.verbose},
  };
  return {"node", QNBRL_SOURCE_DIR "/devserver/src/main.js", json::serialize(opts)};
}

}  // namespace

DevServer::DevServer(DevServerOptions options)
    : process_(devServerArgv(options), options.stderrPath, options.startTimeout) {
  const auto& r = process_.readyLine();
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
}

DevServer::~DevServer() = default;

json::object DevServer::request(json::object req, std::chrono::milliseconds timeout) {
  return process_.request(std::move(req), timeout);
}

json::object DevServer::call(json::object req, std::chrono::milliseconds timeout) {
  return process_.call(std::move(req), timeout);
}

std::vector<Connection> DevServer::connections(int server, bool connectedOnly) {
  return connectionsFrom(
      call({{"cmd", "connections"}, {"server", server}, {"connectedOnly", connectedOnly}}));
}

std::optional<Connection> DevServer::awaitConnection(int server, std::size_t wanted,
                                                     std::chrono::milliseconds limit) {
  std::vector<Connection> live;
  if (waitUntil([&] { return (live = connections(server, true)).size() >= wanted; }, limit)) {
    return std::move(live.back());
  }
  ADD_FAILURE() << "tavern " << server << ": fewer than " << wanted << " live connections";
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
  if (waitUntil([&] { return (all = logins()).size() >= wanted; }, limit)) return all;
  ADD_FAILURE() << "fewer than " << wanted << " logins";
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
                                       int size) {
  const auto reply = call({{"cmd", "burst"},
                           {"server", server},
                           {"socket", socket},
                           {"event", event},
                           {"count", n},
                           {"size", size}},
                          10min);
  const auto* ms = reply.if_contains("ms");
  if (!isOk(reply) || !ms || !ms->is_number()) return std::nullopt;
  return ms->to_number<double>();
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

bool DevServer::reset() {
  return isOk(call({{"cmd", "reset"}}));
}

// ---- PythonServer ----

namespace {

std::vector<std::string> pythonServerArgv(const PythonServerOptions& o) {
  json::object opts{{"pingInterval", o.pingInterval.count()}, {"pingTimeout", o.pingTimeout.count()}};
  return {"/usr/bin/python3", QNBRL_SOURCE_DIR "/devserver/python/server.py", json::serialize(opts)};
}

}  // namespace

PythonServer::PythonServer(PythonServerOptions options)
    : process_(pythonServerArgv(options), options.stderrPath, options.startTimeout),
      url_(str(process_.readyLine(), "url")) {}

PythonServer::~PythonServer() = default;

json::object PythonServer::request(json::object req, std::chrono::milliseconds timeout) {
  return process_.request(std::move(req), timeout);
}

std::vector<Connection> PythonServer::connections() {
  return connectionsFrom(process_.call({{"cmd", "connections"}}, 10s));
}

bool PythonServer::push(const std::string& sid, const std::string& event, json::array args) {
  return isOk(
      process_.call({{"cmd", "push"}, {"sid", sid}, {"event", event}, {"args", std::move(args)}}, 10s));
}

bool PythonServer::disconnect(const std::string& sid) {
  return isOk(process_.call({{"cmd", "disconnect"}, {"sid", sid}}, 10s));
}

}  // namespace testing_support
