// The real minute after which an invitation nobody answers fails.
#include "support/feature_fixture.hpp"

#include <future>

using namespace qnbrl;
using namespace std::chrono_literals;

TEST(InvitationRealTime, AnUnansweredInvitationFailsSixtySecondsAfterItsSend) {
  auto state = std::make_shared<QNBRLStateManager>("app");
  state->setLogin(true);
  state->setUserId("bob");
  auto sender = std::make_shared<testing_support::InMemorySender>();
  auto kit = QNBRLInvitationKit::Impl::create(std::make_shared<RequestPath>(state, sender), state);
  auto failed = std::make_shared<std::promise<int>>();
  auto delegate = std::make_shared<QNBRLInvitationDelegate>();
  delegate->invitationFailed = [failed](QNBRLInvitationKit&, const auto&, int code) { failed->set_value(code); };
  kit->setDelegate(delegate);
  kit->sendInvitation(QNBRLInvitation::create("bob", "alice"), {});
  auto start = std::chrono::steady_clock::now();
  sender->answer({boost::json::object{{"result", 0}}});
  auto code = failed->get_future();
  ASSERT_EQ(code.wait_for(65s), std::future_status::ready);
  auto took = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_EQ(code.get(), 3);
  EXPECT_GE(took, 60.0);
  EXPECT_LT(took, 60.5);
}
