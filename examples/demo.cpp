// A tour of the client against the local dev server: two users log in on different tavern servers,
// meet in a channel, exchange text and binary messages, share channel attributes, count the members,
// send each other a peer message; bob follows alice's online status and attributes and is told when
// she changes them; then alice's tavern server goes away, her client moves to the next one by itself
// and is back in the channel, with her attributes, without the demo doing anything (bob sees her go
// offline and come back); then both log out, and bob sees alice go.
//
// The dev server (devserver/) stands in for the service: it answers server discovery with its tavern
// servers and checks every login the way the service does. The demo starts and drives it through the
// dev server's own library (devserver/cpp), as the tests and benchmarks do.
//
// Each step prints what happens; every wait is bounded, and the first step that fails ends the run with
// exit status 1.
#include "devserver/dev_server.hpp"
#include "qnbrl/qnbrl.hpp"

#include <boost/json.hpp>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <iostream>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using namespace std::chrono_literals;
using qnbrl::QNBRLConnectionChangeReason;
using qnbrl::QNBRLConnectionState;
using qnbrl::QNBRLKit;

// The longest any one wait may take.
constexpr auto kWaitLimit = 10s;

// One line on standard output. The client's callbacks print from its own thread, so lines are written
// whole, one at a time.
void say(const std::string& line) {
  static std::mutex mutex;
  std::lock_guard lock(mutex);
  std::cout << line << std::endl;
}

bool fail(const std::string& why) {
  say("FAILED: " + why);
  return false;
}

// ---- What the client's numbers mean ----

std::string describe(QNBRLConnectionState state) {
  switch (state) {
    case QNBRLConnectionState::Disconnected:
      return "disconnected";
    case QNBRLConnectionState::Connecting:
      return "connecting";
    case QNBRLConnectionState::Connected:
      return "connected";
    case QNBRLConnectionState::Reconnecting:
      return "reconnecting";
  }
  return "state " + std::to_string(static_cast<int>(state));
}

std::string describe(QNBRLConnectionChangeReason reason) {
  switch (reason) {
    case QNBRLConnectionChangeReason::LoginStarted:
      return "login started";
    case QNBRLConnectionChangeReason::LoginSucceeded:
      return "login succeeded";
    case QNBRLConnectionChangeReason::LoginFailed:
      return "login failed: every tavern server refused";
    case QNBRLConnectionChangeReason::LoginTimedOut:
      return "login timed out: no tavern server answered";
    case QNBRLConnectionChangeReason::Interrupted:
      return "the connection was lost";
    case QNBRLConnectionChangeReason::LoggedOut:
      return "logged out";
    case QNBRLConnectionChangeReason::KickedOff:
      return "kicked off: the same user logged in elsewhere";
  }
  return "reason " + std::to_string(static_cast<int>(reason));
}

std::string describeLoginCode(int code) {
  switch (code) {
    case qnbrl::QNBRLLoginErrorOk:
      return "ok";
    case qnbrl::QNBRLLoginErrorUnknown:
      return "refused for an unlisted reason";
    case qnbrl::QNBRLLoginErrorAppForbidden:
      return "the app is forbidden";
    case qnbrl::QNBRLLoginErrorInvalidArgument:
      return "invalid argument";
    case qnbrl::QNBRLLoginErrorInvalidAppId:
      return "invalid app id";
    case qnbrl::QNBRLLoginErrorInvalidToken:
      return "invalid token";
    case qnbrl::QNBRLLoginErrorTokenExpired:
      return "the token expired";
    case qnbrl::QNBRLLoginErrorAuthFail:
      return "authentication failed";
    case qnbrl::QNBRLLoginErrorAlreadyLogin:
      return "already logged in or logging in";
    case qnbrl::QNBRLLoginErrorTimeout:
      return "timed out: no tavern server answered";
  }
  return "unknown code";
}

// The codes every request shares, logout among them.
std::string describeRequestCode(int code) {
  switch (code) {
    case qnbrl::QNBRLRequestOk:
      return "ok";
    case qnbrl::QNBRLRequestNotLoggedIn:
      return "not logged in";
  }
  return "unknown code";
}

std::string describe(const qnbrl::QNBRLMessage& message) {
  std::string text = "\"" + message.text.value_or("") + "\"";
  if (const auto* raw = dynamic_cast<const qnbrl::QNBRLRawMessage*>(&message); raw && raw->rawData)
    text += " with " + std::to_string(raw->rawData->size()) + " bytes of binary data";
  return text;
}

// "{key=value, key deleted}"
template <class Attribute>
std::string describe(const std::vector<Attribute>& attributes) {
  std::string text;
  for (const auto& a : attributes) {
    text += (text.empty() ? "" : ", ") + a.key;
    if constexpr (std::is_same_v<Attribute, qnbrl::QNBRLAttributeWithState>) {
      if (a.deleted) {
        text += " deleted";
        continue;
      }
    }
    text += "=" + a.value;
  }
  return "{" + text + "}";
}

// ---- One user of the app ----

// A completion code, waited for with a bound. Shared with the completion, so that a code arriving
// after the wait gave up still lands somewhere valid.
class Outcome {
 public:
  void set(int code) {
    std::lock_guard lock(mutex_);
    code_ = code;
    arrived_.notify_all();
  }
  std::optional<int> await() {
    std::unique_lock lock(mutex_);
    arrived_.wait_for(lock, kWaitLimit, [&] { return code_.has_value(); });
    return code_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::optional<int> code_;
};

// A person using the app: their client, and a delegate that prints every connection change and keeps
// it for the steps to wait on.
class User {
 public:
  using Change = std::pair<QNBRLConnectionState, QNBRLConnectionChangeReason>;
  static constexpr Change kLoggedIn{QNBRLConnectionState::Connected,
                                    QNBRLConnectionChangeReason::LoginSucceeded};
  static constexpr Change kLoggedOut{QNBRLConnectionState::Disconnected,
                                     QNBRLConnectionChangeReason::LoggedOut};

  explicit User(std::string name)
      : name_(std::move(name)), delegate_(std::make_shared<qnbrl::QNBRLDelegate>()) {
    delegate_->connectionStateChanged = [this](QNBRLKit&, QNBRLConnectionState state,
                                               QNBRLConnectionChangeReason reason) {
      say(tag() + "connection: " + describe(state) + " (" + describe(reason) + ")");
      std::lock_guard lock(mutex_);
      changes_.emplace_back(state, reason);
      changed_.notify_all();
    };
    delegate_->messageReceived = [this](QNBRLKit&, const std::shared_ptr<qnbrl::QNBRLMessage>& message,
                                        const std::string& peer) { hear("peer message from " + peer + ": " + describe(*message)); };
    delegate_->peersOnlineStatusChanged = [this](QNBRLKit&, const std::vector<qnbrl::QNBRLPeerOnlineStatus>& statuses) {
      for (const auto& s : statuses) hear(s.peerId + (s.isOnline ? " is online" : " is offline"));
    };
    delegate_->peersUserAttributesChanged = [this](QNBRLKit&, const std::vector<qnbrl::QNBRLUserAttributes>& users) {
      for (const auto& u : users) hear(u.userId + "'s attributes changed: " + describe(u.attributes));
    };
    channelDelegate_->memberJoined = [this](qnbrl::QNBRLChannel& channel, const qnbrl::QNBRLMember& member) {
      hear(channel.channelId() + ": " + member.userId + " joined");
    };
    channelDelegate_->memberLeftReason = [this](qnbrl::QNBRLChannel& channel, const qnbrl::QNBRLMember& member,
                                                qnbrl::QNBRLChannelMemberLeftReason reason) {
      hear(channel.channelId() + ": " + member.userId +
           (reason == qnbrl::QNBRLChannelMemberLeftDisconnect ? " lost the connection and left" : " left"));
    };
    channelDelegate_->messageReceived = [this](qnbrl::QNBRLChannel& channel,
                                               const std::shared_ptr<qnbrl::QNBRLMessage>& message,
                                               const qnbrl::QNBRLMember& member) {
      hear(channel.channelId() + ": " + member.userId + " says " + describe(*message));
    };
    channelDelegate_->attributeUpdate = [this](qnbrl::QNBRLChannel& channel,
                                               const std::vector<qnbrl::QNBRLAttribute>& attributes) {
      hear(channel.channelId() + ": attributes are now " + describe(attributes));
    };
    channelDelegate_->memberCount = [this](qnbrl::QNBRLChannel& channel, std::int32_t count) {
      hear(channel.channelId() + ": " + std::to_string(count) + " members");
    };
  }
  User(const User&) = delete;
  User& operator=(const User&) = delete;

  const std::string& name() const { return name_; }

  // The client talks to `serverUrl` for server discovery and for telemetry uploads.
  bool createClient(const std::string& serverUrl) {
    qnbrl::QNBRLOptions options;
    options.envConfig.apiServer = serverUrl;
    options.envConfig.logServer = serverUrl;
    kit_ = QNBRLKit::create("demo-app", delegate_, options);
    if (!kit_) return fail(name_ + "'s client was not created: the server URL was refused");
    say(tag() + "client created");
    return true;
  }

  // Logs in and waits for the login's completion and the connected state.
  bool logIn() {
    auto seen = count(kLoggedIn);
    auto outcome = std::make_shared<Outcome>();
    kit_->loginByToken("token-of-" + name_, nowMs(), name_, report("login", describeLoginCode, outcome));
    return succeeded("login", outcome->await()) && awaitChange(kLoggedIn, seen + 1);
  }

  // Logs out and waits for the logout's completion and the disconnected state.
  bool logOut() {
    auto seen = count(kLoggedOut);
    auto outcome = std::make_shared<Outcome>();
    kit_->logoutWithCompletion(report("logout", describeRequestCode, outcome));
    return succeeded("logout", outcome->await()) && awaitChange(kLoggedOut, seen + 1);
  }

  // How many times the delegate has heard `change` so far.
  std::size_t count(Change change) const {
    std::lock_guard lock(mutex_);
    return countLocked(change);
  }

  // Waits until the delegate has heard `change` `times` times in all.
  bool awaitChange(Change change, std::size_t times) {
    std::unique_lock lock(mutex_);
    if (changed_.wait_for(lock, kWaitLimit, [&] { return countLocked(change) >= times; })) return true;
    return fail(name_ + " did not become " + describe(change.first) + " (" + describe(change.second) +
                ") within " + std::to_string(kWaitLimit.count()) + " s");
  }

  // The tavern server the client is on, from its debug information.
  std::optional<std::string> tavernServer() const {
    boost::system::error_code error;
    auto info = boost::json::parse(kit_->getDebugInfo(), error);
    if (error || !info.is_object()) return std::nullopt;
    auto* socket = info.as_object().if_contains("tavernSocket");
    auto* server = socket && socket->is_object() ? socket->as_object().if_contains("tavernServer") : nullptr;
    if (!server || !server->is_string()) return std::nullopt;
    return std::string(server->as_string());
  }

  // Clients go before the dev server, so that none is left talking to a server that has gone.
  void dropClient() {
    channel_.reset();
    kit_.reset();
  }

  QNBRLKit& kit() { return *kit_; }
  qnbrl::QNBRLChannel& channel() { return *channel_; }

  // Runs one request and waits for its completion; true when it completed with 0.
  bool request(const std::string& what, const std::function<void(QNBRLKit::Completion)>& call) {
    auto outcome = std::make_shared<Outcome>();
    call(report(what, describeRequestCode, outcome));
    return succeeded(what, outcome->await());
  }

  bool join(const std::string& channelId) {
    channel_ = kit_->createChannelWithId(channelId, channelDelegate_);
    if (!channel_) return fail("the channel id " + channelId + " was refused");
    return request("join " + channelId, [&](QNBRLKit::Completion done) { channel_->joinWithCompletion(done); });
  }

  // Waits until one of the user's delegates has heard exactly `line`, `times` times in all.
  bool awaitHeard(const std::string& line, long times = 1) {
    std::unique_lock lock(mutex_);
    if (changed_.wait_for(lock, kWaitLimit, [&] { return std::count(heard_.begin(), heard_.end(), line) >= times; }))
      return true;
    return fail(name_ + " did not hear \"" + line + "\" within " + std::to_string(kWaitLimit.count()) + " s");
  }

 private:
  std::string tag() const { return "[" + name_ + "] "; }

  void hear(const std::string& line) {
    say(tag() + line);
    std::lock_guard lock(mutex_);
    heard_.push_back(line);
    changed_.notify_all();
  }

  std::size_t countLocked(Change change) const {
    return static_cast<std::size_t>(std::count(changes_.begin(), changes_.end(), change));
  }

  // Every operation's code 0 means success (login and request codes alike); the completion has already
  // printed any other code.
  bool succeeded(const std::string& what, std::optional<int> code) const {
    if (!code)
      return fail(name_ + "'s " + what + " did not complete within " + std::to_string(kWaitLimit.count()) +
                  " s");
    if (*code != 0) return fail(name_ + "'s " + what + " failed");
    return true;
  }

  static std::int64_t nowMs() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
  }

  // A completion that prints its code with what it means, then hands it to `outcome`.
  QNBRLKit::Completion report(std::string what, std::string (*meaning)(int),
                              std::shared_ptr<Outcome> outcome) const {
    return [line = tag() + what + " completed: ", meaning, outcome](int code) {
      say(line + std::to_string(code) + " (" + meaning(code) + ")");
      outcome->set(code);
    };
  }

  std::string name_;
  std::shared_ptr<qnbrl::QNBRLDelegate> delegate_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Change> changes_;
  std::vector<std::string> heard_;  // what the delegates were told, as printed
  std::shared_ptr<qnbrl::QNBRLChannelDelegate> channelDelegate_ = std::make_shared<qnbrl::QNBRLChannelDelegate>();
  // Last: the client and its channel, and with them every callback into this object, go first.
  std::shared_ptr<QNBRLKit> kit_;
  std::shared_ptr<qnbrl::QNBRLChannel> channel_;
};

// ---- The steps ----

class Demo {
 public:
  bool startServer() {
    devserver::DevServerOptions options;
    options.tavern = 3;  // three ws tavern servers, so that there is somewhere to fail over to
    options.tavernTls = 0;
    options.session = true;  // tavern servers check logins as the service does
    server_ = std::make_unique<devserver::DevServer>(options);
    if (!server_->ready())
      return fail("the dev server did not start (scripts/bootstrap.sh installs node and its modules)");
    say("dev server up; server discovery at " + server_->httpUrl() + " lists these tavern servers:");
    for (std::size_t i = 0; i < server_->tavernUrls().size(); ++i)
      say("  tavern server " + std::to_string(i) + ": " + server_->tavernUrls()[i]);
    return true;
  }

  bool createClients() {
    say("(the library's own lines below: in a fresh HOME the first client finds no device id stored and "
        "makes one; it also names its telemetry directory)");
    for (const char* name : {"alice", "bob"}) {
      users_.push_back(std::make_unique<User>(name));
      if (!users_.back()->createClient(server_->httpUrl())) return false;
    }
    say("SDK version: " + QNBRLKit::getSDKVersion());
    return true;
  }

  // Each user starts on a different tavern server: discovery lists the servers to each in another
  // order, and a client tries them in the order given. The service's model is shared by all of them.
  bool logIn() {
    for (std::size_t i = 0; i < users_.size(); ++i) {
      auto urls = server_->tavernUrls();
      std::rotate(urls.begin(), urls.begin() + static_cast<std::ptrdiff_t>(i % urls.size()), urls.end());
      if (!server_->scriptDiscovery(devserver::DiscoveryAnswer().servers(urls).times(1)))
        return fail("the dev server did not take the discovery script");
      if (!users_[i]->logIn()) return false;
      say(users_[i]->name() + " is on " + where(*users_[i]));
    }
    return true;
  }

  bool joinChannel() {
    for (auto& user : users_) {
      if (!user->join(kChannel)) return false;
    }
    return alice().awaitHeard(std::string(kChannel) + ": bob joined");
  }

  bool exchangeMessages() {
    auto text = std::make_shared<qnbrl::QNBRLMessage>("hello alice");
    if (!bob().request("send a text message", [&](auto done) { bob().channel().sendMessage(text, std::nullopt, done); }))
      return false;
    if (!alice().awaitHeard(std::string(kChannel) + ": bob says \"hello alice\"")) return false;
    auto picture = std::make_shared<qnbrl::QNBRLRawMessage>(
        std::make_shared<const qnbrl::QNBRLBytes>(qnbrl::QNBRLBytes{0x89, 'P', 'N', 'G', 0, 1, 2, 3}));
    picture->text = "a tiny picture";
    if (!alice().request("send a binary message", [&](auto done) { alice().channel().sendMessage(picture, std::nullopt, done); }))
      return false;
    return bob().awaitHeard(std::string(kChannel) + ": alice says \"a tiny picture\" with 8 bytes of binary data");
  }

  bool channelAttributes() {
    qnbrl::QNBRLChannelAttributeOptions notify{.enableNotificationToChannelMembers = true};
    if (!alice().request("set the channel's attributes, telling the members", [&](auto done) {
          alice().kit().setChannel(kChannel, {{"topic", "weekly sync"}, {"host", "alice"}}, notify, done);
        }))
      return false;
    for (User* user : {&alice(), &bob()}) {
      if (!user->awaitHeard(std::string(kChannel) + ": attributes are now {topic=weekly sync, host=alice}")) return false;
    }
    return true;
  }

  bool membersAndCounts() {
    std::optional<std::vector<qnbrl::QNChannelMemberCount>> counts;
    if (!bob().request("count the members of " + std::string(kChannel) + " and of an empty channel", [&](auto done) {
          bob().kit().getChannelMemberCount({kChannel, "empty-room"}, [&counts, done](auto answer, int code) {
            counts = std::move(answer);
            done(code);
          });
        }))
      return false;
    for (const auto& c : counts.value_or(std::vector<qnbrl::QNChannelMemberCount>{}))
      say("  " + c.channelId + ": " + std::to_string(c.count) + " members");
    std::optional<std::vector<qnbrl::QNBRLMember>> members;
    if (!alice().request("list the members", [&](auto done) {
          alice().channel().getMembersWithCompletion([&members, done](auto answer, int code) {
            members = std::move(answer);
            done(code);
          });
        }))
      return false;
    std::string names;
    for (const auto& m : members.value_or(std::vector<qnbrl::QNBRLMember>{})) names += " " + m.userId;
    say("  members of " + std::string(kChannel) + ":" + names);
    return members && members->size() == 2;
  }

  bool peerMessage() {
    auto note = std::make_shared<qnbrl::QNBRLMessage>("see you in the lobby");
    if (!bob().request("send alice a peer message", [&](auto done) { bob().kit().sendMessage(note, "alice", std::nullopt, done); }))
      return false;
    return alice().awaitHeard("peer message from bob: \"see you in the lobby\"");
  }

  // A subscription to online status is answered with the peer's current status.
  bool followAlice() {
    if (!bob().request("subscribe to alice's online status",
                       [&](auto done) { bob().kit().subscribePeersOnlineStatus({"alice"}, done); }) ||
        !bob().request("subscribe to alice's attributes",
                       [&](auto done) { bob().kit().subscribePeersUserAttribes({"alice"}, done); }))
      return false;
    return bob().awaitHeard("alice is online");
  }

  bool userAttributes() {
    if (!alice().request("set her attributes", [&](auto done) {
          alice().kit().setLocalUserAttributes({{"status", "in a meeting"}, {"mood", "busy"}}, done);
        }))
      return false;
    if (!bob().awaitHeard("alice's attributes changed: {status=in a meeting, mood=busy}")) return false;
    if (!alice().request("delete her mood", [&](auto done) { alice().kit().deleteLocalUserAttributesByKeys({"mood"}, done); }))
      return false;
    return bob().awaitHeard("alice's attributes changed: {mood deleted}");
  }

  // After the failover alice's client has joined the channel again by itself.
  bool backInTheChannel() {
    say("alice's channel object says joined = " + std::string(alice().channel().joined() ? "true" : "false") +
        "; the demo does not join again");
    auto text = std::make_shared<qnbrl::QNBRLMessage>("welcome back");
    if (!bob().request("send a text message", [&](auto done) { bob().channel().sendMessage(text, std::nullopt, done); }))
      return false;
    if (!alice().awaitHeard(std::string(kChannel) + ": bob says \"welcome back\"")) return false;
    // Her attributes were set again by her client after the reconnection.
    std::optional<std::vector<qnbrl::QNBRLAttribute>> attributes;
    if (!bob().request("read alice's attributes", [&](auto done) {
          bob().kit().getUserAttributes("alice", [&attributes, done](auto answer, const std::string&, int code) {
            attributes = std::move(answer);
            done(code);
          });
        }))
      return false;
    say("  alice's attributes: " + describe(attributes.value_or(std::vector<qnbrl::QNBRLAttribute>{})));
    return attributes == std::vector<qnbrl::QNBRLAttribute>{{"status", "in a meeting"}};
  }

  // Stops the first user's tavern server: everyone on it loses the connection, and each client pauses
  // 1 s and logs in again on the next server of the list.
  bool failOver() {
    auto stopped = tavernIndex(*users_.front());
    if (!stopped) return fail(users_.front()->name() + " is on no tavern server the dev server knows");
    std::vector<std::pair<User*, std::size_t>> moving;  // each user on that server, with logins so far
    for (auto& user : users_) {
      if (tavernIndex(*user) == stopped) moving.emplace_back(user.get(), user->count(User::kLoggedIn));
    }
    say("stopping tavern server " + std::to_string(*stopped) + " (" + names(moving) +
        " on it); expect a 1 s pause, then a move to the next server (the library counts its attempts: "
        "\"connectIndex:1\")");
    auto start = std::chrono::steady_clock::now();
    if (!server_->stopTavern(*stopped))
      return fail("the dev server did not stop tavern server " + std::to_string(*stopped));

    for (auto& [user, seen] : moving) {
      if (!user->awaitChange(User::kLoggedIn, seen + 1)) return false;
      auto took = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      char seconds[32];
      std::snprintf(seconds, sizeof seconds, "%.1f", took);
      say(user->name() + " is back after " + seconds + " s, now on " + where(*user));
      if (tavernIndex(*user) == stopped) return fail(user->name() + " is still on the stopped server");
    }
    // bob, on another server, saw alice go and come back.
    return bob().awaitHeard("alice is offline") && bob().awaitHeard("alice is online", 2);
  }

  bool logOut() {
    return alice().logOut() && bob().awaitHeard("alice is offline", 2) && bob().logOut();
  }

  bool stopServer() {
    for (auto& user : users_) user->dropClient();
    server_->stop();
    say("dev server stopped");
    return true;
  }

  // ---- Call invitations ----

  // bob invites alice to a call, she sees it arrive and accepts; he invites her again and she refuses.
  bool inviteAndAccept() {
    calls_.push_back(std::make_unique<Calls>(alice()));
    calls_.push_back(std::make_unique<Calls>(bob()));
    auto invitation = qnbrl::QNBRLInvitation::create("bob", "alice");
    invitation->setRequestInfo("a quick video call?");
    if (!bob().request("invite alice to a call", [&](auto done) { bobCalls().kit->sendInvitation(invitation, done); }))
      return false;
    auto arrived = aliceCalls().await("invitation arrived");
    if (!arrived) return false;
    arrived->setResponseInfo("joining now");
    if (!alice().request("accept bob's invitation", [&](auto done) { aliceCalls().kit->acceptInvitation(arrived, done); }))
      return false;
    // The server tells both of them.
    return bobCalls().await("invitation accepted") && aliceCalls().await("invitation accepted");
  }

  bool inviteAndRefuse() {
    auto invitation = qnbrl::QNBRLInvitation::create("bob", "alice");
    if (!bob().request("invite alice again", [&](auto done) { bobCalls().kit->sendInvitation(invitation, done); }))
      return false;
    auto arrived = aliceCalls().await("invitation arrived");
    if (!arrived ||
        !alice().request("refuse bob's invitation", [&](auto done) { aliceCalls().kit->refuseInvitation(arrived, done); }))
      return false;
    if (!bobCalls().await("invitation refused") || !aliceCalls().await("invitation refused")) return false;
    say("(an invitation nobody answers fails after 60 s with code 3; the demo does not wait for it: the tests "
        "show it on a hand-moved clock, and once in real time)");
    return true;
  }

 private:
  // One user's invitation kit, and what its delegate heard, printed as it comes. The record is shared
  // with the callbacks, which may outlive this object.
  class Calls {
   public:
    explicit Calls(User& user) : kit(user.kit().getBRLInvitationKit()) {
      auto record = record_;
      auto note = [record, tag = "[" + user.name() + "] "](std::string what) {
        return [record, tag, what](qnbrl::QNBRLInvitationKit&, const std::shared_ptr<qnbrl::QNBRLInvitation>& i) {
          auto request = i->requestInfo(), response = i->responseInfo();
          say(tag + what + ": " + i->inviter() + " to " + i->invitee() + (request ? ", asking \"" + *request + "\"" : "") +
              (response ? ", answered \"" + *response + "\"" : ""));
          std::lock_guard lock(record->mutex);
          record->heard.emplace_back(what, i);
          record->changed.notify_all();
        };
      };
      delegate_->invitationArrived = note("invitation arrived");
      delegate_->invitationAccept = note("invitation accepted");
      delegate_->invitationRefused = note("invitation refused");
      delegate_->invitationCanceled = note("invitation cancelled");
      delegate_->invitationFailed = [note](qnbrl::QNBRLInvitationKit& kit,
                                           const std::shared_ptr<qnbrl::QNBRLInvitation>& i, int code) {
        note("invitation failed with code " + std::to_string(code))(kit, i);
      };
      kit->setDelegate(delegate_);
    }

    // Waits for the next `what` not waited for yet; the invitation it came with.
    std::shared_ptr<qnbrl::QNBRLInvitation> await(const std::string& what) {
      std::unique_lock lock(record_->mutex);
      auto& heard = record_->heard;
      auto match = [&] { return std::find_if(heard.begin(), heard.end(), [&](auto& h) { return h.first == what; }); };
      if (!record_->changed.wait_for(lock, kWaitLimit, [&] { return match() != heard.end(); })) {
        fail("no \"" + what + "\" within " + std::to_string(kWaitLimit.count()) + " s");
        return nullptr;
      }
      auto found = match();
      auto invitation = found->second;
      heard.erase(found);
      return invitation;
    }

    std::shared_ptr<qnbrl::QNBRLInvitationKit> kit;

   private:
    struct Record {
      std::mutex mutex;
      std::condition_variable changed;
      std::vector<std::pair<std::string, std::shared_ptr<qnbrl::QNBRLInvitation>>> heard;
    };
    std::shared_ptr<Record> record_ = std::make_shared<Record>();
    std::shared_ptr<qnbrl::QNBRLInvitationDelegate> delegate_ = std::make_shared<qnbrl::QNBRLInvitationDelegate>();
  };

  Calls& aliceCalls() { return *calls_.at(0); }
  Calls& bobCalls() { return *calls_.at(1); }
  std::vector<std::unique_ptr<Calls>> calls_;

 private:
  // The position of the user's tavern server in the discovery list.
  std::optional<int> tavernIndex(const User& user) const {
    auto url = user.tavernServer();
    const auto& urls = server_->tavernUrls();
    for (std::size_t i = 0; url && i < urls.size(); ++i) {
      if (urls[i] == *url) return static_cast<int>(i);
    }
    return std::nullopt;
  }

  std::string where(const User& user) const {
    auto index = tavernIndex(user);
    auto url = user.tavernServer();
    if (!index) return "an unknown tavern server (" + url.value_or("none") + ")";
    return "tavern server " + std::to_string(*index) + " (" + *url + ")";
  }

  static std::string names(const std::vector<std::pair<User*, std::size_t>>& users) {
    std::string text;
    for (std::size_t i = 0; i < users.size(); ++i) {
      text += (i == 0 ? "" : i + 1 == users.size() ? " and " : ", ") + users[i].first->name();
    }
    return text + (users.size() == 1 ? " is" : " are");
  }

  static constexpr const char* kChannel = "lobby";
  User& alice() { return *users_.at(0); }
  User& bob() { return *users_.at(1); }

  std::unique_ptr<devserver::DevServer> server_;
  std::vector<std::unique_ptr<User>> users_;  // after the server, so that they go first
};

}  // namespace

int main() {
  Demo demo;
  const std::pair<const char*, bool (Demo::*)()> steps[] = {
      {"Start the dev server", &Demo::startServer},
      {"Create a client for alice and one for bob", &Demo::createClients},
      {"Log both in", &Demo::logIn},
      {"Both join the channel \"lobby\"", &Demo::joinChannel},
      {"Exchange a text and a binary message in the channel", &Demo::exchangeMessages},
      {"Set channel attributes, telling the members", &Demo::channelAttributes},
      {"Count the members and list them", &Demo::membersAndCounts},
      {"bob sends alice a peer message", &Demo::peerMessage},
      {"bob follows alice's online status and attributes", &Demo::followAlice},
      {"alice sets her attributes, then deletes one: bob is told each time", &Demo::userAttributes},
      {"Take alice's tavern server down: her client fails over, bob sees her go and come back",
       &Demo::failOver},
      {"alice is back in the channel with her attributes, restored by her client", &Demo::backInTheChannel},
      {"bob invites alice to a call: it arrives and she accepts", &Demo::inviteAndAccept},
      {"bob invites alice again: she refuses", &Demo::inviteAndRefuse},
      {"Log both out: bob sees alice go offline first", &Demo::logOut},
      {"Stop the dev server", &Demo::stopServer},
  };
  int number = 0;
  for (const auto& [title, step] : steps) {
    say("\n" + std::to_string(++number) + ". " + title);
    if (!(demo.*step)()) {
      say("The demo stopped at step " + std::to_string(number) + ".");
      return 1;
    }
  }
  say("\nDone: every step worked.");
  return 0;
}
