#pragma once
#include "socketio/client.hpp"
#include "socketio/clock.hpp"

#include <boost/asio/any_io_executor.hpp>

#include <cstdint>
#include <deque>
#include <memory>

namespace sio::detail {

// The acknowledgements a socket waits for. Each is answered once: by the server, or with
// ["NO ACK"] at its deadline. One clock timer, armed for the earliest deadline, serves them all;
// it co-owns the table, so waiting entries still get their answer after the socket is gone.
class AckTable : public std::enable_shared_from_this<AckTable> {
 public:
  explicit AckTable(boost::asio::any_io_executor ex) : ex_(std::move(ex)) {}

  // Registers `callback` under the next id (0, 1, 2, ...), which it returns.
  std::uint64_t add(Clock::duration timeout, AckCallback callback);
  // The server's acknowledgement; an unknown id (never issued, answered or timed out) is ignored.
  void answer(std::uint64_t id, const Payload& args);

 private:
  struct Entry {
    AckCallback callback;  // empty once answered
    Clock::time_point deadline;
  };

  void dropAnswered();
  void arm(Clock::time_point deadline);
  void expire();

  boost::asio::any_io_executor ex_;
  // Ids are issued in order, so an entry is found by its distance from the oldest one: no hashing,
  // no allocation per entry. An answered entry stays as a hole until those before it are answered
  // too, which bounds the holes by what is issued within the longest pending time-out.
  std::deque<Entry> entries_;
  std::uint64_t first_id_ = 0;  // the id of entries_.front()
  TimerPtr timer_;
  Clock::time_point armed_ = Clock::time_point::max();
};

}  // namespace sio::detail
