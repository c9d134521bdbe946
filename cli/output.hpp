#pragma once
// What the command-line client prints: records (events and completions), each one line, as JSON or as
// human text, and the queue that carries them from the library's thread to the thread that prints.
#include <boost/json/object.hpp>

#include <cstdint>
#include <cstdio>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace qnbrl {
class QNBRLInvitation;
}

namespace qnbrl_cli {

// {"ts": ms since 1970, "event": name, ...} or {"ts", "command": the line, "op", "code", "error"?, ...}.
using Record = boost::json::object;

std::int64_t nowMs();
std::string base64(const std::vector<std::uint8_t>& bytes);

// A record as a human reads it: "[12:34:56.789] memberJoined channel=c user=bob", or for a completion
// "[12:34:56.789] join c: ok" / "... : failed, code 4 (timeout)", then the results as key=value.
std::string humanLine(const Record& record);

// One thing for the printing thread: a record, with the command it completes (0 for an event) and, for
// invitation events, the invitation the library handed over (accept and refuse need the object).
struct Item {
  Record record;
  std::uint64_t call = 0;
  std::shared_ptr<qnbrl::QNBRLInvitation> invitation;
};

// Filled on any thread; a self-pipe wakes the printing thread's poll().
class Inbox {
 public:
  Inbox();
  ~Inbox();
  Inbox(const Inbox&) = delete;
  Inbox& operator=(const Inbox&) = delete;

  void post(Item item);
  int fd() const { return pipe_[0]; }
  // Everything posted so far, oldest first; empties the pipe too.
  std::deque<Item> take();

 private:
  int pipe_[2] = {-1, -1};
  std::mutex mutex_;
  std::deque<Item> items_;
};

// Where lines go. Human text (help, errors, notices) goes to stderr when records are JSON, so that
// stdout stays one JSON object per line. In interactive mode a line printed while the user types is
// written above the prompt, which is then drawn again with the typed text.
class Console {
 public:
  explicit Console(bool json) : json_(json) {}
  bool json() const { return json_; }
  // Where records and human text go, and errors (stdout and stderr until set).
  void setStreams(std::FILE* out, std::FILE* err) { out_ = out, err_ = err; }
  void record(const Record& record);
  void text(const std::string& text);   // human text: help, notices
  void error(const std::string& what);  // "qnbrl: what" on stderr
  // While set, output is written above the line being edited.
  void setEditing(bool editing) { editing_ = editing; }

 private:
  void write(std::FILE* stream, const std::string& text);
  bool json_;
  bool editing_ = false;
  std::FILE* out_ = stdout;
  std::FILE* err_ = stderr;
};

}  // namespace qnbrl_cli
