#include "diagnostics/log.hpp"

#include "support/paths.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <system_error>

namespace qnbrl {
namespace {

constexpr std::uintmax_t kLargestKeptFile = 10 * 1024 * 1024;

constexpr std::string_view kPrefixes[] = {
    "qn_brl_info_log:", "qn_brl_warn_log:", "qn_brl_error_log:", "qn_brl_critical_log:"};
constexpr std::int64_t kThresholds[] = {1, 2, 4, 8};

// Length of the UTF-8 sequence of a white-space or line-break character at the start of s, or 0.
// These are the characters of Unicode's White_Space property.
std::size_t leadingSpace(std::string_view s) {
  if (s.empty()) return 0;
  auto c = static_cast<unsigned char>(s[0]);
  if (c == ' ' || (c >= '\t' && c <= '\r')) return 1;
  auto starts = [&](std::string_view seq) { return s.substr(0, seq.size()) == seq; };
  if (starts("\xC2\x85") || starts("\xC2\xA0")) return 2;
  if (starts("\xE1\x9A\x80") || starts("\xE2\x80\xA8") || starts("\xE2\x80\xA9") || starts("\xE2\x80\xAF") ||
      starts("\xE2\x81\x9F") || starts("\xE3\x80\x80"))
    return 3;
  // U+2000 to U+200A
  if (s.size() >= 3 && c == 0xE2 && static_cast<unsigned char>(s[1]) == 0x80 &&
      static_cast<unsigned char>(s[2]) >= 0x80 && static_cast<unsigned char>(s[2]) <= 0x8A)
    return 3;
  return 0;
}

// Length of the white-space character that ends s, or 0.
std::size_t trailingSpace(std::string_view s) {
  for (std::size_t len = 1; len <= 3 && len <= s.size(); ++len) {
    if (leadingSpace(s.substr(s.size() - len)) == len) return len;
  }
  return 0;
}

std::string_view trim(std::string_view s) {
  while (std::size_t n = leadingSpace(s)) s.remove_prefix(n);
  while (std::size_t n = trailingSpace(s)) s.remove_suffix(n);
  return s;
}

std::string consoleTimeStamp() {
  auto now = std::chrono::system_clock::now();
  std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  auto millis = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm local{};
  localtime_r(&seconds, &local);
  char buffer[40];
  std::size_t n = std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S", &local);
  std::snprintf(buffer + n, sizeof buffer - n, ".%03d ", static_cast<int>(millis));
  return buffer;
}

}  // namespace

QNLog& QNLog::shared() {
  // Never destroyed: lines may be logged while the process exits.
  static auto* instance = new QNLog(createFile());
  return *instance;
}

std::string QNLog::createFile() {
  return createFile(cachesDirectory());
}

std::string QNLog::createFile(const std::filesystem::path& directory) {
  std::error_code ignored;
  std::filesystem::create_directories(directory, ignored);
  auto path = directory / "qn_brl.log";
  auto size = std::filesystem::file_size(path, ignored);
  if (!ignored && size > kLargestKeptFile) std::filesystem::remove(path, ignored);
  // O_EXCL: an existing file is left as it is.
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd >= 0) ::close(fd);
  return path.string();
}

QNLog::QNLog(std::string log_file_path)
    : log_file_path_(std::move(log_file_path)), queue_(SerialQueue::create("com.qn.brl")) {}

bool QNLog::admits(std::int64_t filter, Level level) {
  return filter >= kThresholds[static_cast<int>(level)];
}

void QNLog::setLogFilePath(std::string path) {
  std::lock_guard lock(path_mutex_);
  log_file_path_ = std::move(path);
}

std::string QNLog::logFilePath() const {
  std::lock_guard lock(path_mutex_);
  return log_file_path_;
}

std::string QNLog::substitute(std::string_view format, const std::string* args, std::size_t count) {
  std::string out;
  out.reserve(format.size());
  std::size_t next = 0;
  for (std::size_t i = 0; i < format.size(); ++i) {
    if (format[i] == '%' && i + 1 < format.size() && format[i + 1] == '@') {
      if (next < count) out += args[next++];
      ++i;
    } else if (format[i] == '%' && i + 1 < format.size() && format[i + 1] == '%') {
      out += '%';
      ++i;
    } else {
      out += format[i];
    }
  }
  return out;
}

void QNLog::emit(Level level, std::string message) {
  std::string echo = consoleTimeStamp();
  echo += kPrefixes[static_cast<int>(level)];
  echo += message;
  echo += '\n';
  writeLogToFile(std::move(message));
  // One write per line, so lines from different threads do not interleave.
  std::fwrite(echo.data(), 1, echo.size(), stderr);
}

void QNLog::writeLogToFile(std::string text) {
  queue_->async([path = logFilePath(), text = std::move(text)] {
    std::string line(trim(text));
    line += '\n';
    // No O_CREAT: a file that is gone (or was never created) loses the line, as intended.
    int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    if (fd < 0) return;
    std::string_view rest = line;
    while (!rest.empty()) {
      ssize_t n = ::write(fd, rest.data(), rest.size());
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      rest.remove_prefix(static_cast<std::size_t>(n));
    }
    // Flushed to storage line by line, so the last line before a crash survives.
    ::fsync(fd);
    ::close(fd);
  });
}

void QNLog::flush() {
  queue_->sync([] {});
}

}  // namespace qnbrl
