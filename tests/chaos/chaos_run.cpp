// A seeded chaos run of the whole client against the dev server: twenty clients, each its own user,
// use every feature at random through the public API while faults are injected through the server's
// control interface. Once the faults stop and every client is back, each client's view must equal the
// service's, every request completion must have run exactly once, no callback may have begun after its
// client was released, and threads and descriptors must be back where they were.
//
//   qnbrl_chaos [--seed N] [--faults N] [--clients N] [--fault-ms N] [--op-ms N]
//
// The random choices of the operations and of the faults come from two generators seeded by --seed, so
// a run can be replayed as far as the network's timing allows. Time inside the library runs four times
// faster than the wall clock (the clock seam), so time-outs and reconnection pauses come quickly.
#include "client/kit_impl.hpp"
#include "devserver/dev_server.hpp"
#include "qnbrl/qnbrl.hpp"
#include "socketio/clock.hpp"
#include "support/queues.hpp"

#include <boost/json/serialize.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

using namespace std::chrono_literals;
namespace json = boost::json;
using namespace qnbrl;

namespace {

constexpr int kScale = 4;    // library time runs this much faster than the wall clock
constexpr int kServers = 3;  // ws tavern servers
constexpr int kDrivers = 2;  // application threads
constexpr const char* kApp = "chaos";

// The steady clock, with every delay divided by kScale and `now` moving kScale times as fast.
class FastClock : public sio::Clock {
 public:
  explicit FastClock(sio::Clock& steady) : steady_(steady), start_(steady.now()) {}
  time_point now() const override { return start_ + (steady_.now() - start_) * kScale; }
  sio::TimerPtr schedule(boost::asio::any_io_executor ex, duration delay, std::function<void()> fn) override {
    return steady_.schedule(std::move(ex), delay / kScale, std::move(fn));
  }

 private:
  sio::Clock& steady_;
  const time_point start_;
};

// Bounded polling of a condition (the network gives nothing to wait on).
bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(5ms);
  }
  return true;
}

std::size_t entries(const char* dir) {
  std::error_code ec;
  return static_cast<std::size_t>(
      std::distance(std::filesystem::directory_iterator(dir, ec), std::filesystem::directory_iterator()));
}

// Failures found by the run, each described once in the output.
class Failures {
 public:
  void add(const std::string& what) {
    std::lock_guard lock(mutex_);
    if (all_.size() < 50) std::cerr << "FAILURE: " << what << "\n";
    all_.push_back(what);
  }
  std::size_t count() const {
    std::lock_guard lock(mutex_);
    return all_.size();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> all_;
};
Failures failures;

// What one incarnation of a client shares with its callbacks, which may outlive it.
struct Life {
  std::string user;
  std::atomic<bool> released{false};
  std::atomic<int> state{1};
  std::atomic<int> logins{0};  // successful logins and reconnections
  std::mutex mutex;            // guards the two below
  std::vector<std::shared_ptr<QNBRLInvitation>> arrived;
  std::string changes;  // the connection states told: "state/reason ..."

  // After the application's release has returned. The library decides to deliver and then delivers,
  // in one task of its main queue: a callback decided just before the release may still be starting
  // (one already running may finish), so the mark waits for the main queue's current task.
  void markReleased() {
    MainQueue::sync([] {});
    released = true;
  }
  // A delegate callback or login completion is beginning: not allowed once the release has returned.
  void begin(const char* what) {
    if (released) failures.add(user + ": " + what + " began after the client was released");
  }
};

// Every request's completions, counted: each must run exactly once; a message over the size limit is
// told so at once and then completes with the outcome, twice by design; the completion of a login or
// a logout of a client released before it came never runs.
class Ledger {
 public:
  // A completion callback for request `op`; `oversize`: a body over the size limit, told with `sizeCode`.
  std::function<void(int)> track(std::string op, bool oversize = false, int sizeCode = -1) {
    return add({std::move(op), oversize ? sizeCode : -1, nullptr, 0, -1});
  }
  // A login or logout: its completion never runs for a client released before it came.
  std::function<void(int)> trackSession(const char* op, const std::shared_ptr<Life>& life) {
    return add({op + (" " + life->user), -1, life, 0, -1});
  }
  std::size_t outstanding() const {
    std::lock_guard lock(mutex_);
    return static_cast<std::size_t>(std::count_if(entries_.begin(), entries_.end(), [](const Entry& e) {
      return e.runs < e.expected() && !e.mayBeMissing();
    }));
  }
  std::size_t requests() const {
    std::lock_guard lock(mutex_);
    return entries_.size();
  }
  std::size_t completions() const {
    std::lock_guard lock(mutex_);
    std::size_t n = 0;
    for (const auto& e : entries_) n += static_cast<std::size_t>(e.runs);
    return n;
  }
  void reportMissing() const {
    std::lock_guard lock(mutex_);
    for (const auto& e : entries_) {
      if (e.runs != e.expected() && !e.mayBeMissing())
        failures.add(e.op + " completed " + std::to_string(e.runs) + " times, expected " +
                     std::to_string(e.expected()));
    }
  }

 private:
  struct Entry {
    std::string op;
    int sizeCode;                   // -1: not oversize
    std::shared_ptr<Life> session;  // the client of a login or logout
    int runs = 0;
    int firstCode = -1;
    int expected() const { return sizeCode >= 0 && firstCode == sizeCode ? 2 : 1; }
    bool mayBeMissing() const { return runs == 0 && session && session->released; }
  };
  std::function<void(int)> add(Entry entry) {
    std::lock_guard lock(mutex_);
    entries_.push_back(std::move(entry));
    return [this, id = entries_.size() - 1](int code) { ran(id, code); };
  }
  void ran(std::size_t id, int code) {
    std::lock_guard lock(mutex_);
    auto& e = entries_[id];
    if (e.runs++ == 0) e.firstCode = code;
    if (e.runs > e.expected())
      failures.add(e.op + " completed again (run " + std::to_string(e.runs) + ", code " +
                   std::to_string(code) + ")");
  }

  mutable std::mutex mutex_;
  std::vector<Entry> entries_;
};
Ledger ledger;

std::atomic<long> delegateCalls{0};
std::atomic<long> operations{0};  // calls of the public API that start a request

struct Client {
  std::string user;
  std::shared_ptr<Life> life;
  std::shared_ptr<QNBRLKit> kit;
  std::shared_ptr<QNBRLDelegate> delegate;
  std::shared_ptr<QNBRLChannelDelegate> channelDelegate;
  std::shared_ptr<QNBRLInvitationDelegate> invitationDelegate;
  std::shared_ptr<QNBRLInvitationKit> invitations;
  std::map<std::string, std::shared_ptr<QNBRLChannel>> channels;
  std::vector<std::shared_ptr<QNBRLInvitation>> sent;
};

const std::vector<std::string> kChannels = {"ch0", "ch1", "ch2", "ch3", "ch4", "ch5"};
const std::vector<std::string> kKeys = {"k0", "k1", "k2", "k3", "k4", "k5", "k6", "k7"};
const std::vector<std::string> kCommands = {"join",
                                            "leave",
                                            "channelHeartbeat",
                                            "sendChannelMessage",
                                            "getChannelMembers",
                                            "getChannelMemberCount",
                                            "setChannelAttributes",
                                            "addOrUpdateChannelAttributes",
                                            "deleteChannelAttributesByKeys",
                                            "clearChannelAttributes",
                                            "getChannelAttributes",
                                            "getChannelAttributesByKeys",
                                            "sendMessageToPeer",
                                            "invitationOp",
                                            "setLocalUserAttributes",
                                            "addOrUpdateLocalUserAttributes",
                                            "deleteLocalUserAttributesByKeys",
                                            "clearLocalUserAttributes",
                                            "getUserAttributes",
                                            "getUserAttributesByKeys",
                                            "getPeersUserAttributes",
                                            "getPeersUserAttributesByKeys",
                                            "subscribePeersUserAttributes",
                                            "unsubscribePeersUserAttributes",
                                            "subscribePeersOnlineStatus",
                                            "unsubscribePeersOnlineStatus",
                                            "queryPeersOnlineStatus",
                                            "queryPeersBySubscriptionOption",
                                            "*"};

class Random {
 public:
  explicit Random(std::uint64_t seed) : engine_(seed) {}
  int below(int n) { return std::uniform_int_distribution<int>(0, n - 1)(engine_); }
  // A generator of its own for one step, so that what the network decides within a step (how many
  // choices it takes) leaves the later steps' choices unchanged.
  Random step() { return Random(engine_()); }
  bool chance(int percent) { return below(100) < percent; }
  template <class T>
  const T& pick(const std::vector<T>& list) {
    return list[static_cast<std::size_t>(below(static_cast<int>(list.size())))];
  }
  template <class T>
  std::vector<T> some(const std::vector<T>& list, int most) {
    std::vector<T> out;
    for (int i = 1 + below(most); i > 0; --i) out.push_back(pick(list));
    return out;
  }

 private:
  std::mt19937_64 engine_;
};

class Harness {
 public:
  Harness(devserver::DevServer& server, int clients) : server_(server) {
    for (int i = 0; i < clients; ++i) users_.push_back("user" + std::to_string(i));
    clients_.resize(users_.size());
  }

  void create(Client& c, const std::string& user) {
    c = Client{};
    c.user = user;
    c.life = std::make_shared<Life>();
    c.life->user = user;
    c.delegate = std::make_shared<QNBRLDelegate>();
    auto life = c.life;
    c.delegate->connectionStateChanged = [life](QNBRLKit&, QNBRLConnectionState s,
                                                QNBRLConnectionChangeReason r) {
      life->begin("connectionStateChanged");
      life->state = static_cast<int>(s);
      std::lock_guard lock(life->mutex);
      life->changes += std::to_string(static_cast<int>(s)) + "/" + std::to_string(static_cast<int>(r)) + " ";
      if (s == QNBRLConnectionState::Connected && r == QNBRLConnectionChangeReason::LoginSucceeded)
        ++life->logins;
    };
    c.delegate->tokenDidExpire = [life](QNBRLKit&) { life->begin("tokenDidExpire"); };
    c.delegate->messageReceived = [life](QNBRLKit&, const std::shared_ptr<QNBRLMessage>&,
                                         const std::string&) {
      life->begin("messageReceived");
      ++delegateCalls;
    };
    c.delegate->peersOnlineStatusChanged = [life](QNBRLKit&, const std::vector<QNBRLPeerOnlineStatus>&) {
      life->begin("peersOnlineStatusChanged");
      ++delegateCalls;
    };
    c.delegate->peersUserAttributesChanged = [life](QNBRLKit&, const std::vector<QNBRLUserAttributes>&) {
      life->begin("peersUserAttributesChanged");
      ++delegateCalls;
    };
    c.channelDelegate = std::make_shared<QNBRLChannelDelegate>();
    c.channelDelegate->memberJoined = [life](QNBRLChannel&, const QNBRLMember&) {
      life->begin("memberJoined");
      ++delegateCalls;
    };
    c.channelDelegate->memberLeftReason = [life](QNBRLChannel&, const QNBRLMember&,
                                                 QNBRLChannelMemberLeftReason) {
      life->begin("memberLeft");
      ++delegateCalls;
    };
    c.channelDelegate->messageReceived = [life](QNBRLChannel&, const std::shared_ptr<QNBRLMessage>&,
                                                const QNBRLMember&) {
      life->begin("channel messageReceived");
      ++delegateCalls;
    };
    c.channelDelegate->attributeUpdate = [life](QNBRLChannel&, const std::vector<QNBRLAttribute>&) {
      life->begin("attributeUpdate");
      ++delegateCalls;
    };
    c.invitationDelegate = std::make_shared<QNBRLInvitationDelegate>();
    c.invitationDelegate->invitationArrived = [life](QNBRLInvitationKit&,
                                                     const std::shared_ptr<QNBRLInvitation>& i) {
      life->begin("invitationArrived");
      ++delegateCalls;
      std::lock_guard lock(life->mutex);
      life->arrived.push_back(i);
    };
    auto heard = [life](QNBRLInvitationKit&, const std::shared_ptr<QNBRLInvitation>&) {
      life->begin("invitation callback");
      ++delegateCalls;
    };
    c.invitationDelegate->invitationCanceled = heard;
    c.invitationDelegate->invitationAccept = heard;
    c.invitationDelegate->invitationRefused = heard;
    c.invitationDelegate->invitationFailed = [life](QNBRLInvitationKit&,
                                                    const std::shared_ptr<QNBRLInvitation>&, int) {
      life->begin("invitationFailed");
      ++delegateCalls;
    };

    QNBRLOptions options;
    options.envConfig.apiServer = server_.httpUrl();
    options.envConfig.logServer = server_.httpUrl();
    c.kit = QNBRLKit::create(kApp, c.delegate, options);
    c.invitations = c.kit->getBRLInvitationKit();
    c.invitations->setDelegate(c.invitationDelegate);
    for (const auto& id : kChannels) c.channels[id] = c.kit->createChannelWithId(id, c.channelDelegate);
    login(c);
  }

  // The application lets go of the client. Its delegates stay alive (kept here), so that a callback
  // that wrongly began after the release would be seen.
  void destroy(Client& c, bool insideCallback = false) {
    {
      std::lock_guard lock(graveyardMutex_);
      graveyard_.insert(graveyard_.end(), {c.delegate, c.channelDelegate, c.invitationDelegate});
    }
    c.channels.clear();
    c.invitations.reset();
    c.sent.clear();
    if (!insideCallback) {
      c.kit.reset();
      c.life->markReleased();
      return;
    }
    // The last reference goes from inside the client's own completion, unless the call has not
    // returned yet by then: whichever lets go second sets the flag, after the release.
    auto holder = std::make_shared<std::shared_ptr<QNBRLKit>>(std::move(c.kit));
    auto refs = std::make_shared<std::atomic<int>>(2);
    auto letGo = [life = c.life, refs](std::shared_ptr<QNBRLKit>& kit) {
      kit.reset();
      if (--*refs == 0) life->markReleased();
    };
    auto kit = *holder;
    auto done = ledger.track("getChannelMemberCount");
    ++operations;
    kit->getChannelMemberCount(
        {"ch0"}, [holder, letGo, done](std::optional<std::vector<QNChannelMemberCount>>, int code) {
          done(code);
          letGo(*holder);
        });
    letGo(kit);
  }

  void login(Client& c) {
    auto life = c.life;
    auto done = ledger.trackSession("login", c.life);
    ++operations;
    c.kit->loginByToken("token-" + c.user, 1700000000000, c.user, [life, done](int code) {
      life->begin("login completion");
      done(code);
    });
  }

  // A client that is down for good (kicked off, its login refused or timed out) logs in again; one
  // kicked off is still logged in, so it logs out first.
  void revive(Client& c) {
    if (c.life->state != 1) return;
    if (!c.kit->impl().stateManager->login()) return login(c);
    auto done = ledger.trackSession("logout", c.life);
    ++operations;
    std::weak_ptr<QNBRLKit> weak = c.kit;
    auto life = c.life;
    auto user = c.user;
    auto relogin = ledger.trackSession("login", c.life);
    c.kit->logoutWithCompletion([weak, life, user, done, relogin](int code) {
      done(code);
      auto kit = weak.lock();
      if (!kit) return relogin(-1);  // released meanwhile: nothing to log in; counted as its one run
      ++operations;
      kit->loginByToken("token-" + user, 1700000000000, user, [life, relogin](int code) {
        life->begin("login completion");
        relogin(code);
      });
    });
  }

  // One random operation of client `index` (each client is driven by one thread only).
  void operate(Random& stream, std::size_t index) {
    auto random = stream.step();
    Client& c = clients_[index];
    if (!c.kit) return create(c, users_[index]);
    if (random.chance(1)) return destroy(c, random.chance(50));
    if (c.life->state == 1 && random.chance(20)) return revive(c);
    ++operations;
    auto& kit = *c.kit;
    const auto& peer = random.pick(users_);
    auto& channel = *c.channels[random.pick(kChannels)];
    auto attributes = [&] {
      std::vector<QNBRLAttribute> list;
      for (const auto& k : random.some(kKeys, 3)) list.push_back({k, std::to_string(random.below(1000))});
      return list;
    };
    auto message = [&](bool oversize) -> std::shared_ptr<QNBRLMessage> {
      std::string text(oversize ? QNBRLMessageMaxBytes + 1 : 16, 'm');
      if (!random.chance(30)) return std::make_shared<QNBRLMessage>(text);
      auto raw = std::make_shared<QNBRLRawMessage>(
          std::make_shared<const QNBRLBytes>(static_cast<std::size_t>(random.below(64)), std::uint8_t{7}));
      raw->text = std::string(16, 'r');
      if (oversize) raw->text = text;
      return raw;
    };
    auto notify = [&]() -> QNBRLKit::Options {
      if (random.chance(30)) return std::nullopt;
      return QNBRLChannelAttributeOptions{random.chance(50)};
    };
    auto ignore = [](auto done) {
      return [done](auto&&... args) { done(std::get<sizeof...(args) - 1>(std::tie(args...))); };
    };

    switch (random.below(30)) {
      case 0:
      case 1:
      case 2:
        return channel.joinWithCompletion(ledger.track("join"));
      case 3:
      case 4:
        return channel.leaveWithCompletion(ledger.track("leave"));
      case 5:
      case 6: {
        bool oversize = random.chance(3);
        return channel.sendMessage(
            message(oversize), std::nullopt,
            ledger.track("sendChannelMessage", oversize, QNBRLChannelMessageErrorTooLarge));
      }
      case 7:
        return channel.getMembersWithCompletion(ignore(ledger.track("getMembers")));
      case 8:
        return kit.getChannelMemberCount(random.some(kChannels, 3),
                                         ignore(ledger.track("getChannelMemberCount")));
      case 9:
        return kit.setChannel(channel.channelId(), attributes(), notify(), ledger.track("setChannel"));
      case 10:
        return kit.addOrUpdateChannel(channel.channelId(), attributes(), notify(),
                                      ledger.track("addOrUpdateChannel"));
      case 11:
        return kit.deleteChannelAttributes(channel.channelId(), random.some(kKeys, 2), notify(),
                                           ledger.track("deleteChannelAttributes"));
      case 12:
        return random.chance(50) ? kit.clearChannelAttributes(channel.channelId(), notify(),
                                                              ledger.track("clearChannelAttributes"))
                                 : kit.getChannelAttributes(channel.channelId(), random.some(kKeys, 2),
                                                            ignore(ledger.track("getChannelAttributes")));
      case 13:
      case 14: {
        bool oversize = random.chance(3);
        std::optional<QNBRLSendMessageOptions> options;
        if (random.chance(50)) options = QNBRLSendMessageOptions{random.chance(50), false};
        return kit.sendMessage(message(oversize), peer, options,
                               ledger.track("sendMessage", oversize, QNBRLPeerMessageErrorTooLarge));
      }
      case 15:
        return kit.setLocalUserAttributes(attributes(), ledger.track("setLocalUserAttributes"));
      case 16:
        return kit.addOrUpdateLocalUserAttributes(attributes(),
                                                  ledger.track("addOrUpdateLocalUserAttributes"));
      case 17:
        return kit.deleteLocalUserAttributesByKeys(random.some(kKeys, 2),
                                                   ledger.track("deleteLocalUserAttributesByKeys"));
      case 18:
        return random.chance(30)
                   ? kit.clearLocalUserAttributesWithCompletion(ledger.track("clearLocalUserAttributes"))
                   : kit.getUserAttributes(peer, ignore(ledger.track("getUserAttributes")));
      case 19:
      case 20:
        return kit.subscribePeersOnlineStatus(random.some(users_, 3),
                                              ledger.track("subscribePeersOnlineStatus"));
      case 21:
        return kit.unsubscribePeersOnlineStatus(random.some(users_, 3),
                                                ledger.track("unsubscribePeersOnlineStatus"));
      case 22:
        return random.chance(50)
                   ? kit.queryPeersOnlineStatus(random.some(users_, 3),
                                                ignore(ledger.track("queryPeersOnlineStatus")))
                   : kit.queryPeersBySubscriptionOption(
                         random.below(2), ignore(ledger.track("queryPeersBySubscriptionOption")));
      case 23:
      case 24:
        return kit.subscribePeersUserAttribes(random.some(users_, 3),
                                              ledger.track("subscribePeersUserAttribes"));
      case 25:
        return kit.unsubscribePeersUserAttribes(random.some(users_, 3),
                                                ledger.track("unsubscribePeersUserAttribes"));
      case 26:
        return kit.getPeersUserAttributes(random.some(users_, 3), random.some(kKeys, 2),
                                          ignore(ledger.track("getPeersUserAttributes")));
      case 27: {
        auto invitation = QNBRLInvitation::create(c.user, peer);
        invitation->setRequestInfo("call");
        c.sent.push_back(invitation);
        if (c.sent.size() > 8) c.sent.erase(c.sent.begin());
        return c.invitations->sendInvitation(invitation, ledger.track("sendInvitation"));
      }
      case 28:
        if (c.sent.empty())
          return kit.queryPeersBySubscriptionOption(0,
                                                    ignore(ledger.track("queryPeersBySubscriptionOption")));
        return c.invitations->cancelInvitation(random.pick(c.sent), ledger.track("cancelInvitation"));
      default: {
        std::shared_ptr<QNBRLInvitation> arrived;
        {
          std::lock_guard lock(c.life->mutex);
          if (!c.life->arrived.empty()) {
            arrived = c.life->arrived.back();
            c.life->arrived.pop_back();
          }
        }
        if (!arrived)
          return kit.queryPeersOnlineStatus({peer}, ignore(ledger.track("queryPeersOnlineStatus")));
        arrived->setResponseInfo("answer");
        return random.chance(50) ? c.invitations->acceptInvitation(arrived, ledger.track("acceptInvitation"))
                                 : c.invitations->refuseInvitation(arrived, ledger.track("refuseInvitation"));
      }
    }
  }

  // Every client present and its last login through: dead ones revived, destroyed ones re-created.
  bool allConnected(std::chrono::milliseconds limit) {
    return waitUntil(
        [&] {
          bool all = true;
          for (std::size_t i = 0; i < clients_.size(); ++i) {
            auto& c = clients_[i];
            if (!c.kit) create(c, users_[i]);
            if (c.life->state == 1 && ledger.outstanding() == 0) revive(c);
            all = all && c.life->state == 3;
          }
          return all;
        },
        limit);
  }

  // The service's view of each user against its client's, all of it; the differences, described.
  std::vector<std::string> differences() {
    std::vector<std::string> out;
    auto apps = server_.model(kApp);
    auto& app = apps[kApp];
    // Every user is online by now: nothing kept for an offline user may be left undelivered.
    for (auto& [user, kept] : app.offlineMessages) {
      if (!kept.empty())
        out.push_back(user + ": " + std::to_string(kept.size()) + " kept messages not delivered");
    }
    for (auto& c : clients_) {
      std::set<std::string> believed, actual;
      for (auto& [id, channel] : c.channels) {
        if (channel->joined()) believed.insert(id);
      }
      for (auto& [id, state] : app.channels) {
        if (std::count(state.members.begin(), state.members.end(), c.user)) actual.insert(id);
      }
      auto& impl = c.kit->impl();
      devserver::UserState mine{impl.userAttributes->cache().userAttributes(),
                                impl.presence->subscribedOnlineStatusPeerIds(),
                                impl.peerAttributes->subscribedAttributesPeerIds()};
      std::sort(mine.onlineStatusSubscriptions.begin(), mine.onlineStatusSubscriptions.end());
      std::sort(mine.attributeSubscriptions.begin(), mine.attributeSubscriptions.end());
      auto theirs = app.users.count(c.user) ? app.users[c.user] : devserver::UserState{};
      auto list = [](const auto& items) {
        std::string text;
        for (const auto& i : items) text += " " + i;
        return text;
      };
      if (believed != actual)
        out.push_back(c.user + " channels: client" + list(believed) + ", server" + list(actual));
      if (mine.attributes != theirs.attributes) {
        std::vector<std::string> a, b;
        for (auto& [k, v] : mine.attributes) a.push_back(k + "=" + v);
        for (auto& [k, v] : theirs.attributes) b.push_back(k + "=" + v);
        out.push_back(c.user + " attributes: client" + list(a) + ", server" + list(b));
      }
      if (mine.onlineStatusSubscriptions != theirs.onlineStatusSubscriptions)
        out.push_back(c.user + " online-status subscriptions: client" + list(mine.onlineStatusSubscriptions) +
                      ", server" + list(theirs.onlineStatusSubscriptions));
      if (mine.attributeSubscriptions != theirs.attributeSubscriptions)
        out.push_back(c.user + " attribute subscriptions: client" + list(mine.attributeSubscriptions) +
                      ", server" + list(theirs.attributeSubscriptions));
    }
    return out;
  }

  // Gives every client a confirmed attribute of its own (see main): a write that fails (a slow
  // server times it out) is sent again, within the limit.
  bool markAttributes(std::chrono::milliseconds limit) {
    std::vector<std::shared_ptr<std::atomic<int>>> codes;
    for (std::size_t i = 0; i < clients_.size(); ++i) codes.push_back(std::make_shared<std::atomic<int>>(1));
    auto confirmed = [&] {
      bool all = true;
      for (std::size_t i = 0; i < clients_.size(); ++i) {
        int code = *codes[i];
        all = all && code == 0;
        if (code <= 0) continue;  // confirmed, or under way
        *codes[i] = -1;
        auto& c = clients_[i];
        auto done = ledger.track("addOrUpdateLocalUserAttributes");
        ++operations;
        c.kit->addOrUpdateLocalUserAttributes({{"final", c.user}}, [code = codes[i], done](int result) {
          done(result);
          *code = result == 0 ? 0 : 1;
        });
      }
      return all;
    };
    return waitUntil(confirmed, limit);
  }

  void describeStates() {
    for (auto& c : clients_) {
      if (c.life->state == 3) continue;
      auto& impl = c.kit->impl();
      std::cerr << c.user << ": told " << c.life->state << ", state " << impl.stateManager->state()
                << ", login " << impl.stateManager->login() << ", " << c.kit->getDebugInfo() << ", told "
                << c.life->changes << "\n";
    }
  }

  void destroyAll() {
    for (auto& c : clients_) {
      if (c.kit) destroy(c);
    }
  }

  std::vector<Client>& clients() { return clients_; }

 private:
  devserver::DevServer& server_;
  std::vector<std::string> users_;
  std::vector<Client> clients_;
  std::mutex graveyardMutex_;  // both application threads release clients
  std::vector<std::shared_ptr<void>> graveyard_;
};

// Injects faults through the control interface, each undone (where it lasts) after a while.
class Injector {
 public:
  Injector(devserver::DevServer& server, std::uint64_t seed) : server_(server), stream_(seed) {}

  void inject() {
    auto random = stream_.step();
    static const std::vector<std::string> kinds = {
        "dropTransport", "disconnect", "kickOff",         "refusedLogin", "silentServer",
        "stopServer",    "noAnswer",   "tooManyRequests", "rateLimit",    "slowAck"};
    const auto& kind = random.pick(kinds);
    ++byKind_[kind];
    const int server = random.below(kServers);
    auto someSocket = [&]() -> std::string {
      auto live = server_.connections(server, true);
      if (live.empty()) return {};
      return live[static_cast<std::size_t>(random.below(static_cast<int>(live.size())))].id;
    };
    auto later = [&](int ms, std::function<void()> undo) {
      undo_.push_back({std::chrono::steady_clock::now() + std::chrono::milliseconds(ms), std::move(undo)});
    };
    const auto& command = random.pick(kCommands);
    const int times = 1 + random.below(3);
    if (kind == "dropTransport") {
      if (auto s = someSocket(); !s.empty()) server_.dropTransport(server, s);
    } else if (kind == "disconnect") {
      if (auto s = someSocket(); !s.empty()) server_.disconnect(server, s, std::nullopt, random.chance(50));
    } else if (kind == "kickOff") {
      if (auto s = someSocket(); !s.empty()) server_.disconnect(server, s, "KickOff");
    } else if (kind == "refusedLogin") {
      static const std::vector<std::string> texts = {"loginFail: AuthFail", "loginFail: InvalidToken",
                                                     "loginFail: AppForbidden", "loginFail: Whatever"};
      devserver::LoginScript script;
      if (random.chance(50)) script.server = server;
      script.times = times;
      if (random.chance(20)) {
        script.silent = true;
      } else if (random.chance(20)) {
        script.delay = std::chrono::milliseconds(random.below(3000));
      } else {
        script.fail = random.pick(texts);
      }
      server_.scriptLogin(script);
      // A login to refuse.
      if (auto s = someSocket(); !s.empty()) server_.dropTransport(server, s);
    } else if (kind == "silentServer") {
      server_.setSilent(server,
                        random.chance(50) ? devserver::Silence::AfterConnect : devserver::Silence::AfterOpen);
      later(300 + random.below(1500), [this, server] { server_.setSilent(server, devserver::Silence::Off); });
    } else if (kind == "stopServer") {
      if (stopped_.insert(server).second) {
        server_.stopTavern(server);
        later(200 + random.below(2000), [this, server] {
          server_.startTavern(server);
          stopped_.erase(server);
        });
      }
    } else if (kind == "noAnswer") {
      server_.scriptCommand(command, devserver::CommandAnswer().none().times(times));
    } else if (kind == "tooManyRequests") {
      server_.scriptCommand(command, devserver::CommandAnswer().ack({"Too Many Requests"}).times(times));
    } else if (kind == "rateLimit") {
      server_.setRateLimit(1 + random.below(5));
      later(200 + random.below(1000), [this] { server_.setRateLimit(0); });
    } else {
      // Some answers come after the client's time-out (6 s, or 10 s, in library time).
      server_.scriptCommand(
          command,
          devserver::CommandAnswer().after(std::chrono::milliseconds(50 + random.below(3000))).times(times));
    }
  }

  // Undoes what is due (everything when `all`).
  void undo(bool all) {
    const auto now = std::chrono::steady_clock::now();
    for (auto it = undo_.begin(); it != undo_.end();) {
      if (all || it->first <= now) {
        it->second();
        it = undo_.erase(it);
      } else {
        ++it;
      }
    }
  }

  const std::map<std::string, long>& byKind() const { return byKind_; }

 private:
  devserver::DevServer& server_;
  Random stream_;
  std::map<std::string, long> byKind_;
  std::vector<std::pair<std::chrono::steady_clock::time_point, std::function<void()>>> undo_;
  std::set<int> stopped_;
};

struct Settings {
  std::uint64_t seed = std::random_device{}();
  int faults = 300;
  int clients = 20;
  int faultMs = 100;  // between faults
  int opMs = 8;       // between operations, per application thread
};

std::optional<Settings> parse(int argc, char** argv) {
  Settings s;
  for (int i = 1; i + 1 < argc; i += 2) {
    std::string flag = argv[i];
    auto value = std::strtoull(argv[i + 1], nullptr, 10);
    if (flag == "--seed")
      s.seed = value;
    else if (flag == "--faults")
      s.faults = static_cast<int>(value);
    else if (flag == "--clients")
      s.clients = static_cast<int>(value);
    else if (flag == "--fault-ms")
      s.faultMs = static_cast<int>(value);
    else if (flag == "--op-ms")
      s.opMs = static_cast<int>(value);
    else
      return std::nullopt;
  }
  if (argc % 2 == 0) return std::nullopt;
  return s;
}

}  // namespace

int main(int argc, char** argv) {
  auto settings = parse(argc, argv);
  if (!settings) {
    std::cerr << "usage: qnbrl_chaos [--seed N] [--faults N] [--clients N] [--fault-ms N] [--op-ms N]\n";
    return 2;
  }
  std::cout << "chaos seed " << settings->seed << " faults " << settings->faults << std::endl;
  const auto started = std::chrono::steady_clock::now();
  sio::Clock::install(std::make_shared<FastClock>(sio::Clock::current()));

  devserver::DevServerOptions options;
  options.tavern = kServers;
  options.tavernTls = 0;
  options.session = true;
  options.record = false;
  // The client's ping window is (interval + time-out) / kScale = 1.4 s, well above the interval.
  options.pingInterval = 500ms;
  options.pingTimeout = 5000ms;
  // Longer than the client's reconnection pauses (1.5 s at most, in wall time), as on the service.
  options.memberGrace = 3000ms;
  // A control request refused during the run is the chaos's own doing (a connection that went away).
  std::atomic<bool> quiet{false};
  options.onError = [&quiet](const std::string& reason) {
    if (quiet) failures.add("dev server: " + reason);
  };
  devserver::DevServer server(options);
  if (!server.ready()) return 1;

  // The process-wide singletons come with the first client: the baseline is taken after one.
  {
    Harness warmUp(server, 1);
    warmUp.allConnected(10s);
    warmUp.destroyAll();
    waitUntil([] { return ledger.outstanding() == 0; }, 20s);
  }
  const auto threadsBefore = entries("/proc/self/task");
  const auto fdsBefore = entries("/proc/self/fd");

  Harness harness(server, settings->clients);
  Injector injector(server, settings->seed ^ 0x9e3779b97f4a7c15ULL);
  std::atomic<bool> stop{false};
  std::thread faults([&] {
    for (int i = 0; i < settings->faults; ++i) {
      injector.undo(false);
      injector.inject();
      std::this_thread::sleep_for(std::chrono::milliseconds(settings->faultMs));
    }
    injector.undo(true);
    stop = true;
  });
  // Two application threads, each driving its own half of the clients.
  std::vector<std::thread> drivers;
  for (int d = 0; d < kDrivers; ++d) {
    drivers.emplace_back([&, d] {
      Random random(settings->seed + 1 + static_cast<std::uint64_t>(d));
      const int mine = (settings->clients - d + kDrivers - 1) / kDrivers;  // clients d, d + kDrivers, ...
      while (!stop && mine > 0) {
        harness.operate(random, static_cast<std::size_t>(d + kDrivers * random.below(mine)));
        std::this_thread::sleep_for(std::chrono::milliseconds(settings->opMs));
      }
    });
  }
  for (auto& d : drivers) d.join();
  faults.join();
  const auto chaosEnded = std::chrono::steady_clock::now();

  // The quiet period: faults gone (the model stays), a short grace, every request answered, every
  // client back.
  quiet = true;
  server.reset(false);
  server.setMemberGrace(200ms);
  // A login the server never answers (a silent login script) waits as long as its connection lives,
  // as designed: dropping the connections sends those clients on to the next server.
  for (int s = 0; s < kServers; ++s) server.dropTransport(s, "");
  if (!waitUntil([] { return ledger.outstanding() == 0; }, 30s)) failures.add("requests still outstanding");
  if (!harness.allConnected(60s)) {
    failures.add("clients not all connected after the faults");
    harness.describeStates();
  }

  // Where the design lets a client and the service differ, the final forced reconnection drives them
  // back together, as it would after any lost connection:
  // - a write the server applied but whose answer was lost or came after the time-out (join,
  //   subscriptions, attributes) is not in the client's view; a leave completes locally at once, its
  //   request may be lost; a subscription's request may be lost likewise. Going offline drops the
  //   user's subscriptions on the service and the replay makes exactly the client's again; channel
  //   memberships not re-joined expire after the (now short) grace period.
  // - the local user's attributes are replayed whole with a "set", but nothing is sent for an empty
  //   cache (a client re-created or logged in again starts empty while the service kept the user's
  //   attributes; an unanswered "clear" leaves the cache full, an unanswered write an empty one): each
  //   client first adds one confirmed attribute, so that its replay sets exactly its cache.
  if (!harness.markAttributes(20s)) failures.add("final attribute writes not confirmed");
  std::vector<int> loginsBefore;
  for (auto& c : harness.clients()) loginsBefore.push_back(c.life->logins);
  for (int s = 0; s < kServers; ++s) server.dropTransport(s, "");
  std::vector<std::string> differences;
  bool reconnected = waitUntil(
      [&] {
        for (std::size_t i = 0; i < loginsBefore.size(); ++i) {
          if (harness.clients()[i].life->logins <= loginsBefore[i]) return false;
        }
        return true;
      },
      30s);
  if (!reconnected) failures.add("clients not all reconnected after the final drop");
  // Replays run without a completion the application sees: wait, bounded, for the views to meet.
  waitUntil([&] { return (differences = harness.differences()).empty(); }, 20s);
  for (auto& d : differences) failures.add("mismatch: " + d);
  if (!waitUntil([] { return ledger.outstanding() == 0; }, 30s))
    failures.add("requests still outstanding at the end");
  ledger.reportMissing();

  harness.destroyAll();
  std::size_t threadsAfter = 0, fdsAfter = 0;
  bool back = waitUntil(
      [&] {
        threadsAfter = entries("/proc/self/task");
        fdsAfter = entries("/proc/self/fd");
        return threadsAfter <= threadsBefore && fdsAfter <= fdsBefore;
      },
      20s);
  if (!back)
    failures.add("threads " + std::to_string(threadsBefore) + " -> " + std::to_string(threadsAfter) +
                 ", fds " + std::to_string(fdsBefore) + " -> " + std::to_string(fdsAfter));

  json::object kinds;
  long total = 0;
  for (auto& [kind, n] : injector.byKind()) {
    kinds[kind] = n;
    total += n;
  }
  auto seconds = [](auto from, auto to) { return std::chrono::duration<double>(to - from).count(); };
  json::object summary{{"seed", settings->seed},
                       {"clients", settings->clients},
                       {"faults", total},
                       {"faultsByKind", kinds},
                       {"operations", operations.load()},
                       {"requests", ledger.requests()},
                       {"completions", ledger.completions()},
                       {"delegateCalls", delegateCalls.load()},
                       {"mismatches", differences.size()},
                       {"threads", {threadsBefore, threadsAfter}},
                       {"fds", {fdsBefore, fdsAfter}},
                       {"failures", failures.count()},
                       {"chaosSeconds", seconds(started, chaosEnded)},
                       {"totalSeconds", seconds(started, std::chrono::steady_clock::now())}};
  std::cout << json::serialize(summary) << std::endl;
  return failures.count() == 0 ? 0 : 1;
}
