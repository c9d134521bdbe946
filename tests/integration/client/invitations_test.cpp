// Call invitations between real clients through the dev server's model of the service.
#include "support/session_fixture.hpp"

using namespace qnbrl;
using namespace testing_support;
using namespace std::chrono_literals;

namespace {

using Request = void (QNBRLInvitationKit::*)(const std::shared_ptr<QNBRLInvitation>&, QNBRLInvitationKit::Completion);

// A user's invitation kit and what its delegate heard, as "<what> <requestInfo>/<responseInfo>" with
// the object it came with; shared with callbacks that may outlive the test.
struct Calls {
  explicit Calls(QNBRLKit& client) : kit(client.getBRLInvitationKit()) {
    auto note = [heard = heard](std::string what) {
      return [heard, what](QNBRLInvitationKit&, const std::shared_ptr<QNBRLInvitation>& i) {
        std::lock_guard lock(heard->mutex);
        heard->all.emplace_back(what + " " + i->requestInfo().value_or("-") + "/" + i->responseInfo().value_or("-"), i);
      };
    };
    delegate->invitationArrived = note("arrived");
    delegate->invitationCanceled = note("canceled");
    delegate->invitationAccept = note("accept");
    delegate->invitationRefused = note("refused");
    delegate->invitationFailed = [note](QNBRLInvitationKit& k, const std::shared_ptr<QNBRLInvitation>& i, int) {
      note("failed")(k, i);
    };
    kit->setDelegate(delegate);
  }
  std::shared_ptr<QNBRLInvitation> await(const std::string& line) const {
    std::shared_ptr<QNBRLInvitation> found;
    EXPECT_TRUE(waitUntil([&] {
      std::lock_guard lock(heard->mutex);
      for (const auto& entry : heard->all) found = entry.first == line ? entry.second : found;
      return found != nullptr;
    })) << line;
    return found;
  }
  int run(Request op, const std::shared_ptr<QNBRLInvitation>& invitation) {
    Codes codes;
    ((*kit).*op)(invitation, codes.completion());
    return codes.await();
  }

  struct Heard {
    std::mutex mutex;
    std::vector<std::pair<std::string, std::shared_ptr<QNBRLInvitation>>> all;
  };
  std::shared_ptr<Heard> heard = std::make_shared<Heard>();
  std::shared_ptr<QNBRLInvitationKit> kit;
  std::shared_ptr<QNBRLInvitationDelegate> delegate = std::make_shared<QNBRLInvitationDelegate>();
};

class InvitationsTest : public SessionTest {
 protected:
  // A logged-in client on tavern server `server`: discovery lists that one first.
  std::shared_ptr<QNBRLKit> client(const std::string& id, int server, const Listener& listener = {}) {
    auto kit = makeKit(listener);
    auto urls = server_->tavernUrls();
    std::rotate(urls.begin(), urls.begin() + server, urls.end());
    EXPECT_TRUE(server_->scriptDiscovery(DiscoveryAnswer().servers(urls).times(1)));
    EXPECT_EQ(login(*kit, id), 0);
    return kit;
  }
};

TEST_F(InvitationsTest, InvitationsAreAcceptedRefusedAndCancelledAcrossTavernServers) {
  auto bobClient = client("bob", A);
  auto aliceClient = client("alice", B);
  Calls bob(*bobClient), alice(*aliceClient);
  auto invitation = QNBRLInvitation::create("bob", "alice");
  invitation->setRequestInfo("call?");
  ASSERT_EQ(bob.run(&QNBRLInvitationKit::sendInvitation, invitation), 0);
  auto arrived = alice.await("arrived call?/-");
  ASSERT_TRUE(arrived);
  arrived->setResponseInfo("yes");
  ASSERT_EQ(alice.run(&QNBRLInvitationKit::acceptInvitation, arrived), 0);
  EXPECT_TRUE(bob.await("accept call?/yes"));
  EXPECT_TRUE(alice.await("accept call?/yes"));  // the server tells both

  ASSERT_EQ(bob.run(&QNBRLInvitationKit::sendInvitation, QNBRLInvitation::create("bob", "alice")), 0);
  ASSERT_EQ(alice.run(&QNBRLInvitationKit::refuseInvitation, alice.await("arrived -/-")), 0);
  EXPECT_TRUE(bob.await("refused -/-"));

  auto third = QNBRLInvitation::create("bob", "alice");
  third->setRequestInfo("again?");
  ASSERT_EQ(bob.run(&QNBRLInvitationKit::sendInvitation, third), 0);
  arrived = alice.await("arrived again?/-");
  ASSERT_EQ(bob.run(&QNBRLInvitationKit::cancelInvitation, third), 0);
  EXPECT_TRUE(alice.await("canceled again?/-"));
  // Nothing is pending at the server any more; its codes 4 and 3 are passed through.
  EXPECT_EQ(alice.run(&QNBRLInvitationKit::acceptInvitation, arrived), QNBRLInvitationErrorServerCode4);
  EXPECT_EQ(bob.run(&QNBRLInvitationKit::sendInvitation, QNBRLInvitation::create("bob", "carol")),
            QNBRLInvitationErrorServerCode3);
}

TEST_F(InvitationsTest, LoggingOutDropsEveryPendingTimeOut) {
  Listener listener;
  auto bobClient = client("bob", A, listener);
  auto aliceClient = client("alice", B);  // she never asks for her invitation kit: pushes reach nobody
  Calls bob(*bobClient);
  auto invitation = QNBRLInvitation::create("bob", "alice");
  ASSERT_EQ(bob.run(&QNBRLInvitationKit::sendInvitation, invitation), 0);
  Codes out;
  bobClient->logoutWithCompletion(out.completion());
  ASSERT_TRUE(listener.waitFor({1, 6}));
  time_.advance(60s);
  std::lock_guard lock(bob.heard->mutex);
  EXPECT_TRUE(bob.heard->all.empty());
  EXPECT_EQ(invitation->state(), QNBRLInvitationState::Arrived);
}

}  // namespace
