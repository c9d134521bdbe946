#pragma once
// Time stamps, digests and regular expressions used throughout the client.
#include <cstdint>
#include <string>
#include <string_view>

namespace qnbrl {

// Wall-clock milliseconds since 1970-01-01 UTC: seconds as a double times 1000.0, truncated.
std::int64_t currentTimeStamp();

// MD5 of the bytes up to the first zero byte, as 32 lower-case hexadecimal characters. Empty only if
// the crypto library refuses MD5 (a FIPS-only configuration).
std::string md5Value(std::string_view text);

// True when the whole text matches the RE2 pattern (anchored at both ends). An invalid pattern
// matches nothing. Compiled patterns are cached, so pass fixed patterns.
bool match(std::string_view text, std::string_view pattern);

struct SearchOptions {
  bool caseInsensitive = false;
  // `^` and `$` match at the start and end of every line.
  bool multiline = false;
};

// True when the RE2 pattern matches anywhere in the text. Same caching and invalid-pattern rule as
// match().
bool search(std::string_view text, std::string_view pattern, SearchOptions options = {});

}  // namespace qnbrl
