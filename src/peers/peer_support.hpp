#pragma once
// What the users-and-peers operations share: their failure records, the peer ids a subscription set
// holds, and the retry of a replay step after a reconnection until the server confirms it.
#include "support/queues.hpp"
#include "transport/request.hpp"

#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace qnbrl {

// Failures only, as user-attribute records; the acknowledgement's names the handler ("..._block_invoke").
void recordFailure(const Operation& op, const std::string& subject, int code, Stage stage);

// The local check of a list of peers: not empty, and every id passes the ID pattern.
bool validPeerIds(const std::vector<std::string>& peerIds);
// {"userIds": [...]}
boost::json::object userIdsPayload(const std::vector<std::string>& peerIds);

// Peer ids the server confirmed a subscription to; duplicates collapse. Safe from any thread.
class PeerIdSet {
 public:
  void add(const std::vector<std::string>& ids) {
    std::lock_guard lock(mutex_);
    ids_.insert(ids.begin(), ids.end());
  }
  void remove(const std::vector<std::string>& ids) {
    std::lock_guard lock(mutex_);
    for (const auto& id : ids) ids_.erase(id);
  }
  std::vector<std::string> list() const {
    std::lock_guard lock(mutex_);
    return {ids_.begin(), ids_.end()};
  }
  void clear() {
    std::lock_guard lock(mutex_);
    ids_.clear();
  }

 private:
  mutable std::mutex mutex_;
  std::set<std::string> ids_;
};

// Subscribes to (or unsubscribes from) the peers; an invalid list is refused with 2. Once the server
// confirms, the ids join (or leave) `set` and `confirmed` runs, both before the completion; once the
// set is gone (the client was released) the answer only completes.
void changeSubscription(const RequestPath& requests, const Operation& op, std::vector<std::string> peerIds,
                        bool subscribe, const std::shared_ptr<PeerIdSet>& set,
                        std::function<void(int)> completion,
                        std::function<void(const std::vector<std::string>&)> confirmed = {});

// The completion of a replay step: on any failure the step runs again with the same argument on the
// next turn of the main queue, without a pause, while its owner lives. There is no count limit: the
// step's own login check ends the loop once the user has logged out.
template <class Owner, class Arg>
std::function<void(int)> againOnFailure(std::weak_ptr<Owner> owner, void (Owner::*step)(Arg), Arg arg) {
  return [owner = std::move(owner), step, arg = std::move(arg)](int code) {
    if (code == 0) return;
    MainQueue::async([owner, step, arg] {
      if (auto self = owner.lock()) ((*self).*step)(arg);
    });
  };
}

}  // namespace qnbrl
