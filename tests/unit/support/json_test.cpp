#include "support/json.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

using namespace qnbrl;
namespace json = boost::json;

TEST(JsonString, OnlyArraysAndObjectsSerialise) {
  EXPECT_EQ(jsonString(json::value("text")), "");
  EXPECT_EQ(jsonString(json::value(42)), "");
  EXPECT_EQ(jsonString(json::value(nullptr)), "");
  EXPECT_EQ(jsonString(json::object{}), "{}");
  EXPECT_EQ(jsonString(json::value(json::array{})), "[]");
}

TEST(JsonString, IsCompactAndKeepsInsertionOrder) {
  json::object o;
  o["z"] = 1;
  o["a"] = json::array{"x", true, nullptr};
  o["m"] = json::object{{"k", 1.5}};
  EXPECT_EQ(jsonString(o), R"({"z":1,"a":["x",true,null],"m":{"k":1.5E0}})");
}

TEST(JsonString, ValuesJsonCannotCarryAreAnErrorNotAnEmptyString) {
  EXPECT_EQ(jsonString(json::array{std::numeric_limits<double>::infinity()}), std::nullopt);
  EXPECT_EQ(jsonString(json::object{{"n", std::nan("")}}), std::nullopt);
  EXPECT_EQ(jsonString(json::value(json::object{{"deep", json::array{"\xC3\x28"}}})), std::nullopt);
  json::object bad_key;
  bad_key["\xFF"] = 1;
  EXPECT_EQ(jsonString(bad_key), std::nullopt);
  // Overlong and surrogate encodings are not UTF-8 either; real multi-byte text is.
  EXPECT_EQ(jsonString(json::array{"\xC0\xAF"}), std::nullopt);
  EXPECT_EQ(jsonString(json::array{"\xED\xA0\x80"}), std::nullopt);
  EXPECT_EQ(jsonString(json::array{"h\xC3\xA9 \xF0\x9F\x98\x80"}), "[\"h\xC3\xA9 \xF0\x9F\x98\x80\"]");
}

namespace {

struct Sample {
  std::string channelId;
  std::optional<std::string> note;
  std::int64_t count = 7;
  bool flag = false;
  std::vector<std::string> keys;
  static const FieldTable<Sample>& table() {
    static const FieldTable<Sample> t{field("_channelId", &Sample::channelId), field("_note", &Sample::note),
                                      field("count", &Sample::count), field("_flag", &Sample::flag),
                                      field("_keys", &Sample::keys)};
    return t;
  }
};

}  // namespace

TEST(FieldTable, JsonObjectUsesDeclarationOrderDropsOneCharacterAndSkipsAbsentValues) {
  Sample s;
  s.channelId = "c1";
  s.keys = {"a", "b"};
  auto o = Sample::table().jsonObject(s);
  // "count" was declared without an underscore and loses its first letter.
  EXPECT_EQ(jsonString(o), R"({"channelId":"c1","ount":7,"flag":false,"keys":["a","b"]})");
  s.note = "n";
  EXPECT_EQ(Sample::table().jsonObject(s).at("note"), "n");
}

TEST(FieldTable, InitWithDictSetsEveryFieldAndResetsMissingOrMistypedOnes) {
  auto s = Sample::table().initWithDict(
      json::object{{"channelId", "c9"}, {"note", "x"}, {"ount", 3}, {"flag", true}, {"unrelated", 1}});
  EXPECT_EQ(s.channelId, "c9");
  EXPECT_EQ(s.note, "x");
  EXPECT_EQ(s.count, 3);
  EXPECT_TRUE(s.flag);

  Sample t;
  t.channelId = "old";
  t.note = "old";
  Sample::table().initWithDict(t, json::object{{"channelId", 5}, {"count", 3}});
  EXPECT_EQ(t.channelId, "");  // wrong kind: treated as absent
  EXPECT_EQ(t.note, std::nullopt);
  EXPECT_EQ(t.count, 0);  // "count" is not the key of the field named "count"
}
