// Telemetry uploads against the dev server's collection endpoint: whole files, only 204 accepted,
// one upload in flight, time-outs on the clock seam, and every record delivered once and in order.
#include "diagnostics/data_collect_manager.hpp"
#include "diagnostics/logan_file_manager.hpp"
#include "diagnostics/logan_uploader.hpp"
#include "support/socketio_fixture.hpp"
#include "support/temp_dir.hpp"

#include <gtest/gtest.h>

#include <fstream>
#include <future>

using namespace qnbrl;
using namespace testing_support;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

std::string text(const Bytes& bytes) {
  return {bytes.begin(), bytes.end()};
}

class UploadTest : public DevServerSuite {
 protected:
  std::string collectUrl() const { return server_->httpUrl() + "/brl/v1/collect-logan"; }

  static std::future<bool> startUpload(QNLoganUploader& uploader, const std::string& path) {
    auto verdict = std::make_shared<std::promise<bool>>();
    uploader.uploadFile(path, [verdict](bool ok) { verdict->set_value(ok); });
    return verdict->get_future();
  }
  // Uploads one file and waits (bounded) for the verdict.
  static std::optional<bool> upload(QNLoganUploader& uploader, const std::string& path) {
    auto future = startUpload(uploader, path);
    if (future.wait_for(20s) != std::future_status::ready) return std::nullopt;
    return future.get();
  }

  ManualTime time;
  TempDir tmp;
};

}  // namespace

TEST_F(UploadTest, SendsTheWholeFileAndOnlyA204Counts) {
  auto uploader = QNLoganUploader::create(collectUrl());
  auto path = tmp.path() / "2020_01_01_00_00_00";
  std::string content;
  for (int i = 0; i < 300; ++i) content += "{\"line\":" + std::to_string(i) + ",\"bytes\":\"\\u00ff\"}\n";
  content += std::string("\0\x01\xfe", 3);
  std::ofstream(path, std::ios::binary) << content;

  EXPECT_EQ(upload(*uploader, path), true);
  auto uploads = server_->uploads(true);
  ASSERT_EQ(uploads.size(), 1u);
  EXPECT_EQ(uploads[0].request.method, "POST");
  EXPECT_EQ(uploads[0].request.path, "/brl/v1/collect-logan");
  EXPECT_EQ(uploads[0].request.headers.at("content-type"), "application/octet-stream");
  EXPECT_EQ(text(uploads[0].body), content);

  for (int status : {200, 500, 404}) {
    SCOPED_TRACE(status);
    server_->scriptCollection(CollectionAnswer().status(status).times(1));
    EXPECT_EQ(upload(*uploader, path), false);  // and the uploader takes the next file
  }
  EXPECT_EQ(upload(*uploader, (tmp.path() / "missing").string()), false);
  auto refused = QNLoganUploader::create("http://127.0.0.1:1/brl/v1/collect-logan");
  EXPECT_EQ(upload(*refused, path), false);
}

TEST_F(UploadTest, OneUploadInFlightAndAStallEndsAfterThirtySeconds) {
  server_->scriptCollection(CollectionAnswer().stall().times(1));
  auto uploader = QNLoganUploader::create(collectUrl());
  auto path = (tmp.path() / "f").string();
  std::ofstream(path) << "x\n";
  auto future = startUpload(*uploader, path);
  ASSERT_TRUE(waitUntil([&] { return server_->uploads().size() == 1; }));
  EXPECT_TRUE(uploader->isUploading());

  std::atomic<int> secondCalls = 0;
  uploader->uploadFile(path, [&](bool) { ++secondCalls; });
  uploader->queue()->sync([] {});

  time.advance(29s);
  EXPECT_EQ(future.wait_for(0s), std::future_status::timeout);
  time.advance(1s);
  ASSERT_EQ(future.wait_for(10s), std::future_status::ready);
  EXPECT_FALSE(future.get());
  EXPECT_FALSE(uploader->isUploading());
  EXPECT_EQ(secondCalls, 0);
  EXPECT_EQ(server_->uploads().size(), 1u);
}

TEST_F(UploadTest, EveryRecordArrivesOnceAndInOrderAndAcceptedFilesAreBackedUp) {
  auto collector = QNDataCollectManager::create(collectUrl(), (tmp.path() / "logan").string(), true);
  auto store = std::dynamic_pointer_cast<QNLoganFileManager>(collector->loganFileManager());
  auto uploader = std::dynamic_pointer_cast<QNLoganUploader>(collector->loganUploader());
  for (int i = 0; i < 250; ++i) collector->writeLog("record " + std::to_string(i));
  store->queue()->sync([] {});
  collector->startUploadTimerWithInterval(60.0);
  auto somethingWaits = [&] {
    for (const auto& e : fs::directory_iterator(tmp.path() / "logan")) {
      if (fs::file_size(e.path()) > 0) return true;
    }
    return false;
  };
  // One file per tick. How many files it takes depends on whether close-offs fell within one second
  // (the later rename then fails and the records stay in the working file).
  std::string received;
  for (std::size_t sent = 1; somethingWaits() && sent < 10; ++sent) {
    time.advance(60s);
    ASSERT_TRUE(waitUntil([&] { return server_->uploads().size() == sent; }));
    ASSERT_TRUE(waitUntil([&] { return !uploader->isUploading(); }));
    uploader->queue()->sync([] {});
    received += text(server_->uploads().back().body);
  }
  std::string expected;
  for (int i = 0; i < 250; ++i) expected += "record " + std::to_string(i) + "\n";
  EXPECT_EQ(received, expected);
  EXPECT_FALSE(somethingWaits());
  EXPECT_FALSE(fs::is_empty(tmp.path() / "logan_bak"));
  collector->stopUploadTimer();
}
