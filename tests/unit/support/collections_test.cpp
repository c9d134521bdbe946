#include "support/collections.hpp"

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <string>

using namespace qnbrl;
namespace json = boost::json;

TEST(QnMap, ArrayKeepsOneResultPerElementIncludingNullMarkersUntilStopped) {
  json::array arr{"a", 1, "b"};
  auto strings = qn_map(arr, [](const json::value& v, std::size_t i, bool&) -> json::value {
    if (!v.is_string()) return nullptr;
    return json::value(std::string(v.get_string()) + std::to_string(i));
  });
  EXPECT_EQ(json::value_from(strings), (json::array{"a0", nullptr, "b2"}));
  EXPECT_EQ(qn_map(std::vector<int>{1, 2}, [](int, std::size_t, bool&) { return std::optional<int>{}; }),
            (std::vector<std::optional<int>>{std::nullopt, std::nullopt}));
  // The stop flag ends the walk after the current element.
  auto out = qn_map(std::vector<int>{1, 2, 3, 4}, [](int v, std::size_t index, bool& stop) {
    stop = index == 1;
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
  EXPECT_EQ(qn_map(m, [](const std::string&, int) { return json::value(); }).size(), 2u);
}
