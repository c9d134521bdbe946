#pragma once
// An in-memory command sender: the request path runs for real, every request is kept, and whoever
// holds the sender answers it with any acknowledgement, on any thread. Free of gtest: the fuzzers use
// it too.
#include "transport/request.hpp"

#include <boost/json/object.hpp>

#include <algorithm>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace testing_support {

class MemorySender : public qnbrl::CommandSender {
 public:
  struct Sent {
    std::string name;
    boost::json::object payload;
    std::vector<sio::BufferPtr> attachments;
    AckHandler done;
  };

  void command(const std::string& name, boost::json::object payload, AckHandler done,
               std::vector<sio::BufferPtr> attachments) override {
    std::lock_guard lock(mutex_);
    sent_.push_back({name, std::move(payload), std::move(attachments), std::move(done)});
  }

  std::vector<Sent> sent(std::string_view name = {}) const {
    std::lock_guard lock(mutex_);
    std::vector<Sent> out;
    for (const auto& s : sent_) {
      if (name.empty() || s.name == name) out.push_back(s);
    }
    return out;
  }
  std::size_t count(std::string_view name = {}) const {
    std::lock_guard lock(mutex_);
    return static_cast<std::size_t>(
        std::count_if(sent_.begin(), sent_.end(), [&](const Sent& s) { return name.empty() || s.name == name; }));
  }
  // The latest request, without copying the others (the fuzzer answers thousands per input).
  Sent last() const {
    std::lock_guard lock(mutex_);
    return sent_.back();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<Sent> sent_;
};

}  // namespace testing_support
