// Call invitations between real clients through the dev server's model of the service.
#include "invitations/invitation_store.hpp"
#include "support/users_fixture.hpp"

using namespace testing_support;

namespace {

using Request = void (QNBRLInvitationKit::*)(const std::shared_ptr<QNBRLInvitation>&, QNBRLInvitationKit::Completion);
constexpr Request kSend = &QNBRLInvitationKit::sendInvitation;

class InvitationsTest : public UsersTest {
 protected:
  static int run(User& user, Request op, const std::shared_ptr<QNBRLInvitation>& invitation) {
    Codes codes;
    ((*user.kit->getBRLInvitationKit()).*op)(invitation, codes.completion());
    return codes.await();
  }
};

TEST_F(InvitationsTest, InvitationsAreAnsweredAcrossTavernServersAndALogoutDropsTheirTimeOuts) {
  auto bob = user("bob", A, false);
  auto alice = user("alice", B, false);
  for (auto* u : {bob.get(), alice.get()}) u->kit->getBRLInvitationKit()->setDelegate(u->inbox.invitation);
  // In one process both clients share the record of invitations: alice answers bob's own object.
  auto first = QNBRLInvitation::create("bob", "alice");
  first->setRequestInfo("call?");
  ASSERT_EQ(run(*bob, kSend, first), 0);
  ASSERT_TRUE(alice->inbox.waitFor("invitation arrived call?/-"));
  first->setResponseInfo("yes");
  ASSERT_EQ(run(*alice, &QNBRLInvitationKit::acceptInvitation, first), 0);
  EXPECT_TRUE(bob->inbox.waitFor("invitation accept call?/yes"));
  EXPECT_TRUE(alice->inbox.waitFor("invitation accept call?/yes"));  // the server tells both

  auto second = QNBRLInvitation::create("bob", "alice");
  ASSERT_EQ(run(*bob, kSend, second), 0);
  ASSERT_TRUE(alice->inbox.waitFor("invitation arrived -/-"));
  ASSERT_EQ(run(*alice, &QNBRLInvitationKit::refuseInvitation, second), 0);
  EXPECT_TRUE(bob->inbox.waitFor("invitation refused -/-"));

  ASSERT_EQ(run(*bob, kSend, second), 0);
  ASSERT_EQ(run(*bob, &QNBRLInvitationKit::cancelInvitation, second), 0);
  EXPECT_TRUE(alice->inbox.waitFor("invitation canceled -/-"));
  // Nothing is pending at the server any more; its codes 4 and 3 are passed through.
  EXPECT_EQ(run(*alice, &QNBRLInvitationKit::acceptInvitation, second), QNBRLInvitationErrorServerCode4);
  EXPECT_EQ(run(*bob, kSend, QNBRLInvitation::create("bob", "carol")), QNBRLInvitationErrorServerCode3);

  // The logout forgets the time-outs, the one armed when the invitation arrived too.
  ASSERT_EQ(run(*bob, kSend, first), 0);
  ASSERT_TRUE(alice->inbox.waitFor("invitation arrived call?/yes"));
  bob->kit->logoutWithCompletion({});
  ASSERT_TRUE(waitUntil([&] { return !QNInvitationStore::shared().getInvitation(*first); }));
  time_.advance(60s);
  for (auto* u : {bob.get(), alice.get()}) {
    auto heard = u->inbox.all();
    EXPECT_EQ(std::count(heard.begin(), heard.end(), "invitation failed call?/yes"), 0);
  }
}

}  // namespace
