#pragma once
// The typed control of the project's servers, each run as a child process:
//
//   DevServer     devserver/src/main.js (Node, socket.io 4): tavern Socket.IO servers (ws, wss and one
//                 silent server), the discovery and collection HTTP(S) endpoints, a raw WebSocket echo
//                 and a black-hole port, all on 127.0.0.1 ephemeral ports.
//   PythonServer  devserver/python/server.py (python-socketio 5): a second, independent Socket.IO peer.
//
// Each prints one JSON ready line on start-up, then answers JSON-line control requests (see
// devserver/README.md for every command). The constructor waits, bounded, for the ready line; the
// destructor stops the process and reaps it. The typed wrappers below cover the common commands;
// `request` sends any other.
//
// Tavern servers are named by an id: the ws servers are 0..tavern-1 (tavernUrls() in order), the wss
// servers follow (tavernTlsId(i)), then the silent server (silentId()). A connection is named by its
// Socket.IO socket id (what the client's "40" reply carries); an empty socket id means every live
// connection of that server.
//
// Binary values inside control JSON are {"$base64": "..."}: build them with bytesValue() and read them
// back with bytesFrom(); they may sit anywhere in an argument list, nested too.
//
// A server that does not start, a refused or unanswered request and a wait that runs out are handed to
// the options' onError with the reason, and the call returns an empty result (false, nullopt or an
// empty list), so the caller goes on and can tell what went wrong. Waits are bounded.
//
// TLS: the servers use tests/data/tls/server.pem, signed by tests/data/tls/ca.pem (point SSL_CERT_FILE
// at testCaFile() to trust it); DevServerOptions::untrustedCert serves a certificate of another CA.
#include "devserver/control_channel.hpp"

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/value.hpp>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace devserver {

using Bytes = std::vector<std::uint8_t>;

// {"$base64": "..."} for the control JSON.
boost::json::value bytesValue(const Bytes& bytes);
// The bytes of a {"$base64": "..."} value; nullopt for anything else.
std::optional<Bytes> bytesFrom(const boost::json::value& value);

// The CA that signs the servers' certificates, tests/data/tls/ca.pem (an absolute path).
std::string testCaFile();

// Receives the reason of each failure (see above); empty: the reason goes to stderr. It runs on the
// calling thread, with no lock held, and may throw to abort the call.
using ErrorHook = std::function<void(const std::string& reason)>;

struct DevServerOptions {
  int tavern = 2;     // plain ws tavern servers
  int tavernTls = 1;  // wss tavern servers
  std::chrono::milliseconds pingInterval{25000};
  std::chrono::milliseconds pingTimeout{20000};
  bool perMessageDeflate = false;
  std::int64_t maxHttpBufferSize = 1000000;  // also the open packet's maxPayload
  bool untrustedCert = false;                // every TLS listener serves the untrusted CA's certificate
  bool wrongHostCert = false;                // ... or one of the trusted CA for another host name
  bool session = false;                      // tavern servers check logins (scriptLogin, logins)
  bool record = true;                        // keep events, commands and requests (off for floods)
  bool verbose = false;                      // connection and event log on stderr
  std::string stderrPath;                    // empty: inherit this process's stderr
  std::string directory;                     // the dev server's devserver/ folder; empty: this source tree's
  std::chrono::milliseconds startTimeout{20000};
  // The service model (for accepted logins): how long a channel member whose connections are all gone
  // stays a member, and commands per second per connection before "Too Many Requests" (0: no limit).
  std::chrono::milliseconds memberGrace{30000};
  int rateLimit = 0;
  ErrorHook onError;
};

struct Event {
  std::string name;
  boost::json::array args;  // binary as {"$base64": ...}
  bool ack = false;         // the client asked for an acknowledgement
};

struct Connection {
  std::string id;   // Socket.IO socket id
  std::string sid;  // Engine.IO session id
  bool connected = false;
  std::string disconnectReason;  // the server's view: "ping timeout", "transport close", ...
  boost::json::object query;     // handshake query (EIO and transport included)
  boost::json::object headers;   // upgrade request headers, lower-case names
  std::string extensions;        // negotiated WebSocket extensions ("permessage-deflate" or "")
  bool deflate = false;          // permessage-deflate really agreed
  std::uint64_t bytesRead = 0;   // bytes read on the server's TCP socket so far
  std::uint64_t bytesWritten = 0;
  std::vector<Event> events;  // every event received, in order
};

struct CommandRecord {
  int server = -1;
  std::string socket;
  std::string name;
  boost::json::value payload;
  bool ack = false;
};

struct HttpRequestRecord {
  std::string method;
  std::string path;
  std::string rawQuery;  // as sent, not decoded
  boost::json::object query;
  boost::json::object headers;  // lower-case names
  bool tls = false;
};

struct Upload {
  HttpRequestRecord request;
  Bytes body;
};

// Scripted answers share two modifiers: after() delays the answer, times(n) limits it to the next n
// requests (it then falls back to the standing answer); without times() the answer stands.
template <class Self>
class ScriptedAnswer {
 public:
  Self& after(std::chrono::milliseconds delay) { return set("delayMs", delay.count()); }
  Self& times(int n) { return set("times", n); }
  const boost::json::object& fields() const { return fields_; }

 protected:
  Self& set(std::string_view key, boost::json::value value) {
    fields_[key] = std::move(value);
    return static_cast<Self&>(*this);
  }

 private:
  boost::json::object fields_;
};

// The answer to "command" requests: CommandAnswer().result(5).times(1). after() alone: the service
// model answers, late (its change is made at once).
class CommandAnswer : public ScriptedAnswer<CommandAnswer> {
 public:
  CommandAnswer& ack(boost::json::array args) { return set("ack", std::move(args)); }  // exactly these
  CommandAnswer& result(int code) { return set("result", code); }                      // [{"result": code}]
  CommandAnswer& none() { return set("noAnswer", true); }                              // never acknowledged
};

// How the next logins are answered (DevServerOptions::session): refused with `fail`, never answered
// (`silent`) or accepted after `delay`; on `server` only, else on every server; for the next `times`
// logins (0: until reset). Give exactly one of fail, silent and delay.
struct LoginScript {
  std::optional<int> server;
  std::string fail;  // "loginFail: AuthFail", ...
  bool silent = false;
  std::optional<std::chrono::milliseconds> delay;
  int times = 0;
};

// One login decision. Fields the query did not carry (a refused login) are empty or 0.
struct Login {
  int server = -1;
  std::string socket;  // Socket.IO socket id
  std::string roomId, userId;
  std::string token;  // the inner token text
  std::int64_t timestamp = 0, connectTimeStamp = 0;
  std::string result;  // "loginSuccess", the refusal text ("loginFail: ...") or "silent"
};

// The discovery answer. Default: {"code":200,"data":{"tavernServers":[the ws tavern URLs]}};
// each call replaces one part: DiscoveryAnswer().code(500), DiscoveryAnswer().data({}).
class DiscoveryAnswer : public ScriptedAnswer<DiscoveryAnswer> {
 public:
  DiscoveryAnswer& servers(const std::vector<std::string>& urls);
  DiscoveryAnswer& code(int code) { return set("code", code); }
  DiscoveryAnswer& data(boost::json::value data) { return set("data", std::move(data)); }
  DiscoveryAnswer& body(std::string raw) {
    return set("body", boost::json::string(raw));
  }  // sent as is (bad JSON...)
  DiscoveryAnswer& status(int http) { return set("status", http); }
  DiscoveryAnswer& refuse() { return set("refuse", true); }  // close the connection, no answer
};

// The collection answer. Default: 204.
class CollectionAnswer : public ScriptedAnswer<CollectionAnswer> {
 public:
  CollectionAnswer& status(int http) { return set("status", http); }
  CollectionAnswer& stall() { return set("stall", true); }  // never answer
};

// The service model's state of one app (a login's roomId), as the control command "model" gives it.
struct ChannelState {
  std::vector<std::string> members;  // user ids, in joining order
  std::vector<std::string> away;     // members whose connections are gone, within the grace period
  std::map<std::string, std::string> attributes;
};

struct KeptMessage {  // a peer message kept for an offline target
  std::string fromUserId;
  std::int64_t serverReceivedTs = 0;
  std::optional<std::string> text;
  std::optional<Bytes> binary;
};

struct UserState {  // a user the service knows (has attributes or subscriptions)
  std::map<std::string, std::string> attributes;
  std::vector<std::string> onlineStatusSubscriptions;  // peers, sorted
  std::vector<std::string> attributeSubscriptions;     // peers, sorted
  bool operator==(const UserState&) const = default;
};

struct AppState {
  std::vector<std::string> online;  // users with a live accepted login
  std::map<std::string, ChannelState> channels;
  std::map<std::string, std::vector<KeptMessage>> offlineMessages;  // by target user, oldest first
  std::map<std::string, UserState> users;
};

enum class Silence {
  Off,           // serve new connections normally (connections already silenced stay so)
  AfterConnect,  // open packet and "40{sid}" reply, then nothing: the client's ping time-out must fire
  AfterOpen,     // open packet only; the connect reply never comes: the client's connect time-out must fire
};

// What both servers share: the process, its control channel, and where failures go.
class ControlledServer {
 public:
  ControlledServer(const ControlledServer&) = delete;
  ControlledServer& operator=(const ControlledServer&) = delete;

  bool ready() const { return channel_.ready(); }
  pid_t pid() const { return channel_.pid(); }
  const boost::json::object& readyLine() const { return channel_.readyLine(); }
  // Ends the server process now (the destructor does it too); its wait status.
  int stop() { return channel_.stop(); }

  // Any control request (see devserver/README.md), answered with "ok" and, when false, "error"; a
  // refusal is the caller's to judge, so it does not reach onError.
  boost::json::object request(boost::json::object req,
                              std::chrono::milliseconds timeout = std::chrono::seconds(10));

 protected:
  // Starts argv; a start that fails goes to onError.
  ControlledServer(const std::vector<std::string>& argv, const std::string& stderrPath,
                   std::chrono::milliseconds startTimeout, ErrorHook onError);
  ~ControlledServer() = default;
  // request(), with a reply that is not ok handed to onError.
  boost::json::object call(boost::json::object req,
                           std::chrono::milliseconds timeout = std::chrono::seconds(10));
  void fail(const std::string& reason) const;

 private:
  ErrorHook onError_;
  ControlChannel channel_;
};

class DevServer : public ControlledServer {
 public:
  explicit DevServer(DevServerOptions options = {});

  // Listener URLs from the ready line (a restarted tavern server may move: startTavern gives its URL).
  const std::vector<std::string>& tavernUrls() const { return tavernUrls_; }        // http://127.0.0.1:p
  const std::vector<std::string>& tavernTlsUrls() const { return tavernTlsUrls_; }  // https://127.0.0.1:p
  int tavernTlsId(std::size_t i) const { return static_cast<int>(tavernUrls_.size() + i); }
  const std::string& silentUrl() const { return silentUrl_; }
  int silentId() const { return silentId_; }
  const std::string& httpUrl() const { return httpUrl_; }    // discovery and collection, plain
  const std::string& httpsUrl() const { return httpsUrl_; }  // the same over TLS
  const std::string& echoUrl() const { return echoUrl_; }    // ws://127.0.0.1:p/echo
  const std::string& echoTlsUrl() const { return echoTlsUrl_; }
  const std::string& blackholeUrl() const { return blackholeUrl_; }
  // A WebSocket server that sends "40{sid}" before (instead of) the open packet, then nothing.
  const std::string& hostileUrl() const { return hostileUrl_; }

  // Connections of one tavern server, oldest first.
  std::vector<Connection> connections(int server, bool connectedOnly = false);
  // Waits until the server has at least `count` live connections; returns the newest live one.
  std::optional<Connection> awaitConnection(int server, std::size_t count = 1,
                                            std::chrono::milliseconds limit = std::chrono::seconds(10));

  bool scriptCommand(const std::string& name, const CommandAnswer& answer);  // name "*": any command
  std::vector<CommandRecord> commands(bool clear = false);  // every "command" received, all servers

  // Scripts apply in the order given: the first one that applies to the server answers.
  bool scriptLogin(const LoginScript& script);
  std::vector<Login> logins(bool clear = false);  // every login decision, all servers, oldest first
  // Waits until at least `count` logins are decided; returns them all (empty on time-out).
  std::vector<Login> awaitLogins(std::size_t count,
                                 std::chrono::milliseconds limit = std::chrono::seconds(10));

  // Steps run on every new connection of `server` (every server when nullopt), in order:
  // {"emit": name, "args": [...]} or {"disconnect": true, "reason"?: text, "close"?: bool}.
  bool onConnect(std::optional<int> server, boost::json::array steps);

  bool push(int server, const std::string& socket, const std::string& event, boost::json::array args);
  // Pushes asking for an acknowledgement; its arguments (the first connection's when `socket` is empty),
  // or nullopt when none came within `timeout`.
  std::optional<boost::json::array> pushWithAck(int server, const std::string& socket,
                                                const std::string& event, boost::json::array args,
                                                std::chrono::milliseconds timeout);
  // WebSocket frames sent as they are, bypassing Socket.IO: strings as text, bytesValue() as binary.
  bool raw(int server, const std::string& socket, boost::json::array frames);
  // Server-side disconnect ("41"), after "disconnectReason" with `reason` when given; close: also close
  // the connection (disconnect(true)).
  bool disconnect(int server, const std::string& socket, std::optional<std::string> reason = {},
                  bool close = false);
  bool dropTransport(int server, const std::string& socket);  // TCP cut, no close frame
  bool stopTavern(int server);                                // every connection closed, port closed
  std::string startTavern(int server);                        // same port when free; its URL, "" on failure
  bool setSilent(int server, Silence mode);
  // Emits `count` events of `size` characters to one connection as fast as possible; the server's
  // time to hand them over, in ms.
  // Each event carries `args` when given, else one string of `size` bytes. With `cycle`, `args` is a
  // list of argument lists that the events carry in turn.
  std::optional<double> burst(int server, const std::string& socket, const std::string& event, int count,
                              int size, std::optional<boost::json::array> args = std::nullopt, bool cycle = false);

  // The service model, by app id (one app only when `app` is given); reset() empties it.
  std::map<std::string, AppState> model(const std::string& app = {});
  // Change the model's options while it runs; reset() restores the start-up values.
  bool setRateLimit(int perSecond);  // 0: no limit
  bool setMemberGrace(std::chrono::milliseconds grace);

  bool scriptDiscovery(const DiscoveryAnswer& answer);
  bool scriptCollection(const CollectionAnswer& answer);
  // HTTP(S) requests received, all or those of one path.
  std::vector<HttpRequestRecord> requests(const std::string& path = {}, bool clear = false);
  std::vector<HttpRequestRecord> discoveryRequests() { return requests("/config/api/v1/brl-server"); }
  std::vector<Upload> uploads(bool clear = false);  // collection bodies as received

  bool clear();  // forget recorded events, commands, logins, requests and uploads
  // clear(), drop every script, silence off, restart stopped servers, empty the model (unless
  // `emptyModel` is false: the service's state stays, only the faults go), options as started
  bool reset(bool emptyModel = true);

 private:
  std::vector<std::string> tavernUrls_, tavernTlsUrls_;
  std::string silentUrl_, httpUrl_, httpsUrl_, echoUrl_, echoTlsUrl_, blackholeUrl_, hostileUrl_;
  int silentId_ = -1;
};

struct PythonServerOptions {
  std::chrono::milliseconds pingInterval{25000};
  std::chrono::milliseconds pingTimeout{20000};
  std::string stderrPath;  // empty: inherit this process's stderr
  std::chrono::milliseconds startTimeout{20000};
  ErrorHook onError;
};

// python-socketio acknowledges "command" with [{"result":0}] and "echo" with its own arguments.
class PythonServer : public ControlledServer {
 public:
  explicit PythonServer(PythonServerOptions options = {});

  const std::string& url() const { return url_; }  // http://127.0.0.1:p
  // Fills id, connected, query and events (the "command" and "echo" events) of each connection.
  std::vector<Connection> connections();
  bool push(const std::string& sid, const std::string& event, boost::json::array args);
  bool disconnect(const std::string& sid);

 private:
  std::string url_;
};

}  // namespace devserver
