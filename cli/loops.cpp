#include "loops.hpp"

#include <editline/readline.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <optional>

namespace qnbrl_cli {

namespace {

using Clock = std::chrono::steady_clock;

// What a script waits for before it reads on.
struct Pending {
  std::string command;
  Step step;
  Clock::time_point deadline;
};

int pollFor(pollfd* fds, nfds_t count, std::optional<Clock::time_point> deadline) {
  int timeout = -1;
  if (deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - Clock::now()).count();
    timeout = static_cast<int>(std::max<std::int64_t>(0, left));
  }
  return ::poll(fds, count, timeout);
}

}  // namespace

int runScript(Session& session, Inbox& inbox, Console& console, int fd, std::string preamble) {
  std::string buffer = std::move(preamble);
  bool eof = false;
  std::optional<Pending> pending;
  int status = 0;
  // A waited-for event that has already arrived, or just did, ends the wait.
  auto settleWait = [&] {
    if (pending && !pending->step.event.empty() && session.consume(pending->step.event)) {
      console.record({{"ts", nowMs()}, {"command", pending->command}, {"code", 0}});
      pending.reset();
    }
  };
  while (status == 0) {
    for (auto& item : inbox.take()) {
      session.absorb(item);
      console.record(item.record);
      if (pending && item.call == pending->step.call && pending->step.call != 0) {
        const auto* code = item.record.if_contains("code");
        if (!code || code->as_int64() != 0) status = 1;
        pending.reset();
      }
    }
    settleWait();
    if (status != 0) break;
    if (pending && Clock::now() >= pending->deadline) {
      console.error("timed out after " + std::to_string(pending->step.limit.count()) +
                    " s: " + pending->command);
      if (console.json())
        console.record({{"ts", nowMs()}, {"command", pending->command}, {"error", "timed out"}});
      status = 1;
      break;
    }
    if (!pending) {
      const auto newline = buffer.find('\n');
      if (newline != std::string::npos || (eof && !buffer.empty())) {
        std::string line = buffer.substr(0, newline);
        buffer.erase(0, newline == std::string::npos ? buffer.size() : newline + 1);
        const Step step = session.run(line);
        if (!step.ok) status = 1;
        if (step.quit) break;
        if (step.call != 0 || !step.event.empty()) {
          const auto limit = step.event.empty() ? session.limit() : step.limit;
          pending = Pending{line.substr(line.find_first_not_of(" \t")), step, Clock::now() + limit};
          pending->step.limit = limit;
          settleWait();
        }
        continue;
      }
      if (eof) break;
    }
    pollfd fds[2] = {{inbox.fd(), POLLIN, 0}, {fd, POLLIN, 0}};
    const nfds_t count = pending ? 1 : 2;
    if (pollFor(fds, count, pending ? std::optional(pending->deadline) : std::nullopt) < 0 &&
        errno != EINTR) {
      console.error(std::string("poll: ") + std::strerror(errno));
      return 1;
    }
    if (count == 2 && (fds[1].revents & (POLLIN | POLLHUP | POLLERR))) {
      char chunk[4096];
      const auto n = ::read(fd, chunk, sizeof chunk);
      if (n > 0) {
        buffer.append(chunk, static_cast<std::size_t>(n));
      } else if (n == 0 || errno != EINTR) {
        eof = true;
      }
    }
  }
  return status;
}

namespace {

// libedit's callback interface calls a plain function with the line.
struct Editor {
  Session* session = nullptr;
  Console* console = nullptr;
  bool quit = false;
} editor;

constexpr const char* kPrompt = "qnbrl> ";

void onLine(char* line) {
  if (!line) {  // end of input (Ctrl-D)
    editor.quit = true;
    std::fputc('\n', stdout);
    return;
  }
  editor.console->setEditing(false);
  if (*line) add_history(line);
  const Step step = editor.session->run(line);
  std::free(line);
  if (step.quit) {
    editor.quit = true;
    return;
  }
  if (!step.event.empty()) editor.console->error("wait: only scripts wait; events are printed as they come");
  // After a line the editor falls back to blocking reads until it is installed again.
  rl_callback_handler_install(kPrompt, onLine);
  editor.console->setEditing(true);
}

}  // namespace

int runInteractive(Session& session, Inbox& inbox, Console& console, const std::string& historyFile) {
  // The library writes its own lines (its log echo) to stdout and stderr from its threads. They are
  // read back from a pipe and printed above the prompt like events; the console and the line editor
  // keep the terminal.
  std::FILE* terminalOut = ::fdopen(::dup(STDOUT_FILENO), "w");
  std::FILE* terminalErr = ::fdopen(::dup(STDERR_FILENO), "w");
  int library[2];
  if (!terminalOut || !terminalErr || ::pipe2(library, O_CLOEXEC) != 0) {
    console.error(std::string("cannot set up the terminal: ") + std::strerror(errno));
    return 1;
  }
  std::fflush(stdout);
  std::fflush(stderr);
  ::dup2(library[1], STDOUT_FILENO);
  ::dup2(library[1], STDERR_FILENO);
  ::close(library[1]);
  console.setStreams(terminalOut, terminalErr);
  rl_outstream = terminalOut;

  editor = {&session, &console, false};
  using_history();
  if (!historyFile.empty()) read_history(historyFile.c_str());
  console.text("Type help for the commands, quit or Ctrl-D to leave.");
  rl_callback_handler_install(kPrompt, onLine);
  console.setEditing(true);
  std::string partial;  // the library's output up to its next newline
  while (!editor.quit) {
    pollfd fds[3] = {{inbox.fd(), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}, {library[0], POLLIN, 0}};
    if (::poll(fds, 3, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (fds[0].revents & POLLIN) {
      for (auto& item : inbox.take()) {
        session.absorb(item);
        console.record(item.record);
      }
    }
    if (fds[2].revents & POLLIN) {
      char chunk[4096];
      const auto n = ::read(library[0], chunk, sizeof chunk);
      if (n > 0) partial.append(chunk, static_cast<std::size_t>(n));
      for (auto end = partial.find('\n'); end != std::string::npos; end = partial.find('\n')) {
        console.text(partial.substr(0, end));
        partial.erase(0, end + 1);
      }
    }
    if (fds[1].revents & (POLLIN | POLLHUP | POLLERR)) rl_callback_read_char();
  }
  console.setEditing(false);
  rl_callback_handler_remove();
  if (!historyFile.empty()) write_history(historyFile.c_str());
  // The library may print until the client is gone: its lines go to the terminal again.
  ::dup2(::fileno(terminalOut), STDOUT_FILENO);
  ::dup2(::fileno(terminalErr), STDERR_FILENO);
  ::close(library[0]);
  return 0;
}

}  // namespace qnbrl_cli
