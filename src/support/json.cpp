#include "support/json.hpp"

#include "socketio/utf8.hpp"

#include <cctype>
#include <cmath>
#include <limits>

namespace qnbrl {
namespace {

// Boost.JSON writes any double and passes bytes through; JSON text allows neither non-finite numbers
// nor invalid UTF-8, so those are the errors that serialisation reports.
bool writable(const boost::json::value& v);

bool writable(const boost::json::array& a) {
  for (const auto& e : a)
    if (!writable(e)) return false;
  return true;
}

bool writable(const boost::json::object& o) {
  for (const auto& kv : o)
    if (!sio::detail::validUtf8(kv.key()) || !writable(kv.value())) return false;
  return true;
}

bool writable(const boost::json::value& v) {
  switch (v.kind()) {
    case boost::json::kind::double_:
      return std::isfinite(v.get_double());
    case boost::json::kind::string:
      return sio::detail::validUtf8(v.get_string());
    case boost::json::kind::array:
      return writable(v.get_array());
    case boost::json::kind::object:
      return writable(v.get_object());
    default:
      return true;
  }
}

template <class Container>
std::optional<std::string> containerString(const Container& c) {
  if (!writable(c)) return std::nullopt;
  return boost::json::serialize(c);
}

}  // namespace

std::optional<std::string> jsonString(const boost::json::value& value) {
  if (const auto* a = value.if_array()) return containerString(*a);
  if (const auto* o = value.if_object()) return containerString(*o);
  return std::string();
}

std::optional<std::string> jsonString(const boost::json::object& object) {
  return containerString(object);
}

std::optional<std::string> jsonString(const boost::json::array& array) {
  return containerString(array);
}

std::optional<std::int64_t> looseInteger(const boost::json::value& value) {
  using limits = std::numeric_limits<std::int64_t>;
  if (auto* i = value.if_int64()) return *i;
  if (auto* u = value.if_uint64()) return *u > static_cast<std::uint64_t>(limits::max()) ? limits::max() : static_cast<std::int64_t>(*u);
  if (auto* b = value.if_bool()) return *b ? 1 : 0;
  if (auto* d = value.if_double()) {
    if (std::isnan(*d)) return std::nullopt;
    // 2^63 is exact as a double; anything at or past it (infinity included) saturates.
    constexpr double bound = 9223372036854775808.0;
    if (*d >= bound) return limits::max();
    if (*d < -bound) return limits::min();
    return static_cast<std::int64_t>(*d);
  }
  auto* s = value.if_string();
  if (!s) return std::nullopt;
  std::string_view text = *s;
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) text.remove_prefix(1);
  bool negative = !text.empty() && text.front() == '-';
  if (!text.empty() && (text.front() == '-' || text.front() == '+')) text.remove_prefix(1);
  if (text.empty() || !std::isdigit(static_cast<unsigned char>(text.front()))) return std::nullopt;
  // Accumulated on the negative side, whose range is one larger, and stopped at the bound.
  std::int64_t n = 0;
  for (char c : text) {
    if (!std::isdigit(static_cast<unsigned char>(c))) break;
    int digit = c - '0';
    if (n < (limits::min() + digit) / 10) return negative ? limits::min() : limits::max();
    n = n * 10 - digit;
  }
  if (negative) return n;
  return n == limits::min() ? limits::max() : -n;
}

}  // namespace qnbrl
