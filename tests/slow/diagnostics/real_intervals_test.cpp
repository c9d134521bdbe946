// The real duration behind the clock seam: the 6-second HTTP request time-out, on the steady clock.
// (Timer cadence and the upload interval are checked on the manual clock in the unit tests.)
#include "support/http_request.hpp"

#include <gtest/gtest.h>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

#include <future>

using namespace qnbrl;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

TEST(RealIntervals, SilentServerEndsARequestAfterSixSeconds) {
  // A listening socket that is never accepted: the TCP connect succeeds, then nothing is answered.
  boost::asio::io_context ioc;
  boost::asio::ip::tcp::acceptor acceptor(ioc, {boost::asio::ip::make_address("127.0.0.1"), 0});
  auto url = "http://127.0.0.1:" + std::to_string(acceptor.local_endpoint().port()) + "/";
  auto done = std::make_shared<std::promise<std::error_code>>();
  auto future = done->get_future();
  auto start = Clock::now();
  QNHttpRequest::getRequest(url,
                            [done](std::optional<std::string>, std::error_code ec) { done->set_value(ec); });
  ASSERT_EQ(future.wait_for(15s), std::future_status::ready);
  auto took = Clock::now() - start;
  EXPECT_EQ(future.get(), std::errc::timed_out);
  EXPECT_GE(took, 6s);
  EXPECT_LT(took, 7s);
}
