#include "transport/brl_result.hpp"

#include <boost/json/parse.hpp>
#include <gtest/gtest.h>

using qnbrl::QNBRLResult;

namespace {
QNBRLResult decode(const char* json) { return QNBRLResult::resultWithArray(boost::json::parse(json).as_array()); }
}  // namespace

TEST(QNBRLResult, DecodesTheAcknowledgementShapes) {
  struct Case {
    const char* ack;
    bool timeout;
    const char* error;
    int code;
    bool response;
  } cases[] = {
      {R"(["NO ACK"])", true, "NO ACK", -1, false},
      {R"([{"result":0}])", false, "", 0, true},
      {R"(["Too Many Requests",{"result":5}])", false, "Too Many Requests", 5, true},
      {R"([{}])", false, "", 0, true},  // no "result" counts as success
      {R"([])", false, "", -1, false},
      {R"([1,"x",null])", false, "", -1, false},
      {R"([{"result":"abc"}])", false, "", 0, true},
      {R"([{"result":"  -12x"}])", false, "", -12, true},
      {R"([{"result":4.9}])", false, "", 4, true},
      {R"([{"result":true}])", false, "", 1, true},
      // Out of range: saturated, so that no failure can wrap around to 0.
      {R"([{"result":4294967296}])", false, "", 2147483647, true},
      {R"([{"result":-4294967296}])", false, "", -2147483648, true},
      {R"([{"result":18446744073709551616}])", false, "", 2147483647, true},
      {R"([{"result":"18446744073709551616"}])", false, "", 2147483647, true},
      {R"([{"result":"-99999999999999999999999"}])", false, "", -2147483648, true},
      {R"([{"result":1e300}])", false, "", 2147483647, true},
      {R"([{"result":-1e400}])", false, "", -2147483648, true},
      {R"(["NO ACK",{"result":3}])", true, "NO ACK", 3, true},
  };
  for (auto& c : cases) {
    SCOPED_TRACE(c.ack);
    auto r = decode(c.ack);
    EXPECT_EQ(r.isAckTimeout(), c.timeout);
    EXPECT_EQ(r.errorString, c.error);
    EXPECT_EQ(r.code, c.code);
    EXPECT_EQ(r.response.has_value(), c.response);
  }
  EXPECT_TRUE(decode(R"(["Too Many Requests",{"result":5}])").isTooManyRequests());
  EXPECT_EQ(decode(R"([{"result":0,"data":{"a":[1]}}])").response->at("data").at("a").at(0).as_int64(), 1);
}
