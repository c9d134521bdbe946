#include "diagnostics/data_collect_manager.hpp"

#include "diagnostics/logan_file_manager.hpp"
#include "socketio/clock.hpp"
#include "support/temp_dir.hpp"
#include "support/wait.hpp"

#include <gtest/gtest.h>

#include <fstream>

using namespace qnbrl;
using testing_support::TempDir;
using testing_support::waitUntil;
namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

std::string under(const TempDir& dir, const std::string& name) {
  return (dir.path() / name).string();
}

// Records each file handed over and lets the test answer when it likes.
class FakeUploader : public QNLoganUploadProtocol {
 public:
  void uploadFile(const std::string& filePath, std::function<void(bool)> result) override {
    std::lock_guard lock(mutex);
    paths.push_back(filePath);
    results.push_back(std::move(result));
  }
  bool isUploading() const override { return false; }
  std::string urlString() const override { return {}; }
  void setUrlString(std::string) override {}
  std::size_t calls() const {
    std::lock_guard lock(mutex);
    return paths.size();
  }
  void answer(std::size_t i, bool accepted) {
    std::function<void(bool)> r;
    {
      std::lock_guard lock(mutex);
      r = results.at(i);
    }
    r(accepted);
  }

  mutable std::mutex mutex;
  std::vector<std::string> paths;
  std::vector<std::function<void(bool)>> results;
};

class CollectorTest : public ::testing::Test {
 protected:
  void SetUp() override { sio::Clock::install(clock); }
  void TearDown() override { sio::Clock::install(nullptr); }

  std::shared_ptr<QNDataCollectManager> makeCollector(bool backup) {
    store = QNLoganFileManager::create(under(tmp, "logan"), backup);
    return QNDataCollectManager::create(uploader, store, backup);
  }
  std::string waitingFile(const std::string& name, const std::string& content) {
    auto path = under(tmp, "logan/" + name);
    std::ofstream(path) << content;
    return path;
  }
  // The tick goes through the background executor and the timer queue; wait for it to land.
  void tick(QNDataCollectManager& collector, sio::Clock::duration d) {
    clock->advance(d);
    ASSERT_TRUE(waitUntil([&] { return clock->pending() == 1; }));
    collector.queue()->sync([] {});
  }

  std::shared_ptr<sio::ManualClock> clock = std::make_shared<sio::ManualClock>();
  std::shared_ptr<FakeUploader> uploader = std::make_shared<FakeUploader>();
  std::shared_ptr<QNLoganFileManager> store;
  TempDir tmp;
};

}  // namespace

TEST_F(CollectorTest, TicksEveryIntervalAndStops) {
  auto collector = makeCollector(false);
  collector->startUploadTimerWithInterval(60.0);
  tick(*collector, 60s);
  EXPECT_EQ(uploader->calls(), 0u);  // nothing waiting, nothing sent
  auto file = waitingFile("2020_01_01_00_00_00", "a\n");
  clock->advance(59s);
  collector->queue()->sync([] {});
  EXPECT_EQ(uploader->calls(), 0u);
  tick(*collector, 1s);
  ASSERT_TRUE(waitUntil([&] { return uploader->calls() == 1; }));
  EXPECT_EQ(uploader->paths[0], file);

  // Not accepted: the same oldest file is offered again on the next tick.
  uploader->answer(0, false);
  tick(*collector, 60s);
  ASSERT_TRUE(waitUntil([&] { return uploader->calls() == 2; }));
  EXPECT_EQ(uploader->paths[1], file);
  EXPECT_TRUE(fs::exists(file));

  collector->stopUploadTimer();
  EXPECT_EQ(clock->pending(), 0u);
  clock->advance(600s);
  collector->queue()->sync([] {});
  EXPECT_EQ(uploader->calls(), 2u);

  // Restarting replaces the timer rather than adding one; a non-positive interval only stops it.
  collector->startUploadTimerWithInterval(1.5);
  collector->startUploadTimerWithInterval(60.0);
  EXPECT_EQ(clock->pending(), 1u);
  collector->startUploadTimerWithInterval(0);
  EXPECT_EQ(clock->pending(), 0u);
}

// With a backup, an accepted file moves there instead (the upload integration test).
TEST_F(CollectorTest, AcceptedFileIsDeletedWithoutABackup) {
  auto collector = makeCollector(false);
  auto file = waitingFile("2020_01_01_00_00_00", "a\n");
  collector->upload();
  ASSERT_EQ(uploader->calls(), 1u);
  uploader->answer(0, true);
  EXPECT_FALSE(fs::exists(file));
  EXPECT_FALSE(fs::exists(under(tmp, "logan_bak/2020_01_01_00_00_00")));
}

TEST_F(CollectorTest, AnswerAfterTheCollectorIsGoneLeavesTheFile) {
  auto collector = makeCollector(false);
  auto file = waitingFile("2020_01_01_00_00_00", "a\n");
  collector->upload();
  collector.reset();
  uploader->answer(0, true);
  EXPECT_TRUE(fs::exists(file));
}
