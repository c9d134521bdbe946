#include "support/collections.hpp"

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <string>

using namespace qnbrl;
namespace json = boost::json;

TEST(QnMap, ArrayKeepsOneResultPerElementIncludingNullMarkers) {
  std::vector<int> in{1, 2, 3};
  auto out = qn_map(in, [](int, std::size_t, bool&) { return std::optional<std::string>{}; });
  EXPECT_EQ(out.size(), 3u);
  for (auto& o : out) EXPECT_EQ(o, std::nullopt);

  json::array arr{"a", 1, "b"};
  auto strings = qn_map(arr, [](const json::value& v, std::size_t i, bool&) -> json::value {
    if (!v.is_string()) return nullptr;
    return json::value(std::string(v.get_string()) + std::to_string(i));
  });
  EXPECT_EQ(json::value_from(strings), (json::array{"a0", nullptr, "b2"}));
}

TEST(QnMap, StopFlagEndsTheWalkAfterTheCurrentElement) {
  std::vector<int> in{1, 2, 3, 4};
  auto out = qn_map(in, [](int v, std::size_t index, bool& stop) {
    if (index == 1) stop = true;
    return v * 10;
  });
  EXPECT_EQ(out, (std::vector<int>{10, 20}));
}

TEST(QnMap, DictionaryWalksEveryEntryInEnumerationOrder) {
  json::object o;
  o["z"] = "1";
  o["a"] = "0";
  auto pairs = qn_map(o, [](std::string_view key, const json::value& v) {
    return std::string(key) + "=" + std::string(v.get_string());
  });
  EXPECT_EQ(pairs, (std::vector<std::string>{"z=1", "a=0"}));

  std::map<std::string, int> m{{"b", 2}, {"a", 1}};
  std::string seen;
  qn_each(m, [&](const std::string& k, int v) { seen += k + std::to_string(v); });
  EXPECT_EQ(seen, "a1b2");
  auto nulls = qn_map(m, [](const std::string&, int) { return json::value(); });
  EXPECT_EQ(nulls.size(), 2u);
  EXPECT_TRUE(nulls[0].is_null() && nulls[1].is_null());
}
