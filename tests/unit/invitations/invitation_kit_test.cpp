// The invitation kit over the request path with an in-memory command sender, and the store's
// time-outs on a manual clock: codes, local checks, payloads, pushed changes and the 60 seconds.
#include "invitations/invitation_store.hpp"
#include "support/feature_fixture.hpp"

#include <boost/json/serialize.hpp>

#include <functional>

using namespace qnbrl;
using namespace std::chrono_literals;
namespace json = boost::json;

namespace {

using State = QNBRLInvitationState;
using Done = std::function<void(int)>;
using Heard = std::vector<std::pair<std::string, std::shared_ptr<QNBRLInvitation>>>;

class InvitationKitTest : public testing_support::FeatureFixture {
 protected:
  InvitationKitTest() {
    state->setUserId("bob");
    store.reset();
    invitations->setDelegate(delegate);
    unrelatedTimers = time.clock().pending();
  }
  ~InvitationKitTest() override { store.reset(); }

  // A delegate noting every callback it implements; `without` names one it leaves out.
  static std::shared_ptr<QNBRLInvitationDelegate> listening(const std::shared_ptr<Heard>& heard,
                                                            const std::string& without = {}) {
    auto d = std::make_shared<QNBRLInvitationDelegate>();
    auto note = [heard](std::string what) {
      return [heard, what](QNBRLInvitationKit&, const std::shared_ptr<QNBRLInvitation>& i) { heard->emplace_back(what, i); };
    };
    d->invitationArrived = note("arrived");
    d->invitationCanceled = note("canceled");
    d->invitationAccept = note("accept");
    d->invitationRefused = note("refused");
    d->invitationFailed = [heard](QNBRLInvitationKit&, const std::shared_ptr<QNBRLInvitation>& i, int code) {
      heard->emplace_back("failed " + std::to_string(code), i);
    };
    if (without == "arrived") d->invitationArrived = nullptr;
    if (without == "canceled") d->invitationCanceled = nullptr;
    if (without == "failed") d->invitationFailed = nullptr;
    return d;
  }

  // bob's invitation to alice, sent and acknowledged: pending, its time-out armed.
  std::shared_ptr<QNBRLInvitation> pending() {
    auto invitation = QNBRLInvitation::create("bob", "alice");
    invitations->sendInvitation(invitation, {});
    sender->answer({json::object{{"result", 0}}});
    return invitation;
  }

  void push(const json::array& args) {
    if (auto incoming = QNBRLInvitationKit::Impl::invitationOf({args, {}}))
      invitations->impl().parseInvitation(incoming);
  }
  void push(const char* inviter, const char* invitee, json::value state) {
    push({json::object{{"invitation", {{"inviter", inviter}, {"invitee", invitee}, {"state", state}}}}});
  }

  std::vector<std::string> lines() const {
    std::vector<std::string> out;
    for (const auto& entry : *heard) out.push_back(entry.first);
    return out;
  }
  // Time-outs armed, while time stands still (the telemetry upload timer may share the clock).
  std::size_t armed() { return time.clock().pending() - unrelatedTimers; }

  QNInvitationStore& store = QNInvitationStore::shared();
  std::shared_ptr<Heard> heard = std::make_shared<Heard>();
  std::shared_ptr<QNBRLInvitationDelegate> delegate = listening(heard);
  std::size_t unrelatedTimers = 0;
};

TEST_F(InvitationKitTest, OnlyNoAckAndCodesThreeAndFourFailAnyOfTheFourRequests) {
  const std::pair<json::array, int> answers[] = {
      {{json::object{{"result", 0}}}, 0},
      {{"NO ACK"}, 1},
      {{"NO ACK", json::object{{"result", 0}}}, 1},
      {{"Too Many Requests"}, 0},
      {{"Too Many Requests", json::object{{"result", 5}}}, 0},
      {{json::object{{"result", 3}}}, 3},
      {{json::object{{"result", 4}}}, 4},
      {{json::object{{"result", 7}}}, 0},
      {{json::object{{"result", 2}}}, 0},
      {{json::object{}}, 0},
      {{}, 0},
  };
  using Request = void (QNBRLInvitationKit::*)(const std::shared_ptr<QNBRLInvitation>&, QNBRLInvitationKit::Completion);
  const std::tuple<const char*, Request, bool> requests[] = {
      {"send", &QNBRLInvitationKit::sendInvitation, true},
      {"cancel", &QNBRLInvitationKit::cancelInvitation, true},
      {"accept", &QNBRLInvitationKit::acceptInvitation, false},
      {"refuse", &QNBRLInvitationKit::refuseInvitation, false},
  };
  for (const auto& [type, call, byInviter] : requests) {
    for (const auto& [ack, code] : answers) {
      store.reset();
      auto invitation = byInviter ? QNBRLInvitation::create("bob", "alice") : QNBRLInvitation::create("alice", "bob");
      std::vector<int> codes;
      ((*invitations).*call)(invitation, [&](int c) { codes.push_back(c); });
      ASSERT_EQ(sender->sent().back().payload.at("type"), type);
      sender->answer(ack);
      std::string row = std::string(type) + " answered " + json::serialize(ack);
      EXPECT_EQ(codes, std::vector<int>{code}) << row;
      bool send = std::string_view(type) == "send";
      // Only a send changes the local state, and only its success arms a time-out; the others, on
      // success, forget the invitation.
      auto expected = !send ? State::Created : code == 0 ? State::Arrived : code == 1 ? State::Failed : State::Created;
      EXPECT_EQ(invitation->state(), expected) << row;
      EXPECT_EQ(armed(), send && code == 0 ? 1u : 0u) << row;
      EXPECT_EQ(store.getInvitation(*invitation) == invitation, send || code != 0) << row;
    }
  }
}

TEST_F(InvitationKitTest, LocalChecksRefuseInTheirOrderAndSendNothing) {
  std::string accents;
  for (int i = 0; i < 4097; ++i) accents += "\xc3\xa9";  // 8194 bytes
  auto with = [](const char* inviter, const char* invitee, std::optional<std::string> request,
                 std::optional<std::string> response = std::nullopt) {
    auto invitation = QNBRLInvitation::create(inviter, invitee);
    invitation->setRequestInfo(std::move(request));
    invitation->setResponseInfo(std::move(response));
    return invitation;
  };
  auto k = invitations;
  const std::tuple<std::function<void(Done)>, int, const char*> rows[] = {
      {[&](Done d) { k->sendInvitation(with("alice", "bob", {}), d); }, 5, "send by the invitee"},
      {[&](Done d) { k->cancelInvitation(with("alice", "bob", {}), d); }, 5, "cancel by the invitee"},
      {[&](Done d) { k->acceptInvitation(with("bob", "alice", {}), d); }, 5, "accept by the inviter"},
      {[&](Done d) { k->refuseInvitation(with("bob", "alice", {}), d); }, 5, "refuse by the inviter"},
      {[&](Done d) { k->sendInvitation(nullptr, d); }, 5, "no invitation"},
      {[&](Done d) { k->sendInvitation(with("alice", "bob", std::string(9000, 'x')), d); }, 5, "party first"},
      {[&](Done d) { k->sendInvitation(with("bob", "alice", std::string(8193, 'x')), d); }, 2, "8193 bytes"},
      {[&](Done d) { k->sendInvitation(with("bob", "alice", accents), d); }, 2, "4097 two-byte characters"},
      {[&](Done d) { k->acceptInvitation(with("alice", "bob", {}, std::string(8193, 'x')), d); }, 2, "response"},
      {[&](Done d) { k->sendInvitation(with("bob", "alice", std::string(8192, 'x')), d); }, -1, "8192 bytes"},
  };
  for (const auto& [call, code, row] : rows) {
    auto before = sender->count();
    std::vector<int> codes;
    call([&](int c) { codes.push_back(c); });
    EXPECT_EQ(codes, code < 0 ? std::vector<int>{} : std::vector<int>{code}) << row;
    EXPECT_EQ(sender->count(), before + (code < 0 ? 1 : 0)) << row;
  }

  // Logged out, every request refuses with 102 before anything else.
  state->setLogin(false);
  auto before = sender->count();
  std::vector<int> codes;
  auto done = [&](int c) { codes.push_back(c); };
  k->sendInvitation(with("alice", "bob", std::string(9000, 'x')), done);
  k->cancelInvitation(with("bob", "alice", {}), done);
  k->acceptInvitation(with("alice", "bob", {}), done);
  k->refuseInvitation(nullptr, done);
  EXPECT_EQ(codes, std::vector<int>(4, 102));
  EXPECT_EQ(sender->count(), before);
}

TEST_F(InvitationKitTest, PayloadsCarryEveryPropertyAndLeaveAbsentTextsOut) {
  auto invitation = QNBRLInvitation::create("bob", "alice");
  invitations->sendInvitation(invitation, {});
  EXPECT_EQ(sender->sent().back().name, "invitationOp");
  EXPECT_EQ(json::serialize(sender->sent().back().payload),
            R"({"type":"send","invitation":{"inviter":"bob","invitee":"alice","state":0}})");
  auto arrived = QNBRLInvitation::create("alice", "bob");
  arrived->setRequestInfo("call me");
  arrived->setResponseInfo("");
  arrived->setState(State::Arrived);
  invitations->refuseInvitation(arrived, {});
  EXPECT_EQ(json::serialize(sender->sent().back().payload),
            R"({"type":"refuse","invitation":{"inviter":"alice","invitee":"bob","requestInfo":"call me",)"
            R"("responseInfo":"","state":2}})");
}

TEST_F(InvitationKitTest, PushedChangesReachTheDelegateByStateWithTheStoredObject) {
  // state pushed, what the delegate hears, whether it gets the pushed object, time-outs armed after,
  // whether the store still holds the invitation.
  const std::tuple<int, const char*, bool, std::size_t, bool> rows[] = {
      {1, "failed 0", false, 0, true},  {2, "arrived", false, 1, true}, {3, "canceled", false, 0, false},
      {4, "accept", true, 0, false},    {5, "refused", false, 0, false}, {9, "", false, 0, true},
  };
  for (const auto& [pushed, line, pushedObject, timers, kept] : rows) {
    store.reset();
    heard->clear();
    auto stored = QNBRLInvitation::create("alice", "bob");
    push("alice", "bob", pushed);
    EXPECT_EQ(stored->state(), static_cast<State>(pushed)) << pushed;
    ASSERT_EQ(lines(), *line ? std::vector<std::string>{line} : std::vector<std::string>{}) << pushed;
    if (*line) {
      EXPECT_EQ(heard->front().second == stored, !pushedObject) << pushed;
    }
    EXPECT_EQ(armed(), timers) << pushed;
    EXPECT_EQ(store.getInvitation(*stored) != nullptr, kept) << pushed;
  }

  // Nothing stored: the pushed object itself, with its texts.
  heard->clear();
  push({json::object{
      {"invitation", {{"inviter", "carol"}, {"invitee", "bob"}, {"requestInfo", "hi"}, {"state", 2.0}}}}});
  ASSERT_EQ(lines(), std::vector<std::string>{"arrived"});
  EXPECT_EQ(heard->front().second->requestInfo(), "hi");
  EXPECT_FALSE(heard->front().second->responseInfo());
  EXPECT_EQ(store.getInvitation(*heard->front().second), heard->front().second);
}

TEST_F(InvitationKitTest, TheStoreFollowsAPushOnlyWhenTheDelegateTookItIn) {
  delegate = listening(heard, "arrived");
  invitations->setDelegate(delegate);
  push("alice", "bob", 2);
  EXPECT_EQ(armed(), 0u);
  delegate = listening(heard, "canceled");
  invitations->setDelegate(delegate);
  auto stored = QNBRLInvitation::create("alice", "bob");
  push("alice", "bob", 3);
  EXPECT_EQ(store.getInvitation(*stored), stored);
  EXPECT_TRUE(heard->empty());
}

TEST_F(InvitationKitTest, MalformedPushesAreDropped) {
  auto stored = QNBRLInvitation::create("alice", "bob");
  const json::array pushes[] = {
      {},
      {5},
      {json::object{{"invitation", "x"}}},
      {json::object{{"invitation", {{"inviter", "alice"}, {"invitee", "bob"}}}}},
      {json::object{{"invitation", {{"inviter", "alice"}, {"invitee", "bob"}, {"state", "2"}}}}},
      {json::object{{"invitation", {{"inviter", "alice"}, {"invitee", "bob"}, {"state", 2.5}}}}},
      {json::object{{"invitation", {{"inviter", "alice"}, {"invitee", "bob"}, {"state", 1e300}}}}},
  };
  for (const auto& args : pushes) push(args);
  EXPECT_TRUE(heard->empty());
  EXPECT_EQ(stored->state(), State::Created);
  // Mistyped texts read as empty or absent.
  push({json::object{{"invitation", {{"inviter", 7}, {"invitee", "bob"}, {"requestInfo", 1}, {"state", 5}}}}});
  ASSERT_EQ(lines(), std::vector<std::string>{"refused"});
  EXPECT_EQ(heard->front().second->inviter(), "");
  EXPECT_FALSE(heard->front().second->requestInfo());
}

TEST_F(InvitationKitTest, APendingInvitationFailsAfterSixtySecondsAndStaysRecorded) {
  auto invitation = pending();
  time.advance(59999ms);
  EXPECT_TRUE(heard->empty());
  time.advance(1ms);
  ASSERT_EQ(lines(), std::vector<std::string>{"failed 3"});
  EXPECT_EQ(heard->front().second, invitation);
  EXPECT_EQ(invitation->state(), State::Failed);
  EXPECT_EQ(store.getInvitation(*invitation), invitation);
  time.advance(120s);
  EXPECT_EQ(heard->size(), 1u);

  // An arrival times out on the invitee's side too.
  push("alice", "bob", 2);
  time.advance(60s);
  EXPECT_EQ(lines(), (std::vector<std::string>{"failed 3", "arrived", "failed 3"}));
}

TEST_F(InvitationKitTest, ASecondInvitationBetweenTheSameUsersReplacesTheFirst) {
  auto first = pending();
  time.advance(30s);
  auto second = pending();
  EXPECT_EQ(store.getInvitation(*first), second);
  time.advance(30s);
  EXPECT_TRUE(heard->empty());
  time.advance(30s);
  ASSERT_EQ(lines(), std::vector<std::string>{"failed 3"});
  EXPECT_EQ(heard->front().second, second);
  EXPECT_EQ(first->state(), State::Arrived);
}

TEST_F(InvitationKitTest, AnAnsweredOrResetInvitationNeverTimesOut) {
  std::shared_ptr<QNBRLInvitation> invitation;
  const std::function<void()> endings[] = {
      [&] { push("bob", "alice", 4); },
      [&] { push("bob", "alice", 5); },
      [&] {
        invitations->cancelInvitation(invitation, {});
        sender->answer({json::object{{"result", 0}}});
      },
      [&] { store.reset(); },
  };
  for (const auto& end : endings) {
    invitation = pending();
    time.advance(59s);
    end();
    heard->clear();
    time.advance(60s);
    EXPECT_TRUE(heard->empty());
  }
}

TEST_F(InvitationKitTest, TheTimeOutFailsTheInvitationEvenWithoutAListener) {
  delegate = listening(heard, "failed");
  invitations->setDelegate(delegate);
  auto invitation = pending();
  time.advance(60s);
  EXPECT_EQ(invitation->state(), State::Failed);
  delegate.reset();
  invitation = pending();
  time.advance(60s);
  EXPECT_EQ(invitation->state(), State::Failed);
  EXPECT_TRUE(heard->empty());
}

}  // namespace
