#include "diagnostics/logan_file_manager.hpp"

#include "support/temp_dir.hpp"
#include "support/wait.hpp"

#include <gtest/gtest.h>

#include <ctime>
#include <fstream>
#include <regex>
#include <set>

using qnbrl::QNLoganFileManager;
using testing_support::TempDir;
namespace fs = std::filesystem;

namespace {

std::string under(const TempDir& dir, const std::string& name) {
  return (dir.path() / name).string();
}

std::vector<std::string> readLines(const std::string& path) {
  std::ifstream in(path);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::set<std::string> entries(const fs::path& dir) {
  std::set<std::string> names;
  for (const auto& e : fs::directory_iterator(dir)) names.insert(e.path().filename().string());
  return names;
}

void writeFile(const std::string& path, const std::string& content) {
  std::ofstream(path) << content;
}

// File times have the kernel's coarse tick: recreate the file until its creation date is later than
// the previous file's, so the order under test is real and not a tie.
void writeFileAfter(const std::string& path, const std::string& content, const std::string& previous) {
  auto before = QNLoganFileManager::fileCreationDate(previous).value_or(0);
  ASSERT_TRUE(testing_support::waitUntil([&] {
    fs::remove(path);
    writeFile(path, content);
    return QNLoganFileManager::fileCreationDate(path).value_or(0) > before;
  }));
}

void writeRecords(QNLoganFileManager& store, int from, int count) {
  for (int i = from; i < from + count; ++i) store.writeLog("record " + std::to_string(i));
  store.queue()->sync([] {});
}

std::string localStamp() {
  std::time_t now = std::time(nullptr);
  std::tm tm{};
  localtime_r(&now, &tm);
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y_%m_%d_%H_%M_%S", &tm);
  return buf;
}

}  // namespace

TEST(LoganFileStore, CreationMakesDirectoryBackupSiblingAndWorkingFile) {
  TempDir tmp;
  auto store = QNLoganFileManager::create(under(tmp, "nested/logan"), true);
  EXPECT_TRUE(fs::is_directory(under(tmp, "nested/logan")));
  EXPECT_TRUE(fs::is_directory(under(tmp, "nested/logan_bak")));
  EXPECT_EQ(store->loganBackupDirPath(), under(tmp, "nested/logan_bak"));
  EXPECT_EQ(store->loganFileToWrite(), under(tmp, "nested/logan/logan"));
  EXPECT_TRUE(fs::is_regular_file(store->loganFileToWrite()));

  // A trailing separator names the same directory, so the backup is still its sibling.
  auto slashed = QNLoganFileManager::create(under(tmp, "other/"), false);
  EXPECT_EQ(slashed->loganBackupDirPath(), under(tmp, "other_bak"));
}

TEST(LoganFileStore, FirstFileClosesAfter99RecordsThenEveryFileHolds100) {
  TempDir tmp;
  auto store = QNLoganFileManager::create(under(tmp, "logan"), false);
  writeRecords(*store, 1, 99);
  EXPECT_EQ(entries(under(tmp, "logan")), std::set<std::string>{"logan"});
  EXPECT_EQ(readLines(store->loganFileToWrite()).size(), 99u);

  writeRecords(*store, 100, 1);
  auto names = entries(under(tmp, "logan"));
  ASSERT_EQ(names.size(), 2u);
  names.erase("logan");
  auto closed = *names.begin();
  EXPECT_TRUE(std::regex_match(closed, std::regex(R"(\d{4}_\d{2}_\d{2}_\d{2}_\d{2}_\d{2})"))) << closed;
  auto closedLines = readLines(under(tmp, "logan/" + closed));
  ASSERT_EQ(closedLines.size(), 99u);
  EXPECT_EQ(closedLines.front(), "record 1");
  EXPECT_EQ(closedLines.back(), "record 99");
  EXPECT_EQ(readLines(store->loganFileToWrite()), std::vector<std::string>{"record 100"});
  EXPECT_EQ(store->writeCount(), 0);

  // The record that triggered the rotation sits in the fresh file with the counter at 0, so the
  // next 99 fill it to 100 without another rotation.
  writeRecords(*store, 101, 99);
  EXPECT_EQ(readLines(store->loganFileToWrite()).size(), 100u);
  EXPECT_EQ(store->writeCount(), 99);
  EXPECT_EQ(entries(under(tmp, "logan")).size(), 2u);
}

TEST(LoganFileStore, ClosedOffNameIsTheLocalTimeOfClosing) {
  TempDir tmp;
  auto store = QNLoganFileManager::create(under(tmp, "logan"), false);
  auto before = localStamp();
  auto name = fs::path(store->nextLogPath()).filename().string();
  auto after = localStamp();
  EXPECT_TRUE(name == before || name == after) << name;
  EXPECT_EQ(fs::path(store->nextLogPath()).parent_path(), tmp.path() / "logan");
}

TEST(LoganFileStore, RenameCollisionKeepsBothFilesAndWritingGoesOn) {
  TempDir tmp;
  auto store = QNLoganFileManager::create(under(tmp, "logan"), false);
  writeRecords(*store, 1, 3);
  // Occupy the name the close-off will take; retry if the second ticks over in between.
  bool collided = false;
  for (int attempt = 0; attempt < 5 && !collided; ++attempt) {
    auto target = store->nextLogPath();
    writeFile(target, "earlier\n");
    auto returned = store->saveCurrentWritingLoganFileToWaitUpload();
    collided = returned == target;
    if (!collided) fs::remove(target);
  }
  ASSERT_TRUE(collided);
  auto names = entries(under(tmp, "logan"));
  names.erase("logan");
  ASSERT_EQ(names.size(), 1u);
  EXPECT_EQ(readLines(under(tmp, "logan/" + *names.begin())), std::vector<std::string>{"earlier"});
  EXPECT_EQ(readLines(store->loganFileToWrite()).size(), 3u);
  EXPECT_EQ(store->writeCount(), 0);
  writeRecords(*store, 4, 1);
  EXPECT_EQ(readLines(store->loganFileToWrite()).back(), "record 4");
}

TEST(LoganFileStore, WaitingFileSelection) {
  TempDir tmp;
  auto store = QNLoganFileManager::create(under(tmp, "logan"), false);

  // Only an empty working file: nothing to send and nothing closed off.
  EXPECT_EQ(store->getWaitUploadFilePath(), std::nullopt);
  EXPECT_EQ(entries(under(tmp, "logan")), std::set<std::string>{"logan"});

  // Created in this order, named in the opposite order: creation date decides, not the name.
  writeFile(under(tmp, "logan/2030_01_01_00_00_00"), "older\n");
  writeFileAfter(under(tmp, "logan/2020_01_01_00_00_00"), "newer\n", under(tmp, "logan/2030_01_01_00_00_00"));
  writeFile(under(tmp, "logan/.DS_Store"), "x");
  writeRecords(*store, 1, 2);
  EXPECT_EQ(store->getWaitUploadFilePath(), under(tmp, "logan/2030_01_01_00_00_00"));
  fs::remove(under(tmp, "logan/2030_01_01_00_00_00"));
  EXPECT_EQ(store->getWaitUploadFilePath(), under(tmp, "logan/2020_01_01_00_00_00"));
  fs::remove(under(tmp, "logan/2020_01_01_00_00_00"));

  // An empty waiting file is deleted during the walk; then the partly filled working file is
  // closed off and offered.
  writeFile(under(tmp, "logan/2021_01_01_00_00_00"), "");
  auto path = store->getWaitUploadFilePath();
  ASSERT_TRUE(path.has_value());
  EXPECT_FALSE(fs::exists(under(tmp, "logan/2021_01_01_00_00_00")));
  EXPECT_EQ(readLines(*path), (std::vector<std::string>{"record 1", "record 2"}));
  EXPECT_EQ(fs::file_size(store->loganFileToWrite()), 0u);
}

TEST(LoganFileStore, StartUpRemovesEmptyLeftoversAndAppendsToTheOldWorkingFile) {
  TempDir tmp;
  fs::create_directories(under(tmp, "logan"));
  writeFile(under(tmp, "logan/2020_01_01_00_00_00"), "");
  writeFile(under(tmp, "logan/2020_01_01_00_00_01"), "kept\n");
  writeFile(under(tmp, "logan/logan"), "from before\n");
  auto store = QNLoganFileManager::create(under(tmp, "logan"), false);
  EXPECT_EQ(entries(under(tmp, "logan")), (std::set<std::string>{"logan", "2020_01_01_00_00_01"}));
  writeRecords(*store, 1, 1);
  EXPECT_EQ(readLines(store->loganFileToWrite()), (std::vector<std::string>{"from before", "record 1"}));
}

TEST(LoganFileStore, MoveToBackupKeepsTheName) {
  TempDir tmp;
  auto store = QNLoganFileManager::create(under(tmp, "logan"), true);
  writeFile(under(tmp, "logan/2020_01_01_00_00_00"), "sent\n");
  store->moveToBackupWithFilePath(under(tmp, "logan/2020_01_01_00_00_00"));
  EXPECT_FALSE(fs::exists(under(tmp, "logan/2020_01_01_00_00_00")));
  EXPECT_EQ(readLines(under(tmp, "logan_bak/2020_01_01_00_00_00")), std::vector<std::string>{"sent"});
  // A name already in the backup is replaced, so the accepted file never stays behind to be sent
  // again; a missing file is only reported.
  writeFile(under(tmp, "logan/2020_01_01_00_00_00"), "again\n");
  store->moveToBackupWithFilePath(under(tmp, "logan/2020_01_01_00_00_00"));
  EXPECT_FALSE(fs::exists(under(tmp, "logan/2020_01_01_00_00_00")));
  EXPECT_EQ(readLines(under(tmp, "logan_bak/2020_01_01_00_00_00")), std::vector<std::string>{"again"});
  store->moveToBackupWithFilePath(under(tmp, "logan/nothing"));
}

TEST(LoganFileStore, UnusableDirectoryDropsRecordsQuietly) {
  TempDir tmp;
  writeFile(under(tmp, "plain-file"), "not a directory");
  auto store = QNLoganFileManager::create(under(tmp, "plain-file/logan"), false);
  writeRecords(*store, 1, 150);
  EXPECT_EQ(store->getWaitUploadFilePath(), std::nullopt);
  EXPECT_EQ(store->allLogPaths(), std::nullopt);
}

TEST(LoganFileStore, VanishedWorkingFileLosesRecordsUntilTheHandleIsReset) {
  TempDir tmp;
  auto store = QNLoganFileManager::create(under(tmp, "logan"), false);
  fs::remove(store->loganFileToWrite());
  writeRecords(*store, 1, 5);
  EXPECT_FALSE(fs::exists(store->loganFileToWrite()));
  EXPECT_EQ(store->getWaitUploadFilePath(), std::nullopt);
  store->resetFileHandle();
  writeRecords(*store, 6, 1);
  EXPECT_EQ(readLines(store->loganFileToWrite()), std::vector<std::string>{"record 6"});
}
