#include "output.hpp"

#include <editline/readline.h>
#include <fcntl.h>
#include <unistd.h>

#include <boost/json/serialize.hpp>

#include <chrono>
#include <cstdio>
#include <ctime>

namespace qnbrl_cli {

namespace json = boost::json;

std::int64_t nowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

std::string base64(const std::vector<std::uint8_t>& bytes) {
  static constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const std::size_t n = std::min<std::size_t>(3, bytes.size() - i);
    std::uint32_t v = bytes[i] << 16;
    if (n > 1) v |= bytes[i + 1] << 8;
    if (n > 2) v |= bytes[i + 2];
    for (std::size_t k = 0; k < 4; ++k) out += k <= n ? kDigits[(v >> (18 - 6 * k)) & 63] : '=';
  }
  return out;
}

namespace {

std::string clock(std::int64_t ms) {
  const std::time_t seconds = ms / 1000;
  std::tm local{};
  localtime_r(&seconds, &local);
  char text[32];
  std::snprintf(text, sizeof text, "%02d:%02d:%02d.%03d", local.tm_hour, local.tm_min, local.tm_sec,
                static_cast<int>(ms % 1000));
  return text;
}

// Strings as they are (quoted when they hold a space or are empty), lists comma-separated, anything
// else as JSON.
std::string human(const json::value& value) {
  if (value.is_string()) {
    std::string s(value.get_string());
    return s.empty() || s.find(' ') != std::string::npos ? json::serialize(value) : s;
  }
  if (value.is_array()) {
    std::string out;
    for (const auto& v : value.get_array()) out += (out.empty() ? "" : ",") + human(v);
    return out;
  }
  return json::serialize(value);
}

}  // namespace

std::string humanLine(const Record& record) {
  std::string line =
      "[" + clock(record.contains("ts") ? record.at("ts").to_number<std::int64_t>() : 0) + "] ";
  if (const auto* event = record.if_contains("event")) {
    line += event->get_string();
  } else if (const auto* command = record.if_contains("command")) {
    line += std::string(command->get_string()) + ": ";
    const auto* code = record.if_contains("code");
    if (code && code->as_int64() == 0) {
      line += "ok";
    } else {
      line += "failed";
      if (code) line += ", code " + std::to_string(code->as_int64());
      if (const auto* error = record.if_contains("error"))
        line += " (" + std::string(error->get_string()) + ")";
    }
  }
  for (const auto& [key, value] : record) {
    if (key == "ts" || key == "event" || key == "command" || key == "op" || key == "code" || key == "error")
      continue;
    line += " " + std::string(key) + "=" + human(value);
  }
  return line;
}

Inbox::Inbox() {
  if (::pipe2(pipe_, O_CLOEXEC | O_NONBLOCK) != 0) pipe_[0] = pipe_[1] = -1;
}

Inbox::~Inbox() {
  for (int fd : pipe_)
    if (fd >= 0) ::close(fd);
}

void Inbox::post(Item item) {
  {
    std::lock_guard lock(mutex_);
    items_.push_back(std::move(item));
  }
  const char wake = 1;
  // A full pipe already wakes the reader.
  [[maybe_unused]] auto written = ::write(pipe_[1], &wake, 1);
}

std::deque<Item> Inbox::take() {
  char drain[256];
  while (::read(pipe_[0], drain, sizeof drain) > 0) {
  }
  std::lock_guard lock(mutex_);
  return std::exchange(items_, {});
}

void Console::record(const Record& record) {
  write(out_, json_ ? json::serialize(record) : humanLine(record));
}

void Console::text(const std::string& text) {
  write(json_ ? err_ : out_, text);
}

void Console::error(const std::string& what) {
  write(err_, "qnbrl: " + what);
}

void Console::write(std::FILE* stream, const std::string& text) {
  // Clear the line being edited, print, then let the line editor draw the prompt and the typed text again.
  if (editing_) std::fputs("\r\x1b[K", out_), std::fflush(out_);
  std::fputs(text.c_str(), stream);
  std::fputc('\n', stream);
  std::fflush(stream);
  if (editing_) rl_forced_update_display();
}

}  // namespace qnbrl_cli
