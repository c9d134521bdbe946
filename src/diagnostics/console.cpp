#include "diagnostics/console.hpp"

#include <cstdio>
#include <string>

namespace qnbrl {

void consoleEcho(std::string_view line) {
  // One write per line keeps lines from different threads whole.
  std::string text(line);
  text += '\n';
  std::fwrite(text.data(), 1, text.size(), stderr);
}

}  // namespace qnbrl
