// The invitation kit over the request path with an in-memory command sender, and the store's
// time-outs on a manual clock.
#include "invitations/invitation_store.hpp"
#include "support/feature_fixture.hpp"

#include <boost/json/serialize.hpp>

using namespace qnbrl;
using namespace std::chrono_literals;
namespace json = boost::json;

namespace {

using State = QNBRLInvitationState;
using Request = void (QNBRLInvitationKit::*)(const std::shared_ptr<QNBRLInvitation>&, QNBRLInvitationKit::Completion);
const json::array kOk{json::object{{"result", 0}}};

class InvitationKitTest : public testing_support::FeatureFixture {
 protected:
  InvitationKitTest() {
    state->setUserId("bob");
    store.reset();
    listen();
    unrelatedTimers = time.clock().pending();  // the telemetry upload may share the clock
  }
  ~InvitationKitTest() override { store.reset(); }

  // A delegate noting every callback but `without`, as "<callback> <code>" with the invitation.
  void listen(const std::string& without = {}) {
    delegate = std::make_shared<QNBRLInvitationDelegate>();
    auto note = [heard = heard](std::string what) {
      return [heard, what](QNBRLInvitationKit&, const std::shared_ptr<QNBRLInvitation>& i, int code = -1) {
        heard->emplace_back(code < 0 ? what : what + " " + std::to_string(code), i);
      };
    };
    if (without != "arrived") delegate->invitationArrived = note("arrived");
    if (without != "canceled") delegate->invitationCanceled = note("canceled");
    delegate->invitationAccept = note("accept");
    delegate->invitationRefused = note("refused");
    if (without != "failed") delegate->invitationFailed = note("failed");
    invitations->setDelegate(delegate);
  }
  std::vector<int> run(Request op, const std::shared_ptr<QNBRLInvitation>& invitation, const json::array& ack) {
    std::vector<int> codes;
    ((*invitations).*op)(invitation, [&](int code) { codes.push_back(code); });
    if (codes.empty()) sender->answer(ack);
    return codes;
  }
  std::shared_ptr<QNBRLInvitation> pending() {  // bob's invitation to alice, sent and acknowledged
    auto invitation = QNBRLInvitation::create("bob", "alice");
    run(&QNBRLInvitationKit::sendInvitation, invitation, kOk);
    return invitation;
  }
  void push(const json::array& args) {
    if (auto incoming = QNBRLInvitationKit::Impl::invitationOf({args, {}})) invitations->impl().parseInvitation(incoming);
  }
  void pushState(json::value state) {
    push(json::array{json::object{{"invitation", {{"inviter", "alice"}, {"invitee", "bob"}, {"state", state}}}}});
  }
  std::vector<std::string> lines() const {
    std::vector<std::string> out;
    for (const auto& entry : *heard) out.push_back(entry.first);
    return out;
  }
  std::size_t armed() { return time.clock().pending() - unrelatedTimers; }

  QNInvitationStore& store = QNInvitationStore::shared();
  std::shared_ptr<std::vector<std::pair<std::string, std::shared_ptr<QNBRLInvitation>>>> heard =
      std::make_shared<std::vector<std::pair<std::string, std::shared_ptr<QNBRLInvitation>>>>();
  std::shared_ptr<QNBRLInvitationDelegate> delegate;
  std::size_t unrelatedTimers = 0;
};

TEST_F(InvitationKitTest, OnlyNoAckAndCodesThreeAndFourFailAnyOfTheFourRequests) {
  const std::pair<json::array, int> answers[] = {
      {kOk, 0}, {{"NO ACK"}, 1}, {{"NO ACK", json::object{{"result", 0}}}, 1},
      {{"Too Many Requests", json::object{{"result", 5}}}, 0}, {{json::object{{"result", 3}}}, 3},
      {{json::object{{"result", 4}}}, 4}, {{json::object{{"result", 7}}}, 0}, {{}, 0},
  };
  const Request requests[] = {&QNBRLInvitationKit::sendInvitation, &QNBRLInvitationKit::cancelInvitation,
                              &QNBRLInvitationKit::acceptInvitation, &QNBRLInvitationKit::refuseInvitation};
  for (std::size_t r = 0; r < std::size(requests); ++r) {
    for (const auto& [ack, code] : answers) {
      store.reset();
      auto invitation = r < 2 ? QNBRLInvitation::create("bob", "alice") : QNBRLInvitation::create("alice", "bob");
      auto row = "request " + std::to_string(r) + " answered " + json::serialize(ack);
      EXPECT_EQ(run(requests[r], invitation, ack), std::vector<int>{code}) << row;
      // Only a send changes the local state and arms a time-out; the others' success forgets it.
      bool send = r == 0;
      EXPECT_EQ(invitation->state(), !send || code > 1 ? State::Created : code == 0 ? State::Arrived : State::Failed) << row;
      EXPECT_EQ(armed(), send && code == 0 ? 1u : 0u) << row;
      EXPECT_EQ(store.getInvitation(*invitation) == invitation, send || code != 0) << row;
    }
  }
  EXPECT_EQ(json::serialize(sender->sent("invitationOp").back().payload),
            R"({"type":"refuse","invitation":{"inviter":"alice","invitee":"bob","state":0}})");
}

TEST_F(InvitationKitTest, LocalChecksRefuseInTheirOrderAndSendNothing) {
  auto with = [](const char* inviter, const char* invitee, std::size_t request, std::size_t response = 0) {
    auto invitation = QNBRLInvitation::create(inviter, invitee);
    if (request) invitation->setRequestInfo(std::string(request, 'x'));
    if (response) invitation->setResponseInfo(std::string(response, 'x'));
    return invitation;
  };
  const std::tuple<Request, std::shared_ptr<QNBRLInvitation>, int> rows[] = {
      {&QNBRLInvitationKit::sendInvitation, with("alice", "bob", 0), 5},
      {&QNBRLInvitationKit::cancelInvitation, with("alice", "bob", 0), 5},
      {&QNBRLInvitationKit::acceptInvitation, with("bob", "alice", 0), 5},
      {&QNBRLInvitationKit::refuseInvitation, nullptr, 5},
      {&QNBRLInvitationKit::sendInvitation, with("alice", "bob", 9000), 5},
      {&QNBRLInvitationKit::sendInvitation, with("bob", "alice", 8193), 2},
      {&QNBRLInvitationKit::acceptInvitation, with("alice", "bob", 0, 8193), 2},
  };
  for (const auto& [op, invitation, code] : rows) EXPECT_EQ(run(op, invitation, {}), std::vector<int>{code}) << code;
  EXPECT_EQ(sender->count(), 0u);
  EXPECT_EQ(run(&QNBRLInvitationKit::sendInvitation, with("bob", "alice", 8192, 8192), kOk), std::vector<int>{0});
  state->setLogin(false);
  EXPECT_EQ(run(&QNBRLInvitationKit::sendInvitation, with("alice", "bob", 9000), {}), std::vector<int>{102});
  EXPECT_EQ(sender->count(), 1u);
}

TEST_F(InvitationKitTest, PushedChangesReachTheDelegateByStateWithTheStoredObjectAndBadOnesAreDropped) {
  // State pushed, what the delegate hears, whether it gets the pushed object rather than the stored
  // one, time-outs armed after, whether the store still holds the invitation.
  const std::tuple<int, const char*, bool, std::size_t, bool> rows[] = {
      {1, "failed 0", false, 0, true}, {2, "arrived", false, 1, true}, {3, "canceled", false, 0, false},
      {4, "accept", true, 0, false},   {5, "refused", false, 0, false}, {9, "", false, 0, true},
  };
  for (const auto& [pushed, line, pushedObject, timers, kept] : rows) {
    store.reset();
    heard->clear();
    auto stored = QNBRLInvitation::create("alice", "bob");
    pushState(pushed);
    EXPECT_EQ(stored->state(), static_cast<State>(pushed));
    EXPECT_EQ(lines(), *line ? std::vector<std::string>{line} : std::vector<std::string>{}) << pushed;
    EXPECT_EQ(!heard->empty() && heard->front().second != stored, pushedObject) << pushed;
    EXPECT_EQ(armed(), timers) << pushed;
    EXPECT_EQ(store.getInvitation(*stored) != nullptr, kept) << pushed;
  }
  // The store follows a push only when the delegate took it in.
  heard->clear();
  listen("arrived");
  pushState(2);
  listen("canceled");
  auto stored = QNBRLInvitation::create("alice", "bob");
  pushState(3);
  EXPECT_EQ(armed(), 0u);
  EXPECT_EQ(store.getInvitation(*stored), stored);
  // Malformed pushes are dropped; mistyped texts read as absent.
  listen();
  for (const json::value& state : {json::value("2"), json::value(2.5), json::value(1e300)}) pushState(state);
  push(json::array{json::object{{"invitation", {{"inviter", "alice"}, {"invitee", "bob"}}}}});
  push(json::array{json::object{{"invitation", "x"}}});
  push(json::array{});
  EXPECT_TRUE(heard->empty());
  push(json::array{json::object{{"invitation", {{"inviter", 7}, {"requestInfo", 1}, {"state", 5.0}}}}});
  EXPECT_EQ(lines(), std::vector<std::string>{"refused"});
}

TEST_F(InvitationKitTest, APendingInvitationFailsAfterSixtySecondsAndTheLatestSendCounts) {
  auto first = pending();
  time.advance(30s);
  auto second = pending();  // the same two users: it replaces the first
  time.advance(59999ms);
  EXPECT_TRUE(heard->empty());
  time.advance(1ms);
  ASSERT_EQ(lines(), std::vector<std::string>{"failed 3"});
  EXPECT_EQ(heard->front().second, second);
  EXPECT_EQ(second->state(), State::Failed);
  EXPECT_EQ(first->state(), State::Arrived);
  EXPECT_EQ(store.getInvitation(*first), second);  // kept after firing
  time.advance(120s);
  EXPECT_EQ(heard->size(), 1u);
}

TEST_F(InvitationKitTest, AnsweredResetOrUnheardInvitationsTimeOutQuietly) {
  std::shared_ptr<QNBRLInvitation> invitation;
  const std::function<void()> endings[] = {
      [&] { push(json::array{json::object{{"invitation", {{"inviter", "bob"}, {"invitee", "alice"}, {"state", 4}}}}}); },
      [&] { run(&QNBRLInvitationKit::cancelInvitation, invitation, kOk); },
      [&] { store.reset(); },
      [&] { listen("failed"); },  // a missing callback is a no-op
  };
  for (const auto& end : endings) {
    invitation = pending();
    time.advance(59s);
    end();
    heard->clear();
    time.advance(60s);
    EXPECT_TRUE(heard->empty());
  }
  EXPECT_EQ(invitation->state(), State::Failed);
}

}  // namespace
