// The real minute after which an invitation nobody answers fails.
#include "support/session_fixture.hpp"

#include <future>

using namespace qnbrl;
using namespace testing_support;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

TEST(InvitationRealTime, AnUnansweredInvitationFailsSixtySecondsAfterItsSend) {
  DevServerOptions options;
  options.tavern = 1;
  options.tavernTls = 0;
  options.session = true;
  DevServer server(options);
  ASSERT_TRUE(server.ready());
  QNBRLOptions kitOptions;
  kitOptions.envConfig.apiServer = server.httpUrl();
  auto bob = QNBRLKit::create("app-1", {}, kitOptions);
  auto alice = QNBRLKit::create("app-1", {}, kitOptions);  // online, without an invitation kit
  for (auto& [kit, user] : {std::pair{bob, "bob"}, {alice, "alice"}}) {
    Codes codes;
    kit->loginByToken("t", 1, user, codes.completion());
    ASSERT_EQ(codes.await(), 0);
  }
  auto failed = std::make_shared<std::promise<int>>();
  auto delegate = std::make_shared<QNBRLInvitationDelegate>();
  delegate->invitationFailed = [failed](QNBRLInvitationKit&, const std::shared_ptr<QNBRLInvitation>&, int code) {
    failed->set_value(code);
  };
  auto kit = bob->getBRLInvitationKit();
  kit->setDelegate(delegate);
  auto invitation = QNBRLInvitation::create("bob", "alice");
  Codes sent;
  kit->sendInvitation(invitation, sent.completion());
  ASSERT_EQ(sent.await(), 0);
  auto start = Clock::now();
  auto code = failed->get_future();
  ASSERT_EQ(code.wait_for(65s), std::future_status::ready);
  auto took = std::chrono::duration<double>(Clock::now() - start).count();
  EXPECT_EQ(code.get(), 3);
  EXPECT_GE(took, 59.9);
  EXPECT_LT(took, 60.9);
  EXPECT_EQ(invitation->state(), QNBRLInvitationState::Failed);
}

}  // namespace
