#include "support/keychain_store.hpp"
#include "support/temp_dir.hpp"
#include "support/uuid_helper.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <regex>

using namespace qnbrl;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using testing_support::ScopedEnv;
using testing_support::TempDir;
namespace fs = std::filesystem;

namespace {

// Every test works on the fallback file in its own directory, under a known service name.
class FileStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    QNKeyChainStore::setDefaultService("com.example.app");
    QNKeyChainStore::setBackend(fileBackend(file));
  }
  void TearDown() override {
    QNKeyChainStore::setBackend(nullptr);
    QNKeyChainStore::setDefaultService(defaultService);
  }

  std::string defaultService = QNKeyChainStore::defaultService();
  TempDir dir;
  fs::path file = dir.path() / "qnbrl" / "secure-store.json";
};

// Answers every call with one status, to check how statuses are shown.
struct FixedStatus : KeyChainBackend {
  explicit FixedStatus(KeyChainStatus s) : status(s) {}
  KeyChainStatus add(const std::string&, const std::string&, const std::string&) override { return status; }
  KeyChainStatus copy(const std::string&, const std::string&, std::string&) override { return status; }
  KeyChainStatus remove(const std::string&, const std::string&) override { return status; }
  KeyChainStatus status;
};

}  // namespace

TEST_F(FileStoreTest, StoresReadsReplacesAndDeletesInAPrivateFile) {
  EXPECT_TRUE(QNKeyChainStore::setString("first", "k"));
  EXPECT_TRUE(QNKeyChainStore::setString("second \xC3\xA9", "k"));
  EXPECT_EQ(QNKeyChainStore::stringForKey("k"), "second \xC3\xA9");
  EXPECT_EQ(fs::status(file).permissions() & fs::perms::all, fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_EQ(fs::status(file.parent_path()).permissions() & fs::perms::all, fs::perms::owner_all);

  // Services keep separate items, and the empty service is a name like any other.
  QNKeyChainStore::setDefaultService("");
  ASSERT_TRUE(QNKeyChainStore::setString("nameless", "k"));
  QNKeyChainStore::setDefaultService("com.example.app");
  EXPECT_TRUE(QNKeyChainStore::deleteKey("k"));
  CaptureStdout();
  EXPECT_EQ(QNKeyChainStore::stringForKey("k"), std::nullopt);
  EXPECT_FALSE(QNKeyChainStore::deleteKey("k"));
  EXPECT_EQ(GetCapturedStdout(),
            "SecItemCopyMatching error, status: 3 00000003      \n"
            "SecItemDelete error, status: 3 00000003      \n");
  QNKeyChainStore::setDefaultService("");
  EXPECT_EQ(QNKeyChainStore::stringForKey("k"), "nameless");
}

TEST_F(FileStoreTest, DamagedFileIsReportedAndHealedByTheNextWrite) {
  fs::create_directories(file.parent_path());
  std::ofstream(file) << "{not json";
  CaptureStdout();
  EXPECT_EQ(QNKeyChainStore::stringForKey("k"), std::nullopt);
  EXPECT_EQ(GetCapturedStdout(), "SecItemCopyMatching error, status: 5 00000005      \n");
  EXPECT_TRUE(QNKeyChainStore::setString("v", "k"));
  EXPECT_EQ(QNKeyChainStore::stringForKey("k"), "v");
}

TEST_F(FileStoreTest, StatusIsShownAsNumberHexAndFourCharacters) {
  CaptureStdout();
  QNKeyChainStore::setBackend(std::make_shared<FixedStatus>(0x41424344));
  EXPECT_FALSE(QNKeyChainStore::setString("v", "k"));
  QNKeyChainStore::setBackend(std::make_shared<FixedStatus>(-1));
  EXPECT_FALSE(QNKeyChainStore::deleteKey("k"));
  QNKeyChainStore::setBackend(std::make_shared<FixedStatus>(24));
  EXPECT_EQ(QNKeyChainStore::stringForKey("k"), std::nullopt);
  // The add message ends in "\n" directly, the other two with a space before it.
  EXPECT_EQ(GetCapturedStdout(),
            "SecItemAdd error, status: 1094861636 41424344 ABCD\n"
            "SecItemDelete error, status: -1 FFFFFFFF ???? \n"
            "SecItemCopyMatching error, status: 24 00000018      \n");
}

// A store that fails gives a fresh identifier each time: the locked-keyring integration test.
TEST_F(FileStoreTest, DeviceIdentifierIsARandomUuidThatSurvivesALaterProcess) {
  CaptureStdout();  // the first read reports the missing item
  auto id = QNUUIDHelper::uuidForDevice();
  GetCapturedStdout();
  // Version 4, 32 lower-case hexadecimal characters without dashes.
  EXPECT_TRUE(std::regex_match(id, std::regex("[0-9a-f]{12}4[0-9a-f]{19}"))) << id;
  EXPECT_NE(QNUUIDHelper::uuid(), id);
  EXPECT_EQ(QNUUIDHelper::uuidForDevice(), id);
  QNKeyChainStore::setBackend(fileBackend(file));  // a later process opens the same file afresh
  EXPECT_EQ(QNUUIDHelper::uuidForDevice(), id);
  EXPECT_EQ(QNKeyChainStore::stringForKey("com.qn.device.uuid"), id);
}

TEST(QNKeyChainStore, WithoutASessionBusTheFallbackFileIsChosenAtOnce) {
  TempDir dir;
  ScopedEnv bus("DBUS_SESSION_BUS_ADDRESS", nullptr);
  ScopedEnv runtime("XDG_RUNTIME_DIR", nullptr);  // GIO would look for $XDG_RUNTIME_DIR/bus
  ScopedEnv display("DISPLAY", nullptr);          // and could autolaunch a bus for an X display
  ScopedEnv data("XDG_DATA_HOME", dir.path().c_str());
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(secretServiceBackend(), nullptr);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));

  QNKeyChainStore::setBackend(nullptr);
  ASSERT_TRUE(QNKeyChainStore::setString("v", "fallback-key"));
  EXPECT_TRUE(fs::exists(dir.path() / "qnbrl" / "secure-store.json"));
  EXPECT_EQ(QNKeyChainStore::stringForKey("fallback-key"), "v");
  QNKeyChainStore::setBackend(nullptr);
}
