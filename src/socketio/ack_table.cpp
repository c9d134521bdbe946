#include "socketio/ack_table.hpp"

#include "socketio/safe_call.hpp"

namespace sio::detail {

void AckTable::add(std::uint64_t id, Clock::duration timeout, AckCallback callback) {
  auto deadline = Clock::current().now() + timeout;
  pending_.emplace(id, std::move(callback));
  deadlines_.emplace(deadline, id);
  if (deadline < armed_) arm(deadline);
}

void AckTable::answer(std::uint64_t id, const Payload& args) {
  auto it = pending_.find(id);
  if (it == pending_.end()) return;
  auto callback = std::move(it->second);
  pending_.erase(it);
  dropAnswered();
  safeCall(callback, args);
}

// Acknowledgements mostly come in order, so this keeps the heap as small as what is waiting.
void AckTable::dropAnswered() {
  while (!deadlines_.empty() && !pending_.contains(deadlines_.top().second)) deadlines_.pop();
}

void AckTable::arm(Clock::time_point deadline) {
  if (timer_) timer_->cancel();
  armed_ = deadline;
  timer_ = Clock::current().schedule(ex_, deadline - Clock::current().now(),
                                     [self = shared_from_this()] { self->expire(); });
}

void AckTable::expire() {
  timer_.reset();
  armed_ = Clock::time_point::max();
  auto now = Clock::current().now();
  Payload no_ack;
  no_ack.args.emplace_back(kNoAck);
  while (!deadlines_.empty() && deadlines_.top().first <= now) {
    auto id = deadlines_.top().second;
    deadlines_.pop();
    if (auto it = pending_.find(id); it != pending_.end()) {
      auto callback = std::move(it->second);
      pending_.erase(it);
      safeCall(callback, no_ack);  // may add entries, and so arm the timer again
    }
  }
  dropAnswered();
  if (!deadlines_.empty() && deadlines_.top().first < armed_) arm(deadlines_.top().first);
}

}  // namespace sio::detail
