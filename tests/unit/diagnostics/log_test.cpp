#include "diagnostics/log.hpp"

#include "support/temp_dir.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <sstream>
#include <vector>

using namespace qnbrl;
using testing_support::ScopedEnv;
using testing_support::TempDir;
namespace fs = std::filesystem;

namespace {

std::string readFile(const fs::path& p) {
  std::ifstream in(p, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

// Converted by Boost.JSON, so the log describes it (as "") through value_from; counts how often it does.
struct Counted {
  int* calls;
  friend void tag_invoke(boost::json::value_from_tag, boost::json::value& v, const Counted& c) {
    ++*c.calls;
    v = "";
  }
};

class QNLogTest : public ::testing::Test {
 protected:
  TempDir dir;
  std::string path = QNLog::createFile(dir.path());
  QNLog log{path};

  std::string written() {
    log.flush();
    return readFile(path);
  }
};

}  // namespace

TEST_F(QNLogTest, FiltersAreAtLeastThresholdsNotBitsAndSilencedArgumentsAreNeverDescribed) {
  const std::map<std::int64_t, std::string> expected{
      {-8, ""},         {0, ""},          {1, "i\n"},          {2, "i\nw\n"},         {3, "i\nw\n"},
      {4, "i\nw\ne\n"}, {7, "i\nw\ne\n"}, {8, "i\nw\ne\nc\n"}, {1000, "i\nw\ne\nc\n"}};
  for (const auto& [filter, lines] : expected) {
    fs::resize_file(path, 0);
    log.setLogFilter(filter);
    int described = 0;
    const Counted arg{&described};
    log.info("i%@", arg);
    log.warn("w%@", arg);
    log.error("e%@", arg);
    log.critical("c%@", arg);
    EXPECT_EQ(written(), lines) << "filter " << filter;
    EXPECT_EQ(described, std::count(lines.begin(), lines.end(), '\n')) << "filter " << filter;
  }
}

TEST_F(QNLogTest, PlaceholdersTakeStringsNumbersAndCompactJsonAndLinesAreTrimmed) {
  log.setLogFilter(8);
  boost::json::object params{{"channelId", "c1"}, {"keys", boost::json::array{"a", "b"}}};
  log.info("socket config: %@", params);
  log.info("join channel: %@, ret = %@", std::string("c1"), 0);
  log.info("PeersOnlineStatusChanged: %@", std::vector<std::string>{"p1", "p2"});
  log.info("%@ %@ %@ %@ 100%%", boost::json::value("text"), std::optional<int>{}, 1.5, true);
  log.warn("disconnectReason, params = %@", boost::json::value(boost::json::array{"KickOff"}));
  log.info("  \t%@ \n\r\n", "message with  inner  spaces");
  log.writeLogToFile("\xC2\xA0unicode space\xE3\x80\x80");
  log.writeLogToFile(" \n ");
  EXPECT_EQ(written(),
            "socket config: {\"channelId\":\"c1\",\"keys\":[\"a\",\"b\"]}\n"
            "join channel: c1, ret = 0\n"
            "PeersOnlineStatusChanged: [\"p1\",\"p2\"]\n"
            "text (null) 1.5 true 100%\n"
            "disconnectReason, params = [\"KickOff\"]\n"
            "message with  inner  spaces\nunicode space\n\n");
}

TEST_F(QNLogTest, MissingFileLosesLinesSilentlyUntilItExistsAgain) {
  log.setLogFilter(1);
  fs::remove(path);
  log.info("lost");
  log.setLogFilePath((dir.path() / "no-such-dir" / "x.log").string());
  log.info("lost too");
  log.flush();
  EXPECT_FALSE(fs::exists(path));
  EXPECT_FALSE(fs::exists(dir.path() / "no-such-dir"));
  log.setLogFilePath(path);
  std::ofstream(path).close();
  log.info("kept");
  EXPECT_EQ(written(), "kept\n");
}

TEST_F(QNLogTest, LinesFromManyThreadsStayWholeAndInOrderPerThread) {
  log.setLogFilter(1);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([this, t] {
      for (int i = 0; i < 50; ++i) log.info("t%@ line %@ of text", t, i);
    });
  }
  for (auto& th : threads) th.join();
  std::istringstream lines(written());
  std::map<int, int> next;  // per thread, the line number expected next
  int count = 0;
  for (std::string line; std::getline(lines, line); ++count) {
    int t = 0, i = 0;
    ASSERT_EQ(std::sscanf(line.c_str(), "t%d line %d of text", &t, &i), 2) << line;
    EXPECT_EQ(i, next[t]++);
  }
  EXPECT_EQ(count, 200);
}

TEST(QNLogFile, CreateFileKeepsExactlyTenMebibytesAndEmptiesOneByteMoreInTheCachesDirectory) {
  TempDir dir;
  ScopedEnv cache("XDG_CACHE_HOME", dir.path().c_str());
  auto path = dir.path() / "qn_brl.log";
  for (std::size_t size : {10u * 1024 * 1024, 10u * 1024 * 1024 + 1}) {
    std::ofstream(path, std::ios::binary) << std::string(size, 'x');
    EXPECT_EQ(QNLog::createFile(), path.string());
    EXPECT_EQ(fs::file_size(path), size > 10u * 1024 * 1024 ? 0u : size);
  }
  ScopedEnv home("HOME", dir.path().c_str());
  ScopedEnv unset("XDG_CACHE_HOME", nullptr);
  EXPECT_EQ(QNLog::createFile(), (dir.path() / ".cache" / "qn_brl.log").string());
  EXPECT_TRUE(fs::exists(dir.path() / ".cache" / "qn_brl.log"));
}
