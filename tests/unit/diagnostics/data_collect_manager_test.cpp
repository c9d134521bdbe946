#include "diagnostics/data_collect_manager.hpp"

#include "diagnostics/logan_file_manager.hpp"
#include "support/socketio_fixture.hpp"
#include "support/temp_dir.hpp"

#include <gtest/gtest.h>

#include <fstream>

using namespace qnbrl;
using testing_support::waitUntil;
namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

// Keeps each file handed over with its verdict callback, for the test to answer. Read only once the
// collector's queue has been synced.
struct FakeUploader : QNLoganUploadProtocol {
  void uploadFile(const std::string& filePath, std::function<void(bool)> result) override {
    calls.emplace_back(filePath, std::move(result));
  }
  bool isUploading() const override { return false; }
  std::string urlString() const override { return {}; }
  void setUrlString(std::string) override {}
  std::vector<std::pair<std::string, std::function<void(bool)>>> calls;
};

class CollectorTest : public ::testing::Test {
 protected:
  std::shared_ptr<QNDataCollectManager> makeCollector() {
    return QNDataCollectManager::create(uploader, QNLoganFileManager::create(at("logan"), false), false);
  }
  std::string at(const std::string& name) const { return (tmp.path() / name).string(); }
  // The tick goes through the background executor and the timer queue; wait for it to land.
  void tick(QNDataCollectManager& collector, sio::Clock::duration d) {
    time.clock().advance(d);
    ASSERT_TRUE(waitUntil([&] { return time.clock().pending() == 1; }));
    collector.queue()->sync([] {});
  }

  testing_support::ManualTime time;
  std::shared_ptr<FakeUploader> uploader = std::make_shared<FakeUploader>();
  testing_support::TempDir tmp;
};

}  // namespace

TEST_F(CollectorTest, TicksEveryIntervalAndStops) {
  auto collector = makeCollector();
  collector->startUploadTimerWithInterval(60.0);
  tick(*collector, 60s);
  EXPECT_EQ(uploader->calls.size(), 0u);  // nothing waiting, nothing sent
  auto file = at("logan/2020_01_01_00_00_00");
  std::ofstream(file) << "a\n";
  time.clock().advance(59s);
  collector->queue()->sync([] {});
  EXPECT_EQ(uploader->calls.size(), 0u);
  tick(*collector, 1s);
  ASSERT_EQ(uploader->calls.size(), 1u);
  EXPECT_EQ(uploader->calls[0].first, file);

  // Not accepted: the same oldest file is offered again on the next tick.
  uploader->calls[0].second(false);
  tick(*collector, 60s);
  ASSERT_EQ(uploader->calls.size(), 2u);
  EXPECT_EQ(uploader->calls[1].first, file);
  EXPECT_TRUE(fs::exists(file));

  collector->stopUploadTimer();
  EXPECT_EQ(time.clock().pending(), 0u);  // nothing left to fire

  // Restarting replaces the timer rather than adding one; a non-positive interval only stops it.
  collector->startUploadTimerWithInterval(1.5);
  collector->startUploadTimerWithInterval(60.0);
  EXPECT_EQ(time.clock().pending(), 1u);
  collector->startUploadTimerWithInterval(0);
  EXPECT_EQ(time.clock().pending(), 0u);
}

// With a backup, an accepted file moves there instead (the upload integration test).
TEST_F(CollectorTest, AcceptedFileIsDeletedWithoutABackupUnlessTheCollectorIsGone) {
  auto collector = makeCollector();
  auto file = at("logan/2020_01_01_00_00_00");
  std::ofstream(file) << "a\n";
  collector->upload();
  collector = makeCollector();  // the first one is gone before its answer comes
  uploader->calls[0].second(true);
  EXPECT_TRUE(fs::exists(file));
  collector->upload();
  uploader->calls[1].second(true);
  EXPECT_FALSE(fs::exists(file));
  EXPECT_FALSE(fs::exists(at("logan_bak/2020_01_01_00_00_00")));
}
