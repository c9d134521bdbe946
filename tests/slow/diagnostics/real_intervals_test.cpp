// The real durations behind the clock seam: the repeating upload timer (its 60-second interval scaled
// down to 2 seconds, same code path) and the 6-second HTTP request time-out, on the steady clock.
#include "diagnostics/data_collect_manager.hpp"
#include "diagnostics/logan_file_manager.hpp"
#include "support/temp_dir.hpp"
#include "support/wait.hpp"
#include "transport/http_request.hpp"

#include <gtest/gtest.h>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

#include <fstream>
#include <future>

using namespace qnbrl;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

// Notes the time of every file handed over; never accepts, so the same file is offered each tick.
class TimingUploader : public QNLoganUploadProtocol {
 public:
  void uploadFile(const std::string&, std::function<void(bool)> result) override {
    {
      std::lock_guard lock(mutex);
      times.push_back(Clock::now());
    }
    result(false);
  }
  bool isUploading() const override { return false; }
  std::string urlString() const override { return {}; }
  void setUrlString(std::string) override {}
  std::vector<Clock::time_point> snapshot() {
    std::lock_guard lock(mutex);
    return times;
  }

  std::mutex mutex;
  std::vector<Clock::time_point> times;
};

}  // namespace

TEST(RealIntervals, UploadTicksKeepTheirCadence) {
  testing_support::TempDir tmp;
  auto uploader = std::make_shared<TimingUploader>();
  auto store = QNLoganFileManager::create((tmp.path() / "logan").string(), false);
  std::ofstream(tmp.path() / "logan" / "2020_01_01_00_00_00") << "x\n";
  auto collector = QNDataCollectManager::create(uploader, store, false);

  constexpr auto interval = 2s;
  auto start = Clock::now();
  collector->startUploadTimerWithInterval(2.0);
  ASSERT_TRUE(testing_support::waitUntil([&] { return uploader->snapshot().size() >= 3; }, 15s));
  collector->stopUploadTimer();
  auto times = uploader->snapshot();
  for (std::size_t i = 0; i < 3; ++i) {
    auto due = start + interval * static_cast<int>(i + 1);
    SCOPED_TRACE(i);
    // Never early, and late only by scheduling noise: the cadence is kept from the first deadline.
    EXPECT_GE(times[i], due);
    EXPECT_LT(times[i], due + 500ms);
  }
}

TEST(RealIntervals, SilentServerEndsARequestAfterSixSeconds) {
  // A listening socket that is never accepted: the TCP connect succeeds, then nothing is answered.
  boost::asio::io_context ioc;
  boost::asio::ip::tcp::acceptor acceptor(ioc, {boost::asio::ip::make_address("127.0.0.1"), 0});
  auto url = "http://127.0.0.1:" + std::to_string(acceptor.local_endpoint().port()) + "/";
  std::promise<std::error_code> done;
  auto future = done.get_future();
  auto start = Clock::now();
  QNHttpRequest::getRequest(url,
                            [&done](std::optional<std::string>, std::error_code ec) { done.set_value(ec); });
  ASSERT_EQ(future.wait_for(15s), std::future_status::ready);
  auto took = Clock::now() - start;
  EXPECT_EQ(future.get(), std::errc::timed_out);
  EXPECT_GE(took, 6s);
  EXPECT_LT(took, 7s);
}
