// What a request and a pushed channel message cost through the SDK, each beside the Socket.IO layer
// doing the same work on the wire in the same run:
//   channels.request  setChannel(...) call → completion on a logged-in, joined client, against an
//                     emit-with-ack of the same payload on a raw socket logged in the same way;
//   channels.event    a "ChannelMessageReceived" burst delivered to the channel delegate, against the
//                     same burst handled by a raw socket's event handler.
// and what one item of a many-item event or answer costs, against one channel event (as above)
// delivered in the same rounds:
//   peers.presence    "PeersOnlineStatusChanged" pushes of 100 peers each, every peer a change,
//                     delivered to the client delegate: CPU per peer;
//   peers.fetch       getPeersUserAttributes of 100 users with 3 attributes each, pipelined: CPU per user.
// Client CPU (getrusage, the Node server is a child and not counted) per operation; rounds alternate
// and the ratios are medians. Instruction counts: scripts/bench.sh's callgrind recipe with
// --only channels.request (or channels.event).
#include "benchmarks.hpp"
#include "devserver/dev_server.hpp"
#include "qnbrl/qnbrl.hpp"
#include "socketio/client.hpp"
#include "support/queues.hpp"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <iostream>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace std::chrono_literals;

constexpr int kRequests = 2000;  // pipelined per round
constexpr int kEvents = 20000;   // per burst
constexpr auto kWaitLimit = 60s;
constexpr const char* kAppId = "bench-app";
constexpr double kRequestTarget = 1.15;
constexpr double kEventTarget = 1.2;
constexpr int kPeers = 100;     // per push, and per fetch
constexpr int kPushes = 200;    // per round
constexpr int kFetches = 200;   // pipelined per round

// Counts completions and wakes whoever waits for a number of them.
class Counter {
 public:
  void add(int k = 1) {
    if ((n_ += k) >= target_.load()) {
      std::lock_guard lock(mutex_);
      done_.notify_all();
    }
  }
  void await(int n, const char* what) {
    std::unique_lock lock(mutex_);
    target_ = n;
    if (!done_.wait_for(lock, kWaitLimit, [&] { return n_.load() >= n; }))
      throw std::runtime_error(std::string(what) + ": stalled");
  }
  int count() const { return n_.load(); }

 private:
  std::atomic<int> n_{0}, target_{1 << 30};
  std::mutex mutex_;
  std::condition_variable done_;
};

// The event the service pushes for a channel message: a nested object of about 100 bytes of text.
boost::json::array channelMessage() {
  return {boost::json::object{
      {"from", {{"channelId", "bench-room"}, {"userId", "bench-sender"}}},
      {"serverReceivedTs", 1700000000123.0},
      {"content", {{"text", std::string(100, 'm')}, {"binary", nullptr}}},
  }};
}

// Two pushes about the same peers, all online then all offline: sent in turn, every peer of every push
// is a change.
boost::json::array presencePushes() {
  boost::json::array lists;
  for (int status : {0, 1}) {
    boost::json::object peers;
    for (int i = 0; i < kPeers; ++i) peers["peer-" + std::to_string(i)] = status;
    lists.push_back(boost::json::array{boost::json::object{{"status", std::move(peers)}}});
  }
  return lists;
}

// The answer to a fetch of kPeers users, each with three attributes.
boost::json::array fetchAnswer() {
  boost::json::object users;
  for (int i = 0; i < kPeers; ++i)
    users["peer-" + std::to_string(i)] = {{"result", 0}, {"attributes", {{"k1", "v1"}, {"k2", "v2"}, {"k3", "v3"}}}};
  return {boost::json::object{{"result", 0}, {"attributes", std::move(users)}}};
}

struct Clients {
  devserver::DevServer server;
  std::shared_ptr<qnbrl::QNBRLKit> kit;
  std::shared_ptr<qnbrl::QNBRLChannel> room;
  std::shared_ptr<qnbrl::QNBRLChannelDelegate> listener = std::make_shared<qnbrl::QNBRLChannelDelegate>();
  std::shared_ptr<qnbrl::QNBRLDelegate> kitListener = std::make_shared<qnbrl::QNBRLDelegate>();
  std::unique_ptr<sio::Manager> raw;
  Counter sdkEvents, rawEvents, statusItems;
  std::string sdkSocket, rawSocket;

  static devserver::DevServerOptions options() {
    devserver::DevServerOptions o;
    o.tavern = 1;
    o.tavernTls = 0;
    o.session = true;
    o.record = false;
    return o;
  }

  Clients() : server(options()) {
    if (!server.ready()) throw std::runtime_error("the dev server did not start");
    qnbrl::QNBRLOptions o;
    o.envConfig.apiServer = server.httpUrl();
    o.envConfig.logServer = server.httpUrl();
    kitListener->peersOnlineStatusChanged = [this](auto&, const auto& changes) {
      statusItems.add(static_cast<int>(changes.size()));
    };
    kit = qnbrl::QNBRLKit::create(kAppId, kitListener, o);
    Counter logged;
    kit->loginByToken("0123456789abcdef0123456789abcdef", 1700000000000, "bench-sdk", [&](int) { logged.add(); });
    logged.await(1, "login");
    listener->messageReceived = [this](auto&, auto&, auto&) { sdkEvents.add(); };
    room = kit->createChannelWithId("bench-room", listener);
    Counter joined;
    room->joinWithCompletion([&](int) { joined.add(); });
    joined.await(1, "join");

    // The raw socket logs in with the same query the SDK sends, so the server does the same work.
    sio::Options options;
    options.query = {{"app", "tavern"},
                     {"roomId", kAppId},
                     {"token", R"({"token":"t","userId":"bench-raw","timestamp":1,"connectTimeStamp":1})"}};
    raw = std::make_unique<sio::Manager>(qnbrl::MainQueue::executor(), server.tavernUrls().at(0), options);
    Counter connected;
    raw->socket()->on("loginSuccess", [&](const sio::Payload&, const sio::Responder&) { connected.add(); });
    raw->socket()->on("ChannelMessageReceived", [this](const sio::Payload&, const sio::Responder&) { rawEvents.add(); });
    raw->socket()->connect(6000ms, [] {});
    connected.await(1, "raw login");
    for (const auto& c : server.connections(0, true)) {
      const auto* token = c.query.if_contains("token");
      bool isRaw = token && token->is_string() && token->get_string().find("bench-raw") != std::string::npos;
      (isRaw ? rawSocket : sdkSocket) = c.id;
    }
    if (sdkSocket.empty() || rawSocket.empty()) throw std::runtime_error("the two connections were not found");
  }
  ~Clients() {
    raw.reset();
    room.reset();
    kit.reset();
  }

  double sdkRequests(int n) {
    Counter done;
    const double cpu = cpuSeconds();
    for (int i = 0; i < n; ++i) {
      kit->setChannel("bench-room", {{"k1", "v1"}, {"k2", "v2"}, {"k3", std::to_string(i)}},
                      qnbrl::QNBRLChannelAttributeOptions{}, [&](int) { done.add(); });
    }
    done.await(n, "SDK requests");
    return (cpuSeconds() - cpu) / n;
  }

  double rawRequests(int n) {
    Counter done;
    const double cpu = cpuSeconds();
    for (int i = 0; i < n; ++i) {
      sio::Payload args;
      args.args = {"setChannelAttributes",
                   boost::json::object{{"channelId", "bench-room"},
                                       {"attributes", {{"k1", "v1"}, {"k2", "v2"}, {"k3", std::to_string(i)}}},
                                       {"option", {{"notify", false}}}}};
      raw->socket()->emitWithAck("command", std::move(args), 6000ms, [&](const sio::Payload&) { done.add(); });
    }
    done.await(n, "raw requests");
    return (cpuSeconds() - cpu) / n;
  }

  double events(Counter& counter, const std::string& socket, int n) {
    const int base = counter.count();
    const double cpu = cpuSeconds();
    if (!server.burst(0, socket, "ChannelMessageReceived", n, 0, channelMessage()))
      throw std::runtime_error("the dev server refused the burst");
    counter.await(base + n, "events");
    return (cpuSeconds() - cpu) / n;
  }

  double presenceItems(int pushes) {
    const int base = statusItems.count();
    const double cpu = cpuSeconds();
    if (!server.burst(0, sdkSocket, "PeersOnlineStatusChanged", pushes, 0, presencePushes(), true))
      throw std::runtime_error("the dev server refused the burst");
    statusItems.await(base + pushes * kPeers, "presence");
    return (cpuSeconds() - cpu) / (pushes * kPeers);
  }

  double fetchItems(int fetches) {
    std::vector<std::string> ids;
    for (int i = 0; i < kPeers; ++i) ids.push_back("peer-" + std::to_string(i));
    Counter done;
    std::atomic<bool> complete{true};
    const double cpu = cpuSeconds();
    for (int i = 0; i < fetches; ++i) {
      kit->getPeersUserAttributes(ids, [&](auto users, int) {
        if (!users || users->size() != ids.size()) complete = false;
        done.add();
      });
    }
    done.await(fetches, "fetches");
    if (!complete) throw std::runtime_error("a fetch came back without every user");
    return (cpuSeconds() - cpu) / (fetches * kPeers);
  }
};

void report(std::ostream& out, const char* name, const std::vector<double>& sdk, const std::vector<double>& raw,
            double target, int ops) {
  std::vector<double> ratios;
  for (std::size_t i = 0; i < sdk.size(); ++i) ratios.push_back(sdk[i] / raw[i]);
  const double ratio = median(ratios);
  JsonLine(name)
      .add("ops_per_round", ops)
      .add("rounds", static_cast<int>(sdk.size()))
      .add("sdk_cpu_us_per_op", median(sdk) * 1e6, 2)
      .add("socketio_cpu_us_per_op", median(raw) * 1e6, 2)
      .add("ratio", ratio, 3)
      .add("target_ratio", target, 2)
      .add("pass", ratio <= target)
      .print(out);
}

// One item's CPU beside one channel event's, measured in turn.
void reportItems(std::ostream& out, const char* name, const std::vector<double>& item, const std::vector<double>& event,
                 int items) {
  std::vector<double> ratios;
  for (std::size_t i = 0; i < item.size(); ++i) ratios.push_back(item[i] / event[i]);
  JsonLine(name)
      .add("items_per_round", items)
      .add("rounds", static_cast<int>(item.size()))
      .add("sdk_cpu_us_per_item", median(item) * 1e6, 2)
      .add("sdk_cpu_us_per_channel_event", median(event) * 1e6, 2)
      .add("ratio", median(ratios), 3)
      .print(out);
}

}  // namespace

void runChannelBenchmarks(std::ostream& out) {
  const auto& settings = benchSettings();
  const bool requests = settings.selected("channels.request");
  const bool events = settings.selected("channels.event");
  const bool presence = settings.selected("peers.presence");
  const bool fetch = settings.selected("peers.fetch");
  if (!requests && !events && !presence && !fetch) return;
  Clients clients;
  const int rounds = settings.rounds;
  if (requests) {
    const int n = settings.count(kRequests);
    std::vector<double> sdk, raw;
    clients.sdkRequests(n);  // warm-up
    clients.rawRequests(n);
    for (int r = 0; r < rounds; ++r) {
      sdk.push_back(clients.sdkRequests(n));
      raw.push_back(clients.rawRequests(n));
    }
    report(out, "channels.request", sdk, raw, kRequestTarget, n);
  }
  if (events) {
    const int n = settings.count(kEvents);
    std::vector<double> sdk, raw;
    clients.events(clients.sdkEvents, clients.sdkSocket, n);
    clients.events(clients.rawEvents, clients.rawSocket, n);
    for (int r = 0; r < rounds; ++r) {
      sdk.push_back(clients.events(clients.sdkEvents, clients.sdkSocket, n));
      raw.push_back(clients.events(clients.rawEvents, clients.rawSocket, n));
    }
    report(out, "channels.event", sdk, raw, kEventTarget, n);
  }
  // One item beside one channel event, measured in turn.
  auto compare = [&](const char* name, int items, const std::function<double()>& measure) {
    const int perBurst = settings.count(kEvents);
    std::vector<double> item, event;
    measure();  // warm-up
    for (int r = 0; r < rounds; ++r) {
      item.push_back(measure());
      event.push_back(clients.events(clients.sdkEvents, clients.sdkSocket, perBurst));
    }
    reportItems(out, name, item, event, items);
  };
  if (presence) {
    const int pushes = settings.count(kPushes);
    compare("peers.presence", pushes * kPeers, [&] { return clients.presenceItems(pushes); });
  }
  if (fetch) {
    if (!clients.server.scriptCommand("getPeersUserAttributes", devserver::CommandAnswer().ack(fetchAnswer())))
      throw std::runtime_error("the dev server refused the script");
    const int fetches = settings.count(kFetches);
    compare("peers.fetch", fetches * kPeers, [&] { return clients.fetchItems(fetches); });
  }
}
