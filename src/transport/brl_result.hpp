#pragma once
// The decoded acknowledgement of a request. Every request handler starts from one of these.
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>

#include <cstdint>
#include <optional>
#include <string>

namespace qnbrl {

// The server's rate refusal and the socket layer's time-out text, as the first acknowledgement item.
inline constexpr const char* kTooManyRequests = "Too Many Requests";
inline constexpr const char* kNoAck = "NO ACK";

struct QNBRLResult {
  bool ackTimeout = false;
  std::string errorString;
  std::int32_t code = -1;
  std::optional<boost::json::object> response;

  bool isAckTimeout() const { return ackTimeout; }
  bool isTooManyRequests() const { return errorString == kTooManyRequests; }

  // Never fails: a malformed acknowledgement decodes to code -1, no error text and no response.
  static QNBRLResult resultWithArray(const boost::json::array& ack);
};

}  // namespace qnbrl
