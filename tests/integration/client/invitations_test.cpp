// Call invitations between real clients through the dev server's model of the service: the full
// exchanges, the codes the server passes through, and the time-outs that a logout drops.
#include "support/session_fixture.hpp"

using namespace qnbrl;
using namespace testing_support;
using namespace std::chrono_literals;

namespace {

// What a user's invitation delegate heard, as "<what> <inviter>><invitee> <requestInfo>/<responseInfo>",
// with the objects it came with. Shared with callbacks that may outlive the test.
class Calls {
 public:
  explicit Calls(QNBRLKit& kit) : kit(kit.getBRLInvitationKit()) {
    auto heard = heard_;
    auto note = [heard](std::string what) {
      return [heard, what](QNBRLInvitationKit&, const std::shared_ptr<QNBRLInvitation>& i) {
        std::lock_guard lock(heard->mutex);
        heard->all.emplace_back(what + " " + i->inviter() + ">" + i->invitee() + " " + i->requestInfo().value_or("-") +
                                    "/" + i->responseInfo().value_or("-"),
                                i);
      };
    };
    delegate->invitationArrived = note("arrived");
    delegate->invitationCanceled = note("canceled");
    delegate->invitationAccept = note("accept");
    delegate->invitationRefused = note("refused");
    delegate->invitationFailed = [note](QNBRLInvitationKit& k, const std::shared_ptr<QNBRLInvitation>& i, int code) {
      note("failed " + std::to_string(code))(k, i);
    };
    this->kit->setDelegate(delegate);
  }

  // The invitation that came with `line`, once heard.
  std::shared_ptr<QNBRLInvitation> await(const std::string& line) const {
    std::shared_ptr<QNBRLInvitation> found;
    waitUntil([&] {
      std::lock_guard lock(heard_->mutex);
      for (const auto& [text, invitation] : heard_->all) {
        if (text == line) found = invitation;
      }
      return found != nullptr;
    });
    EXPECT_TRUE(found) << "never heard " << line;
    return found;
  }
  std::vector<std::string> lines() const {
    std::lock_guard lock(heard_->mutex);
    std::vector<std::string> out;
    for (const auto& entry : heard_->all) out.push_back(entry.first);
    return out;
  }

  std::shared_ptr<QNBRLInvitationKit> kit;
  std::shared_ptr<QNBRLInvitationDelegate> delegate = std::make_shared<QNBRLInvitationDelegate>();

 private:
  struct Heard {
    std::mutex mutex;
    std::vector<std::pair<std::string, std::shared_ptr<QNBRLInvitation>>> all;
  };
  std::shared_ptr<Heard> heard_ = std::make_shared<Heard>();
};

class InvitationsTest : public SessionTest {
 protected:
  // A logged-in client of `id` on tavern server `server`.
  std::shared_ptr<QNBRLKit> client(const std::string& id, int server, const Listener& listener = {}) {
    auto kit = makeKit(listener);
    // Discovery lists the chosen server first, so that users can be put on different servers.
    auto urls = server_->tavernUrls();
    std::rotate(urls.begin(), urls.begin() + server, urls.end());
    EXPECT_TRUE(server_->scriptDiscovery(DiscoveryAnswer().servers(urls).times(1)));
    EXPECT_EQ(login(*kit, id), 0);
    return kit;
  }

  static int call(void (QNBRLInvitationKit::*op)(const std::shared_ptr<QNBRLInvitation>&, QNBRLInvitationKit::Completion),
                  Calls& calls, const std::shared_ptr<QNBRLInvitation>& invitation) {
    Codes codes;
    ((*calls.kit).*op)(invitation, codes.completion());
    return codes.await();
  }
};

TEST_F(InvitationsTest, InvitationsAreAcceptedRefusedAndCancelledAcrossTavernServers) {
  auto bobClient = client("bob", A);
  auto aliceClient = client("alice", B);
  Calls bob(*bobClient), alice(*aliceClient);

  auto invitation = QNBRLInvitation::create("bob", "alice");
  invitation->setRequestInfo("call?");
  ASSERT_EQ(call(&QNBRLInvitationKit::sendInvitation, bob, invitation), 0);
  EXPECT_EQ(invitation->state(), QNBRLInvitationState::Arrived);
  auto arrived = alice.await("arrived bob>alice call?/-");
  ASSERT_TRUE(arrived);
  arrived->setResponseInfo("on my way");
  ASSERT_EQ(call(&QNBRLInvitationKit::acceptInvitation, alice, arrived), 0);
  EXPECT_TRUE(bob.await("accept bob>alice call?/on my way"));
  EXPECT_TRUE(alice.await("accept bob>alice call?/on my way"));  // the server tells both

  auto second = QNBRLInvitation::create("bob", "alice");
  ASSERT_EQ(call(&QNBRLInvitationKit::sendInvitation, bob, second), 0);
  arrived = alice.await("arrived bob>alice -/-");
  ASSERT_TRUE(arrived);
  ASSERT_EQ(call(&QNBRLInvitationKit::refuseInvitation, alice, arrived), 0);
  EXPECT_TRUE(bob.await("refused bob>alice -/-"));

  auto third = QNBRLInvitation::create("bob", "alice");
  third->setRequestInfo("again?");
  ASSERT_EQ(call(&QNBRLInvitationKit::sendInvitation, bob, third), 0);
  arrived = alice.await("arrived bob>alice again?/-");
  ASSERT_EQ(call(&QNBRLInvitationKit::cancelInvitation, bob, third), 0);
  EXPECT_TRUE(alice.await("canceled bob>alice again?/-"));
  // Cancelled: nothing is pending at the server any more, and its code 4 is passed through.
  ASSERT_TRUE(bob.await("canceled bob>alice again?/-"));
  EXPECT_EQ(call(&QNBRLInvitationKit::acceptInvitation, alice, arrived), QNBRLInvitationErrorServerCode4);
  EXPECT_EQ(call(&QNBRLInvitationKit::sendInvitation, bob, QNBRLInvitation::create("bob", "carol")),
            QNBRLInvitationErrorServerCode3);
  EXPECT_EQ(bob.lines(), (std::vector<std::string>{"accept bob>alice call?/on my way", "refused bob>alice -/-",
                                                   "canceled bob>alice again?/-"}));
}

TEST_F(InvitationsTest, LoggingOutDropsEveryPendingTimeOut) {
  Listener listener;
  auto bobClient = client("bob", A, listener);
  auto aliceClient = client("alice", B);  // she never asks for her invitation kit: pushes reach nobody
  Calls bob(*bobClient);
  auto invitation = QNBRLInvitation::create("bob", "alice");
  ASSERT_EQ(call(&QNBRLInvitationKit::sendInvitation, bob, invitation), 0);
  Codes out;
  bobClient->logoutWithCompletion(out.completion());
  ASSERT_EQ(out.await(), 0);
  ASSERT_TRUE(listener.waitFor({1, 6}));
  time_.advance(60s);
  EXPECT_TRUE(bob.lines().empty());
  EXPECT_EQ(invitation->state(), QNBRLInvitationState::Arrived);
}

}  // namespace
