#include "support/text.hpp"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

using namespace qnbrl;

TEST(TimeStamp, IsMillisecondsSinceTheEpoch) {
  auto before = std::chrono::duration_cast<std::chrono::milliseconds>(
                    std::chrono::system_clock::now().time_since_epoch())
                    .count();
  auto stamp = currentTimeStamp();
  EXPECT_GE(stamp, before);
  EXPECT_LT(stamp - before, 60'000);
}

TEST(Md5, IsLowerCaseHexAndStopsAtTheFirstZeroByte) {
  EXPECT_EQ(md5Value(""), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(md5Value("abc"), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(md5Value(std::string("abc\0def", 7)), md5Value("abc"));
  EXPECT_EQ(md5Value(std::string("\0abc", 4)), md5Value(""));
}

TEST(Match, IsAnchoredAtBothEndsAndTakesTheIdPatternUnderRe2) {
  const char* id = R"(^[a-zA-Z0-9!#$%&()+\-:;<=.>?@[\]^_{}|~,\s]{1,64}$)";
  EXPECT_TRUE(match("user_1", "[a-z_0-9]+"));
  EXPECT_FALSE(match("user 1", "[a-z_0-9]+"));
  EXPECT_FALSE(match("xuser", "user"));
  EXPECT_FALSE(match("abc", "(unclosed"));
  EXPECT_FALSE(match("a\nb", "a.b"));
  EXPECT_TRUE(match("user-1 [a]^{b}|~,!#$%&()+:;<=.>?@_", id));
  EXPECT_TRUE(match(std::string(64, 'z'), id));
  for (const std::string& bad :
       {std::string(65, 'z'), std::string("a/b"), std::string("caf\xC3\xA9"), std::string()})
    EXPECT_FALSE(match(bad, id)) << bad;
}

TEST(Search, CaseInsensitiveMultilineAnchorsMatchAtLineBoundaries) {
  const char* domain = R"(^https?:\/\/(([a-z0-9]+|[a-z0-9]+[a-z0-9\-_]*[a-z0-9]+)\.)+([a-z]+)(:\d+)?$)";
  SearchOptions opts{.caseInsensitive = true, .multiline = true};
  EXPECT_TRUE(search("https://API.Example.COM:443", domain, opts));
  EXPECT_FALSE(search("https://API.Example.COM", domain, {.caseInsensitive = false, .multiline = true}));
  EXPECT_TRUE(search("garbage\nhttps://api.example.com", domain, opts));
  EXPECT_FALSE(
      search("garbage\nhttps://api.example.com", domain, {.caseInsensitive = true, .multiline = false}));
  EXPECT_TRUE(search("say hello there", "hello"));
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
