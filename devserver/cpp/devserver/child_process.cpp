#include "devserver/child_process.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

extern char** environ;

namespace devserver {

namespace {

// Keeps our descriptors off 0..2, so that dup2 onto the child's standard streams always clears
// close-on-exec even when this process runs without a standard input.
int aboveStdio(int fd) {
  if (fd < 0 || fd > 2) return fd;
  const int moved = fcntl(fd, F_DUPFD_CLOEXEC, 3);
  close(fd);
  return moved;
}

void closeFd(int& fd) {
  if (fd >= 0) close(fd);
  fd = -1;
}

// Waits up to `limit` for the child to exit, without reaping it. Without pidfd support (Linux < 5.3) it
// reports false at once, and the caller goes straight to SIGKILL.
bool waitExit(pid_t pid, std::chrono::milliseconds limit) {
  const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  if (pidfd < 0) return false;
  pollfd p{pidfd, POLLIN, 0};
  int rc;
  do {
    rc = poll(&p, 1, static_cast<int>(limit.count()));
  } while (rc < 0 && errno == EINTR);
  close(pidfd);
  return rc > 0;
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& argv, LineHandler onLine, EndHandler onEnd,
                           const std::string& stderrPath) {
  if (argv.empty()) {
    startError_ = "nothing to start";
    return;
  }
  // stdin is a socket so that writing to a child that has gone fails with EPIPE (MSG_NOSIGNAL) instead
  // of raising SIGPIPE in this process.
  int in[2];
  int out[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, in) != 0) {
    startError_ = std::string("cannot make a socket pair: ") + std::strerror(errno);
    return;
  }
  if (pipe2(out, O_CLOEXEC) != 0) {
    startError_ = std::string("cannot make a pipe: ") + std::strerror(errno);
    close(in[0]);
    close(in[1]);
    return;
  }
  for (int* fd : {&in[0], &in[1], &out[0], &out[1]}) *fd = aboveStdio(*fd);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[1], 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  if (!stderrPath.empty()) {
    posix_spawn_file_actions_addopen(&actions, 2, stderrPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  }
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = -1;
  const int rc = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(in[1]);
  close(out[1]);
  if (rc != 0) {
    startError_ = "cannot start " + argv[0] + ": " + std::strerror(rc);
    close(in[0]);
    close(out[0]);
    return;
  }
  pid_ = pid;
  stdinFd_ = in[0];
  stdoutFd_ = out[0];
  reader_ =
      std::thread([this, onLine = std::move(onLine), onEnd = std::move(onEnd)] { readLoop(onLine, onEnd); });
}

ChildProcess::~ChildProcess() {
  stop();
}

void ChildProcess::readLoop(LineHandler onLine, EndHandler onEnd) {
  std::string pending;
  char buf[65536];
  for (;;) {
    const ssize_t n = read(stdoutFd_, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    pending.append(buf, static_cast<std::size_t>(n));
    std::size_t start = 0;
    for (std::size_t nl; (nl = pending.find('\n', start)) != std::string::npos; start = nl + 1) {
      onLine(pending.substr(start, nl - start));
    }
    pending.erase(0, start);
  }
  if (!pending.empty()) onLine(std::move(pending));
  onEnd();
}

bool ChildProcess::writeLine(std::string_view line) {
  std::string data(line);
  data.push_back('\n');
  std::lock_guard lock(writeMutex_);
  std::size_t done = 0;
  while (done < data.size()) {
    if (stdinFd_ < 0) return false;
    const ssize_t n = send(stdinFd_, data.data() + done, data.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

int ChildProcess::stop(std::chrono::milliseconds grace) {
  std::lock_guard stopLock(stopMutex_);
  if (pid_ <= 0 || reaped_) return status_;
  {
    std::lock_guard lock(writeMutex_);
    closeFd(stdinFd_);
  }
  kill(pid_, SIGTERM);
  if (!waitExit(pid_, grace)) kill(pid_, SIGKILL);
  int status = 0;
  while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  status_ = status;
  reaped_ = true;
  if (reader_.joinable()) reader_.join();
  closeFd(stdoutFd_);
  return status_;
}

}  // namespace devserver
