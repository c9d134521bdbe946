#pragma once
// A child process with a stream to its stdin (a socket, so that writing to a child that has gone fails
// instead of raising SIGPIPE) and a pipe from its stdout, split into lines on a reader thread. Stopping is
// bounded: stdin closed, SIGTERM, then SIGKILL after the grace period; the child is always reaped (no
// zombie). Only this child's PID is ever signalled.
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace devserver {

class ChildProcess {
 public:
  using LineHandler = std::function<void(std::string line)>;
  using EndHandler = std::function<void()>;

  // argv[0] is looked up in PATH unless it holds a slash. stderrPath empty: stderr is inherited, else
  // appended to that file. onLine gets each stdout line (without '\n') on the reader thread; onEnd runs
  // there once stdout has closed (the child exited). Check started() afterwards.
  ChildProcess(const std::vector<std::string>& argv, LineHandler onLine, EndHandler onEnd,
               const std::string& stderrPath = {});
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  bool started() const { return pid_ > 0; }
  // Why the child did not start; empty once it has.
  const std::string& startError() const { return startError_; }
  // The child's PID, kept after stop() so that a caller can check that it is gone.
  pid_t pid() const { return pid_; }
  // Writes line + '\n' to the child's stdin; false when the child no longer reads. Thread-safe.
  bool writeLine(std::string_view line);
  // Stops and reaps the child (idempotent); returns its wait status, -1 if it never started.
  int stop(std::chrono::milliseconds grace = std::chrono::seconds(3));

 private:
  void readLoop(LineHandler onLine, EndHandler onEnd);

  pid_t pid_ = -1;
  std::string startError_;
  int stdinFd_ = -1;
  int stdoutFd_ = -1;
  int status_ = -1;
  bool reaped_ = false;
  std::mutex writeMutex_;
  std::mutex stopMutex_;
  std::thread reader_;
};

}  // namespace devserver
