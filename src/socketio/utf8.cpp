#include "socketio/utf8.hpp"

#include <cstdint>
#include <cstring>

namespace sio::detail {

bool validUtf8(std::string_view s) {
  const auto* p = reinterpret_cast<const unsigned char*>(s.data());
  const auto* end = p + s.size();
  while (p < end) {
    // Frames are mostly ASCII: skip it eight bytes at a time.
    std::uint64_t word;
    while (end - p >= 8 && (std::memcpy(&word, p, 8), (word & 0x8080808080808080u) == 0)) p += 8;
    if (p == end) break;
    if (*p < 0x80) {
      ++p;
      continue;
    }
    int n;
    std::uint32_t cp;
    if ((*p & 0xE0) == 0xC0) {
      n = 1;
      cp = *p & 0x1F;
    } else if ((*p & 0xF0) == 0xE0) {
      n = 2;
      cp = *p & 0x0F;
    } else if ((*p & 0xF8) == 0xF0) {
      n = 3;
      cp = *p & 0x07;
    } else {
      return false;
    }
    if (end - p <= n) return false;
    for (int i = 1; i <= n; ++i) {
      if ((p[i] & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (p[i] & 0x3F);
    }
    static constexpr std::uint32_t kMin[] = {0, 0x80, 0x800, 0x10000};
    if (cp < kMin[n] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    p += n + 1;
  }
  return true;
}

}  // namespace sio::detail
