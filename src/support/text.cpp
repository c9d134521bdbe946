#include "support/text.hpp"

#include <openssl/evp.h>
#include <re2/re2.h>

#include <cctype>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <tuple>

namespace qnbrl {
namespace {

// Patterns come from fixed strings in the code, so the cache stays small; the bound only keeps a
// careless caller from growing it without limit.
constexpr std::size_t kMaxCachedPatterns = 256;

// Null for an invalid pattern. RE2 objects are safe to match from many threads at once.
std::shared_ptr<const RE2> compiled(std::string_view pattern, const SearchOptions& options) {
  using Key = std::tuple<std::string, bool, bool>;
  static std::mutex mutex;
  static auto* cache = new std::map<Key, std::shared_ptr<const RE2>>();  // never destroyed: used at exit

  Key key{std::string(pattern), options.caseInsensitive, options.multiline};
  std::lock_guard lock(mutex);
  if (auto it = cache->find(key); it != cache->end()) return it->second;

  RE2::Options re2_options;
  re2_options.set_log_errors(false);
  re2_options.set_case_sensitive(!options.caseInsensitive);
  // Outside POSIX mode, RE2 makes ^ and $ match at line boundaries only through the (?m) flag.
  std::string source = options.multiline ? "(?m)" + std::string(pattern) : std::string(pattern);
  auto re = std::make_shared<const RE2>(source, re2_options);
  if (!re->ok()) re.reset();
  if (cache->size() < kMaxCachedPatterns) cache->emplace(std::move(key), re);
  return re;
}

}  // namespace

std::int64_t currentTimeStamp() {
  auto since_epoch = std::chrono::system_clock::now().time_since_epoch();
  double seconds = std::chrono::duration<double>(since_epoch).count();
  return static_cast<std::int64_t>(seconds * 1000.0);
}

std::string md5Value(std::string_view text) {
  text = text.substr(0, text.find('\0'));
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(text.data(), text.size(), digest, &length, EVP_md5(), nullptr) != 1) return {};
  std::string out;
  char byte[3];
  for (unsigned int i = 0; i < length; ++i) {
    std::snprintf(byte, sizeof byte, "%02X", digest[i]);
    out += byte;
  }
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

bool match(std::string_view text, std::string_view pattern) {
  auto re = compiled(pattern, {});
  return re && RE2::FullMatch(text, *re);
}

bool search(std::string_view text, std::string_view pattern, SearchOptions options) {
  auto re = compiled(pattern, options);
  return re && RE2::PartialMatch(text, *re);
}

}  // namespace qnbrl
