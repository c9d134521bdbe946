#include "socketio/ack_table.hpp"

#include "socketio/safe_call.hpp"

#include <algorithm>
#include <vector>

namespace sio::detail {

std::uint64_t AckTable::add(Clock::duration timeout, AckCallback callback) {
  const auto deadline = Clock::current().now() + timeout;
  entries_.push_back(Entry{std::move(callback), deadline});
  if (deadline < armed_) arm(deadline);
  return first_id_ + entries_.size() - 1;
}

void AckTable::answer(std::uint64_t id, const Payload& args) {
  if (id < first_id_ || id - first_id_ >= entries_.size()) return;
  auto callback = std::move(entries_[id - first_id_].callback);
  if (!callback) return;
  dropAnswered();
  safeCall(callback, args);
}

// Acknowledgements mostly come in order, so this keeps the table as small as what is waiting.
void AckTable::dropAnswered() {
  while (!entries_.empty() && !entries_.front().callback) {
    entries_.pop_front();
    ++first_id_;
  }
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
  const auto now = Clock::current().now();
  // Taken out first, as a callback may add entries (and so arm the timer again); answered in
  // deadline order.
  std::vector<Entry> due;
  auto next = Clock::time_point::max();
  for (auto& e : entries_) {
    if (!e.callback) continue;
    if (e.deadline <= now) {
      due.push_back(std::move(e));
      e.callback = nullptr;
    } else if (e.deadline < next) {
      next = e.deadline;
    }
  }
  dropAnswered();
  if (next < armed_) arm(next);
  std::stable_sort(due.begin(), due.end(), [](const Entry& a, const Entry& b) { return a.deadline < b.deadline; });
  Payload no_ack;
  no_ack.args.emplace_back(kNoAck);
  for (auto& e : due) safeCall(e.callback, no_ack);
}

}  // namespace sio::detail
