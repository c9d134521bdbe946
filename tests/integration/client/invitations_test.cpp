// Call invitations between real clients through the dev server's model of the service.
#include "support/session_fixture.hpp"

using namespace qnbrl;
using namespace testing_support;
using namespace std::chrono_literals;

namespace {

// A user's invitation kit and what its delegate heard, as "<what> <requestInfo>/<responseInfo>";
// shared with callbacks that may outlive the test.
struct Calls {
  explicit Calls(QNBRLKit& client) : kit(client.getBRLInvitationKit()) {
    auto note = [heard = heard](std::string what) {
      return [heard, what](QNBRLInvitationKit&, const std::shared_ptr<QNBRLInvitation>& i, int = 0) {
        std::lock_guard lock(heard->mutex);
        heard->lines.push_back(what + " " + i->requestInfo().value_or("-") + "/" + i->responseInfo().value_or("-"));
      };
    };
    delegate->invitationArrived = note("arrived");
    delegate->invitationCanceled = note("canceled");
    delegate->invitationAccept = note("accept");
    delegate->invitationRefused = note("refused");
    delegate->invitationFailed = note("failed");
    kit->setDelegate(delegate);
  }
  bool hears(const std::string& line, std::chrono::milliseconds limit = 10s) const {
    return waitUntil(
        [&] {
      std::lock_guard lock(heard->mutex);
      return std::find(heard->lines.begin(), heard->lines.end(), line) != heard->lines.end();
        },
        limit);
  }
  int run(void (QNBRLInvitationKit::*op)(const std::shared_ptr<QNBRLInvitation>&, QNBRLInvitationKit::Completion),
          const std::shared_ptr<QNBRLInvitation>& invitation) {
    Codes codes;
    ((*kit).*op)(invitation, codes.completion());
    return codes.await();
  }

  struct Heard {
    std::mutex mutex;
    std::vector<std::string> lines;
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
  Listener bobListener;
  auto bobClient = client("bob", A, bobListener);
  auto aliceClient = client("alice", B);
  Calls bob(*bobClient), alice(*aliceClient);
  // In one process both clients share the record of invitations: alice answers bob's own object.
  auto first = QNBRLInvitation::create("bob", "alice");
  first->setRequestInfo("call?");
  ASSERT_EQ(bob.run(&QNBRLInvitationKit::sendInvitation, first), 0);
  ASSERT_TRUE(alice.hears("arrived call?/-"));
  first->setResponseInfo("yes");
  ASSERT_EQ(alice.run(&QNBRLInvitationKit::acceptInvitation, first), 0);
  EXPECT_TRUE(bob.hears("accept call?/yes"));
  EXPECT_TRUE(alice.hears("accept call?/yes"));  // the server tells both

  auto second = QNBRLInvitation::create("bob", "alice");
  ASSERT_EQ(bob.run(&QNBRLInvitationKit::sendInvitation, second), 0);
  ASSERT_TRUE(alice.hears("arrived -/-"));
  ASSERT_EQ(alice.run(&QNBRLInvitationKit::refuseInvitation, second), 0);
  EXPECT_TRUE(bob.hears("refused -/-"));

  ASSERT_EQ(bob.run(&QNBRLInvitationKit::sendInvitation, second), 0);
  ASSERT_EQ(bob.run(&QNBRLInvitationKit::cancelInvitation, second), 0);
  EXPECT_TRUE(alice.hears("canceled -/-"));
  // Nothing is pending at the server any more; its codes 4 and 3 are passed through.
  EXPECT_EQ(alice.run(&QNBRLInvitationKit::acceptInvitation, second), QNBRLInvitationErrorServerCode4);
  EXPECT_EQ(bob.run(&QNBRLInvitationKit::sendInvitation, QNBRLInvitation::create("bob", "carol")),
            QNBRLInvitationErrorServerCode3);

  // A logout drops every pending time-out, the one armed when the invitation arrived too.
  auto last = QNBRLInvitation::create("bob", "alice");
  last->setRequestInfo("last");
  ASSERT_EQ(bob.run(&QNBRLInvitationKit::sendInvitation, last), 0);
  ASSERT_TRUE(alice.hears("arrived last/-"));
  bobClient->logoutWithCompletion({});
  ASSERT_TRUE(bobListener.waitFor({1, 6}));
  time_.advance(60s);
  EXPECT_FALSE(bob.hears("failed last/-", 0ms) || alice.hears("failed last/-", 0ms));
}

}  // namespace
