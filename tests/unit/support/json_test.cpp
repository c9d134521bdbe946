#include "support/json.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

using namespace qnbrl;
namespace json = boost::json;

TEST(JsonString, OnlyArraysAndObjectsSerialiseCompactlyInInsertionOrder) {
  for (const json::value& scalar : {json::value("text"), json::value(42), json::value(nullptr)})
    EXPECT_EQ(jsonString(scalar), "") << scalar;
  EXPECT_EQ(jsonString(json::value(json::array{})), "[]");
  json::object o;
  o["z"] = 1;
  o["a"] = json::array{"x", true, nullptr};
  o["m"] = json::object{{"k", 1.5}};
  EXPECT_EQ(jsonString(o), R"({"z":1,"a":["x",true,null],"m":{"k":1.5E0}})");
}

TEST(JsonString, ValuesJsonCannotCarryAreAnErrorNotAnEmptyString) {
  json::object badKey;
  badKey["\xFF"] = 1;
  // Infinity, NaN, invalid, overlong and surrogate UTF-8, at any depth or in a key.
  for (const json::value& bad :
       {json::value(json::array{std::numeric_limits<double>::infinity()}),
        json::value(json::object{{"n", std::nan("")}}),
        json::value(json::object{{"deep", json::array{"\xC3\x28"}}}), json::value(badKey),
        json::value(json::array{"\xC0\xAF"}), json::value(json::array{"\xED\xA0\x80"})})
    EXPECT_EQ(jsonString(bad), std::nullopt);
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

TEST(FieldTable, KeysDropOneCharacterAbsentValuesAreSkippedAndMistypedOnesReset) {
  Sample s;
  s.channelId = "c1";
  // "count" was declared without an underscore and loses its first letter.
  EXPECT_EQ(jsonString(Sample::table().jsonObject(s)),
            R"({"channelId":"c1","ount":7,"flag":false,"keys":[]})");
  s = Sample::table().initWithDict(json::object{{"channelId", "c9"},
                                                {"note", "x"},
                                                {"ount", 3},
                                                {"flag", true},
                                                {"keys", json::array{"a", "b"}},
                                                {"unrelated", 1}});
  EXPECT_EQ(jsonString(Sample::table().jsonObject(s)),
            R"({"channelId":"c9","note":"x","ount":3,"flag":true,"keys":["a","b"]})");

  Sample::table().initWithDict(s, json::object{{"channelId", 5}, {"count", 3}});
  EXPECT_EQ(s.channelId, "");  // wrong kind: treated as absent
  EXPECT_EQ(s.note, std::nullopt);
  EXPECT_EQ(s.count, 0);  // "count" is not the key of the field named "count"
}
