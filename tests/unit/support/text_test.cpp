#include "support/text.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

using namespace qnbrl;

TEST(TimeStamp, IsMillisecondsSinceTheEpoch) {
  std::chrono::duration<double, std::milli> now = std::chrono::system_clock::now().time_since_epoch();
  EXPECT_NEAR(currentTimeStamp(), now.count(), 60'000);
}

TEST(Md5, IsLowerCaseHexAndStopsAtTheFirstZeroByte) {
  EXPECT_EQ(md5Value(""), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(md5Value("abc"), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(md5Value(std::string("abc\0def", 7)), md5Value("abc"));
  EXPECT_EQ(md5Value(std::string("\0abc", 4)), md5Value(""));
}

// The ID and server-address patterns are checked where they are used (session state, server URLs).
TEST(Match, IsAnchoredAtBothEndsAndAnInvalidPatternMatchesNothing) {
  EXPECT_TRUE(match("user_1", "[a-z_0-9]+"));
  EXPECT_FALSE(match("user 1", "[a-z_0-9]+"));
  EXPECT_FALSE(match("xuser", "user"));
  EXPECT_FALSE(match("userx", "user"));
  EXPECT_FALSE(match("abc", "(unclosed"));
  EXPECT_FALSE(match("a\nb", "a.b"));
}

TEST(Search, FindsThePatternAnywhereWithOptionalCaseAndLineRules) {
  EXPECT_TRUE(search("say hello there", "hello"));
  EXPECT_FALSE(search("say HELLO", "hello"));
  EXPECT_TRUE(search("say HELLO", "hello", {.caseInsensitive = true, .multiline = false}));
  EXPECT_FALSE(search("a\nhello", "^hello$"));
  EXPECT_TRUE(search("a\nhello", "^hello$", {.caseInsensitive = false, .multiline = true}));
  EXPECT_FALSE(search("bad", "(unclosed"));
}

TEST(Match, CompiledPatternsAreSharedSafelyAcrossThreads) {
  std::vector<std::thread> threads;
  std::atomic<int> wrong = 0;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 300; ++i) {
        auto n = std::to_string((i + t) % 300);
        if (!match("p" + n + "12", "p" + n + "[0-9]*")) ++wrong;
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(wrong, 0);
}
