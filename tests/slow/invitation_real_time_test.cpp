// The real minute after which an invitation nobody answers fails.
#include "support/session_fixture.hpp"

#include <future>

using namespace qnbrl;
using namespace testing_support;
using namespace std::chrono_literals;

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
  Codes codes;
  bob->loginByToken("t", 1, "bob", codes.completion());
  alice->loginByToken("t", 1, "alice", codes.completion());
  ASSERT_EQ(codes.await(2), 0);
  ASSERT_EQ(codes.all(), (std::vector<int>{0, 0}));

  auto failed = std::make_shared<std::promise<int>>();
  auto delegate = std::make_shared<QNBRLInvitationDelegate>();
  delegate->invitationFailed = [failed](QNBRLInvitationKit&, const auto&, int code) { failed->set_value(code); };
  bob->getBRLInvitationKit()->setDelegate(delegate);
  bob->getBRLInvitationKit()->sendInvitation(QNBRLInvitation::create("bob", "alice"), codes.completion());
  ASSERT_EQ(codes.await(3), 0);
  auto start = std::chrono::steady_clock::now();
  auto code = failed->get_future();
  ASSERT_EQ(code.wait_for(65s), std::future_status::ready);
  auto took = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_EQ(code.get(), 3);
  EXPECT_GE(took, 59.9);
  EXPECT_LT(took, 60.9);
}

}  // namespace
