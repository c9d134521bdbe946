#pragma once
// The JSON-lines control channel shared by the dev server and the Python server: the child prints one
// JSON ready line ({"ready": true, ...}) once it listens, then answers each request line on its stdin
// with one reply line carrying the request's "id". Replies of slow requests may overtake others, so
// they are paired by id.
#include "devserver/child_process.hpp"

#include <boost/json/object.hpp>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace devserver {

class ControlChannel {
 public:
  // Starts argv and waits up to readyTimeout for its ready line; check ready() afterwards.
  ControlChannel(const std::vector<std::string>& argv, const std::string& stderrPath,
                 std::chrono::milliseconds readyTimeout);
  ~ControlChannel();
  ControlChannel(const ControlChannel&) = delete;
  ControlChannel& operator=(const ControlChannel&) = delete;

  bool ready() const { return ready_; }
  // Why the process is not ready (it did not start, exited, or stayed silent); empty when it is.
  const std::string& startError() const { return startError_; }
  pid_t pid() const { return child_->pid(); }
  // The ready line (empty when it never came).
  const boost::json::object& readyLine() const { return readyLine_; }
  // Sends `req` with a fresh "id" and waits for the reply with that id: {"id":..,"ok":true,...} or
  // {"id":..,"ok":false,"error":".."}, the latter also on time-out or when the process has gone.
  boost::json::object request(boost::json::object req, std::chrono::milliseconds timeout);
  // Ends the process now (the destructor does it too); its wait status.
  int stop() { return child_->stop(); }

 private:
  void onLine(std::string line);
  void onEnd();

  std::mutex mutex_;
  std::condition_variable changed_;
  std::optional<boost::json::object> pendingReady_;
  std::map<std::int64_t, boost::json::object> replies_;
  std::int64_t nextId_ = 1;
  bool ended_ = false;
  bool ready_ = false;
  std::string startError_;
  boost::json::object readyLine_;
  std::unique_ptr<ChildProcess> child_;  // last: its reader thread ends before the members above go
};

// Whether a reply says "ok": true, and its error text otherwise.
bool isOk(const boost::json::object& reply);
std::string errorOf(const boost::json::object& reply);

}  // namespace devserver
