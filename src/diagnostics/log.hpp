#pragma once
// The client's plain-text diagnostic log: one line per message appended to one file, each message
// also echoed to stderr with its level's prefix. Silent until the application sets a filter.
//
// Formats use "%@" for each argument ("%%" is a literal "%"), and the number of placeholders is
// checked at compile time. Strings are written as they are, numbers as text, JSON objects and arrays
// (and anything Boost.JSON can convert) as compact JSON, an empty optional as "(null)". A message
// whose level the filter does not admit costs one comparison: nothing is formatted.
#include "support/json.hpp"
#include "support/queues.hpp"

#include <boost/json.hpp>

#include <array>
#include <atomic>
#include <charconv>
#include <concepts>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

namespace qnbrl {

namespace log_detail {

consteval std::size_t countPlaceholders(std::string_view format) {
  std::size_t count = 0;
  for (std::size_t i = 0; i + 1 < format.size(); ++i) {
    if (format[i] != '%') continue;
    if (format[i + 1] == '@') ++count;
    ++i;  // "%@" and "%%" are both two characters
  }
  return count;
}

// A format string whose "%@" count matches the number of arguments.
template <class... Args>
struct Format {
  template <class S>
  requires std::convertible_to<const S&, std::string_view>
  consteval Format(const S& s) : text(s) {  // NOLINT: implicit on purpose, like std::format_string
    if (countPlaceholders(text) != sizeof...(Args))
      throw "log format: placeholder count differs from arguments";
  }
  std::string_view text;
};

inline std::string describe(std::string_view s) {
  return std::string(s);
}
inline std::string describe(const char* s) {
  return s ? std::string(s) : std::string("(null)");
}
inline std::string describe(std::nullptr_t) {
  return "(null)";
}
inline std::string describe(bool b) {
  return b ? "true" : "false";
}

template <class T>
requires(std::is_arithmetic_v<T> && !std::is_same_v<T, bool>) std::string describe(T number) {
  std::array<char, 64> buffer{};
  auto result = std::to_chars(buffer.data(), buffer.data() + buffer.size(), number);
  return std::string(buffer.data(), result.ptr);
}

template <class T>
requires std::is_enum_v<T> std::string describe(T e) {
  return describe(static_cast<std::underlying_type_t<T>>(e));
}

inline std::string describe(const boost::json::object& o) {
  return jsonString(o).value_or("(null)");
}
inline std::string describe(const boost::json::array& a) {
  return jsonString(a).value_or("(null)");
}

inline std::string describe(const boost::json::value& v) {
  if (const auto* s = v.if_string()) return std::string(*s);
  if (v.is_object() || v.is_array()) return jsonString(v).value_or("(null)");
  return boost::json::serialize(v);
}

template <class T>
std::string describe(const std::optional<T>& v) {
  return v ? describe(*v) : std::string("(null)");
}

// Containers and other types that Boost.JSON converts.
template <class T>
requires(!std::is_arithmetic_v<T> && !std::is_enum_v<T> &&
         !std::is_convertible_v<const T&, std::string_view> &&
         !std::is_convertible_v<const T&, const char*> && boost::json::has_value_from<T>::value) std::string
    describe(const T& v) {
  return describe(boost::json::value_from(v));
}

}  // namespace log_detail

class QNLog {
 public:
  enum class Level { info, warn, error, critical };

  // The one process-wide instance, created on first use with the default file and filter 0, and never
  // destroyed.
  static QNLog& shared();
  // Prepares "qn_brl.log" in the caches directory and returns its path.
  static std::string createFile();
  // The same in a given directory (created when missing): a file larger than 10 MiB is deleted, then
  // an empty file is created if none exists. Errors are ignored.
  static std::string createFile(const std::filesystem::path& directory);

  // A log of its own, writing to the given path on its own "com.qn.brl" queue (tests use this).
  explicit QNLog(std::string log_file_path);
  QNLog(const QNLog&) = delete;
  QNLog& operator=(const QNLog&) = delete;

  // Written when the filter is greater than 0, at least 2, at least 4, at least 8.
  template <class... Args>
  void info(log_detail::Format<std::type_identity_t<Args>...> format, const Args&... args) {
    log(Level::info, format.text, args...);
  }
  template <class... Args>
  void warn(log_detail::Format<std::type_identity_t<Args>...> format, const Args&... args) {
    log(Level::warn, format.text, args...);
  }
  template <class... Args>
  void error(log_detail::Format<std::type_identity_t<Args>...> format, const Args&... args) {
    log(Level::error, format.text, args...);
  }
  template <class... Args>
  void critical(log_detail::Format<std::type_identity_t<Args>...> format, const Args&... args) {
    log(Level::critical, format.text, args...);
  }

  // Appends the text, trimmed of white space at both ends, as one line, on the log's queue. The line
  // is lost silently when the file does not exist.
  void writeLogToFile(std::string text);

  // Plain signed "at least" tests: 1 admits info, 2-3 also warn, 4-7 also error, 8 or more all;
  // 0 and negative values admit nothing.
  void setLogFilter(std::int64_t filter) { log_filter_.store(filter, std::memory_order_relaxed); }
  std::int64_t logFilter() const { return log_filter_.load(std::memory_order_relaxed); }
  // Later lines go to this path; nothing is created or checked.
  void setLogFilePath(std::string path);
  std::string logFilePath() const;

  // Waits until every line submitted so far is written. Not from the log's own queue.
  void flush();

 private:
  static bool admits(std::int64_t filter, Level level);

  template <class... Args>
  void log(Level level, std::string_view format, const Args&... args) {
    if (!admits(logFilter(), level)) return;
    std::array<std::string, sizeof...(Args)> described{log_detail::describe(args)...};
    emit(level, substitute(format, described.data(), described.size()));
  }

  static std::string substitute(std::string_view format, const std::string* args, std::size_t count);
  void emit(Level level, std::string message);

  std::atomic<std::int64_t> log_filter_{0};
  mutable std::mutex path_mutex_;
  std::string log_file_path_;
  const std::shared_ptr<SerialQueue> queue_;
};

}  // namespace qnbrl
