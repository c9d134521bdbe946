#pragma once
// A client socket against a real server, with what it heard recorded for assertions.
#include "socketio/client.hpp"
#include "socketio/clock.hpp"
#include "support/devserver.hpp"
#include "support/queues.hpp"
#include "support/wait.hpp"

#include <boost/json/serialize.hpp>
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>

namespace testing_support {

// Records every event (and "connect"/"disconnect") that reaches a socket. Its handlers share the
// record: one still running when its socket's manager is dropped outlives the recorder harmlessly.
class Recorder {
 public:
  void attach(sio::Socket& socket, std::initializer_list<const char*> events) {
    for (auto* e : events) {
      socket.on(e, [record = record_, name = std::string(e)](const sio::Payload& p, const sio::Responder&) {
        std::lock_guard lock(record->mutex);
        record->heard.emplace_back(name, p);
      });
    }
  }
  std::vector<std::pair<std::string, sio::Payload>> heard() const {
    std::lock_guard lock(record_->mutex);
    return record_->heard;
  }
  std::vector<sio::Payload> of(const std::string& event) const {
    std::vector<sio::Payload> out;
    for (auto& [name, p] : heard()) {
      if (name == event) out.push_back(p);
    }
    return out;
  }
  bool waitFor(const std::string& event, std::size_t count = 1) const {
    return waitUntil([&] { return of(event).size() >= count; });
  }
  // The reasons of every "disconnect" heard so far.
  std::vector<std::string> disconnects() const {
    std::vector<std::string> out;
    for (auto& p : of("disconnect")) out.emplace_back(p.args.at(0).as_string());
    return out;
  }

 private:
  struct Record {
    std::mutex mutex;
    std::vector<std::pair<std::string, sio::Payload>> heard;
  };
  std::shared_ptr<Record> record_ = std::make_shared<Record>();
};

// A socket on `url` with a recorder attached before it connects.
class Session {
 public:
  explicit Session(const std::string& url, sio::Options options = {},
                   std::initializer_list<const char*> events = {"connect", "disconnect"})
      : manager_(std::make_shared<sio::Manager>(qnbrl::MainQueue::executor(), url, std::move(options))) {
    recorder_.attach(*manager_->socket(), events);
    manager_->socket()->connect(std::chrono::seconds(6), [timeouts = timeouts_] { ++*timeouts; });
  }
  sio::Socket& socket() { return *manager_->socket(); }
  std::shared_ptr<sio::Manager>& manager() { return manager_; }
  const Recorder& recorder() const { return recorder_; }
  int timeouts() const { return *timeouts_; }

 private:
  Recorder recorder_;
  std::shared_ptr<std::atomic<int>> timeouts_ = std::make_shared<std::atomic<int>>(0);
  std::shared_ptr<sio::Manager> manager_;
};

// Collects acknowledgements; counts calls so that "exactly once" can be asserted.
struct AckSink {
  std::mutex mutex;
  std::vector<sio::Payload> answers;
  sio::AckCallback callback() {
    return [this](const sio::Payload& p) {
      std::lock_guard lock(mutex);
      answers.push_back(p);
    };
  }
  std::size_t count() {
    std::lock_guard lock(mutex);
    return answers.size();
  }
  sio::Payload at(std::size_t i) {
    std::lock_guard lock(mutex);
    return answers.at(i);
  }
};

inline sio::Payload args(boost::json::array a, std::vector<sio::BufferPtr> buffers = {}) {
  return sio::Payload{std::move(a), std::move(buffers)};
}

// The "token" connection parameter of a login.
inline std::string tokenText(const std::string& token, const std::string& user) {
  return boost::json::serialize(boost::json::object{
      {"token", token}, {"userId", user}, {"timestamp", 1700000000123}, {"connectTimeStamp", 42}});
}

// The connection query of `user`'s login to app `room`.
inline sio::Options loginQuery(const std::string& user, const std::string& room = "app-1",
                               const std::string& token = "tk") {
  sio::Options o;
  o.query = {{"app", "tavern"}, {"roomId", room}, {"token", tokenText(token, user)}};
  return o;
}

inline sio::BufferPtr bytes(std::initializer_list<std::uint8_t> b) { return std::make_shared<const sio::Buffer>(b); }

// Lets tests move time by hand; every queued main-queue task has run when advance() returns.
class ManualTime {
 public:
  ManualTime() : clock_(std::make_shared<sio::ManualClock>()) { sio::Clock::install(clock_); }
  ~ManualTime() { sio::Clock::install(nullptr); }
  void advance(std::chrono::milliseconds d) {
    qnbrl::MainQueue::sync([] {});  // emits posted before now have armed their timers
    clock_->advance(d);
    qnbrl::MainQueue::sync([] {});
  }
  sio::ManualClock& clock() { return *clock_; }

 private:
  std::shared_ptr<sio::ManualClock> clock_;
};

}  // namespace testing_support
