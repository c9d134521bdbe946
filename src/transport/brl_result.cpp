#include "transport/brl_result.hpp"

#include <cmath>
#include <cctype>
#include <limits>

namespace qnbrl {
namespace {

// A number's integer value the way a loosely typed reader takes it: fractions truncated, booleans
// as 0/1, a text's leading decimal integer; anything else counts as 0. The result is kept to 32 bits.
std::int32_t integerValue(const boost::json::value& v) {
  std::int64_t n = 0;
  if (auto* i = v.if_int64()) {
    n = *i;
  } else if (auto* u = v.if_uint64()) {
    n = static_cast<std::int64_t>(*u);
  } else if (auto* d = v.if_double()) {
    if (std::isnan(*d)) return 0;
    constexpr double lo = static_cast<double>(std::numeric_limits<std::int64_t>::min());
    constexpr double hi = static_cast<double>(std::numeric_limits<std::int64_t>::max());
    n = *d <= lo ? std::numeric_limits<std::int64_t>::min()
                 : *d >= hi ? std::numeric_limits<std::int64_t>::max() : static_cast<std::int64_t>(*d);
  } else if (auto* b = v.if_bool()) {
    n = *b ? 1 : 0;
  } else if (auto* s = v.if_string()) {
    std::size_t i = 0;
    while (i < s->size() && std::isspace(static_cast<unsigned char>((*s)[i]))) ++i;
    bool negative = i < s->size() && (*s)[i] == '-';
    if (i < s->size() && ((*s)[i] == '-' || (*s)[i] == '+')) ++i;
    std::uint64_t magnitude = 0;
    for (; i < s->size() && std::isdigit(static_cast<unsigned char>((*s)[i])); ++i) {
      magnitude = std::min<std::uint64_t>(magnitude * 10 + static_cast<unsigned>((*s)[i] - '0'),
                                          std::uint64_t{1} << 63);
    }
    n = negative ? static_cast<std::int64_t>(0 - magnitude)
                 : static_cast<std::int64_t>(std::min<std::uint64_t>(magnitude, std::numeric_limits<std::int64_t>::max()));
  }
  return static_cast<std::int32_t>(n);
}

}  // namespace

QNBRLResult QNBRLResult::resultWithArray(const boost::json::array& ack) {
  QNBRLResult r;
  if (!ack.empty()) {
    if (auto* s = ack.front().if_string()) r.errorString.assign(s->data(), s->size());
    if (auto* o = ack.back().if_object()) {
      r.response = *o;
      auto* result = o->if_contains("result");
      r.code = result ? integerValue(*result) : 0;
    }
  }
  r.ackTimeout = r.errorString == kNoAck;
  return r;
}

}  // namespace qnbrl
