#include "transport/brl_result.hpp"

#include "support/json.hpp"

#include <algorithm>
#include <limits>

namespace qnbrl {

QNBRLResult QNBRLResult::resultWithArray(const boost::json::array& ack) {
  QNBRLResult r;
  if (!ack.empty()) {
    if (auto* s = ack.front().if_string()) r.errorString.assign(s->data(), s->size());
    if (auto* o = ack.back().if_object()) {
      r.response = *o;
      // Saturated, not truncated: a huge server code must never read as 0, that is as success.
      using limits = std::numeric_limits<std::int32_t>;
      auto* result = o->if_contains("result");
      auto n = result ? looseInteger(*result).value_or(0) : 0;
      r.code = static_cast<std::int32_t>(std::clamp<std::int64_t>(n, limits::min(), limits::max()));
    }
  }
  r.ackTimeout = r.errorString == kNoAck;
  return r;
}

}  // namespace qnbrl
