#pragma once
// Per-user directories of the platform, read from the environment at each call.
#include <filesystem>

namespace qnbrl {

// $XDG_CACHE_HOME, else ~/.cache. Relative XDG values are ignored, as the XDG rules require.
std::filesystem::path cachesDirectory();

// $XDG_DATA_HOME, else ~/.local/share.
std::filesystem::path dataDirectory();

}  // namespace qnbrl
