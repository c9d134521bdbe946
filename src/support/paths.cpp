#include "support/paths.hpp"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

namespace qnbrl {
namespace {

std::filesystem::path homeDirectory() {
  if (const char* home = std::getenv("HOME"); home && *home) return home;
  // A service started without HOME still has a passwd entry.
  std::vector<char> buffer(16384);
  passwd entry{};
  passwd* found = nullptr;
  if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found && found->pw_dir)
    return found->pw_dir;
  return "/";
}

std::filesystem::path xdgDirectory(const char* variable, const char* fallback_under_home) {
  if (const char* value = std::getenv(variable); value && *value == '/') return value;
  return homeDirectory() / fallback_under_home;
}

}  // namespace

std::filesystem::path cachesDirectory() {
  return xdgDirectory("XDG_CACHE_HOME", ".cache");
}

std::filesystem::path dataDirectory() {
  return xdgDirectory("XDG_DATA_HOME", ".local/share");
}

}  // namespace qnbrl
