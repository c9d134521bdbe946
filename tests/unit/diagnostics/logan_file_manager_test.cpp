#include "diagnostics/logan_file_manager.hpp"

#include "support/temp_dir.hpp"
#include "support/wait.hpp"

#include <gtest/gtest.h>

#include <ctime>
#include <fstream>
#include <set>

using qnbrl::QNLoganFileManager;
namespace fs = std::filesystem;

namespace {

using Lines = std::vector<std::string>;

Lines readLines(const std::string& path) {
  std::ifstream in(path);
  Lines lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

void writeFile(const std::string& path, const std::string& content) {
  std::ofstream(path) << content;
}

std::string localStamp() {
  std::time_t now = std::time(nullptr);
  std::tm tm{};
  localtime_r(&now, &tm);
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y_%m_%d_%H_%M_%S", &tm);
  return buf;
}

class LoganFileStore : public ::testing::Test {
 protected:
  std::string at(const std::string& name) const { return (tmp.path() / name).string(); }
  // The closed-off files: every entry of the directory but the working file.
  std::set<std::string> closed() const {
    std::set<std::string> names;
    for (const auto& e : fs::directory_iterator(at("logan"))) names.insert(e.path().filename().string());
    EXPECT_EQ(names.erase("logan"), 1u);
    return names;
  }
  std::shared_ptr<QNLoganFileManager> open() { return QNLoganFileManager::create(at("logan"), false); }
  static void writeRecords(QNLoganFileManager& store, int from, int count) {
    for (int i = from; i < from + count; ++i) store.writeLog("record " + std::to_string(i));
    store.queue()->sync([] {});
  }
  testing_support::TempDir tmp;
};

}  // namespace

TEST_F(LoganFileStore, StartUpMakesTheDirectoriesDropsEmptyLeftoversAndAppendsToTheWorkingFile) {
  fs::create_directories(at("logan"));
  writeFile(at("logan/2020_01_01_00_00_00"), "");
  writeFile(at("logan/2020_01_01_00_00_01"), "kept\n");
  writeFile(at("logan/logan"), "from before\n");
  auto store = QNLoganFileManager::create(at("logan"), true);
  EXPECT_EQ(closed(), std::set<std::string>{"2020_01_01_00_00_01"});
  EXPECT_EQ(store->loganFileToWrite(), at("logan/logan"));
  writeRecords(*store, 1, 1);
  EXPECT_EQ(readLines(store->loganFileToWrite()), (Lines{"from before", "record 1"}));

  auto fresh = QNLoganFileManager::create(at("nested/logan"), true);
  EXPECT_TRUE(fs::is_regular_file(at("nested/logan/logan")));
  EXPECT_TRUE(fs::is_directory(fresh->loganBackupDirPath()));
  EXPECT_EQ(fresh->loganBackupDirPath(), at("nested/logan_bak"));
  // A trailing separator names the same directory, so the backup is still its sibling.
  EXPECT_EQ(QNLoganFileManager::create(at("other/"), false)->loganBackupDirPath(), at("other_bak"));
}

TEST_F(LoganFileStore, FirstFileClosesAfter99RecordsUnderTheLocalTimeThenEveryFileHolds100) {
  auto store = open();
  writeRecords(*store, 1, 99);
  EXPECT_TRUE(closed().empty());
  auto before = localStamp();
  writeRecords(*store, 100, 1);
  auto after = localStamp();
  auto names = closed();
  ASSERT_EQ(names.size(), 1u);
  const auto& name = *names.begin();
  EXPECT_TRUE(name == before || name == after) << name;
  auto lines = readLines(at("logan/" + name));
  ASSERT_EQ(lines.size(), 99u);
  EXPECT_EQ(lines.front(), "record 1");
  EXPECT_EQ(lines.back(), "record 99");
  EXPECT_EQ(readLines(store->loganFileToWrite()), Lines{"record 100"});
  // The record that triggered the close-off starts the fresh file with the counter at 0, so the
  // next 99 fill it to 100 without another close-off.
  writeRecords(*store, 101, 99);
  EXPECT_EQ(readLines(store->loganFileToWrite()).size(), 100u);
  EXPECT_EQ(closed().size(), 1u);
}

TEST_F(LoganFileStore, RenameCollisionKeepsBothFilesAndWritingGoesOn) {
  auto store = open();
  writeRecords(*store, 1, 3);
  // Occupy the name the close-off will take; retry if the second ticks over in between.
  bool collided = false;
  for (int attempt = 0; attempt < 5 && !collided; ++attempt) {
    auto target = store->nextLogPath();
    writeFile(target, "earlier\n");
    collided = store->saveCurrentWritingLoganFileToWaitUpload() == target;
    if (!collided) fs::remove(target);
  }
  ASSERT_TRUE(collided);
  auto names = closed();
  ASSERT_EQ(names.size(), 1u);
  EXPECT_EQ(readLines(at("logan/" + *names.begin())), Lines{"earlier"});
  EXPECT_EQ(store->writeCount(), 0);
  writeRecords(*store, 4, 1);
  EXPECT_EQ(readLines(store->loganFileToWrite()), (Lines{"record 1", "record 2", "record 3", "record 4"}));
}

TEST_F(LoganFileStore, WaitingFilesAreOfferedOldestCreatedFirst) {
  auto store = open();
  // Created in this order, named in the opposite order: creation date decides, not the name. File
  // times have the kernel's coarse tick, so the second is recreated until it is really later.
  const auto older = at("logan/2030_01_01_00_00_00"), newer = at("logan/2020_01_01_00_00_00");
  writeFile(older, "older\n");
  auto olderDate = QNLoganFileManager::fileCreationDate(older).value_or(0);
  ASSERT_TRUE(testing_support::waitUntil([&] {
    fs::remove(newer);
    writeFile(newer, "newer\n");
    return QNLoganFileManager::fileCreationDate(newer).value_or(0) > olderDate;
  }));
  writeFile(at("logan/.DS_Store"), "x");
  writeRecords(*store, 1, 2);
  EXPECT_EQ(store->getWaitUploadFilePath(), older);
  fs::remove(older);
  EXPECT_EQ(store->getWaitUploadFilePath(), newer);
  fs::remove(newer);

  // An empty waiting file is deleted during the walk; then the partly filled working file is
  // closed off and offered.
  writeFile(at("logan/2021_01_01_00_00_00"), "");
  auto path = store->getWaitUploadFilePath();
  ASSERT_TRUE(path.has_value());
  EXPECT_FALSE(fs::exists(at("logan/2021_01_01_00_00_00")));
  EXPECT_EQ(readLines(*path), (Lines{"record 1", "record 2"}));
  EXPECT_EQ(fs::file_size(store->loganFileToWrite()), 0u);
}

TEST_F(LoganFileStore, MoveToBackupKeepsTheNameAndReplacesAnEarlierCopy) {
  auto store = QNLoganFileManager::create(at("logan"), true);
  // A name already in the backup is replaced, so the accepted file never stays behind to be sent
  // again; a missing file is only reported.
  for (const char* content : {"sent", "again"}) {
    writeFile(at("logan/2020_01_01_00_00_00"), std::string(content) + "\n");
    store->moveToBackupWithFilePath(at("logan/2020_01_01_00_00_00"));
    EXPECT_TRUE(closed().empty());
    EXPECT_EQ(readLines(at("logan_bak/2020_01_01_00_00_00")), Lines{content});
  }
  store->moveToBackupWithFilePath(at("logan/nothing"));
  EXPECT_FALSE(fs::exists(at("logan_bak/nothing")));
}

TEST_F(LoganFileStore, UnusableDirectoryOrVanishedWorkingFileDropsRecordsQuietly) {
  writeFile(at("plain-file"), "not a directory");
  auto broken = QNLoganFileManager::create(at("plain-file/logan"), false);
  writeRecords(*broken, 1, 150);
  EXPECT_EQ(broken->getWaitUploadFilePath(), std::nullopt);
  EXPECT_EQ(broken->allLogPaths(), std::nullopt);

  // A vanished working file loses records until the handle is reset.
  auto store = open();
  fs::remove(store->loganFileToWrite());
  writeRecords(*store, 1, 5);
  EXPECT_FALSE(fs::exists(store->loganFileToWrite()));
  EXPECT_EQ(store->getWaitUploadFilePath(), std::nullopt);
  store->resetFileHandle();
  writeRecords(*store, 6, 1);
  EXPECT_EQ(readLines(store->loganFileToWrite()), Lines{"record 6"});
}
