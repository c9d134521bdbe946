#pragma once
#include "socketio/client.hpp"
#include "socketio/clock.hpp"

#include <boost/asio/any_io_executor.hpp>

#include <cstdint>
#include <memory>
#include <queue>
#include <unordered_map>
#include <utility>
#include <vector>

namespace sio::detail {

// The acknowledgements a socket waits for. Each is answered once: by the server, or with
// ["NO ACK"] at its deadline. One clock timer, armed for the earliest deadline, serves them all;
// it co-owns the table, so waiting entries still get their answer after the socket is gone.
class AckTable : public std::enable_shared_from_this<AckTable> {
 public:
  explicit AckTable(boost::asio::any_io_executor ex) : ex_(std::move(ex)) {}

  void add(std::uint64_t id, Clock::duration timeout, AckCallback callback);
  // The server's acknowledgement; an unknown id (never issued, answered or timed out) is ignored.
  void answer(std::uint64_t id, const Payload& args);

 private:
  using Deadline = std::pair<Clock::time_point, std::uint64_t>;

  void dropAnswered();
  void arm(Clock::time_point deadline);
  void expire();

  boost::asio::any_io_executor ex_;
  std::unordered_map<std::uint64_t, AckCallback> pending_;
  std::priority_queue<Deadline, std::vector<Deadline>, std::greater<>> deadlines_;
  TimerPtr timer_;
  Clock::time_point armed_ = Clock::time_point::max();
};

}  // namespace sio::detail
