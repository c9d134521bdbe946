#pragma once
#include <string_view>

namespace sio::detail {

// True when `s` is well-formed UTF-8 (no overlong forms, surrogates or code points past U+10FFFF):
// the server closes the connection on a text frame that is not.
bool validUtf8(std::string_view s);

}  // namespace sio::detail
