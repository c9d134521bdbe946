#include "support/temp_dir.hpp"

#include <cstdlib>
#include <stdexcept>
#include <system_error>

namespace testing_support {

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "qnbrl-test-XXXXXX").string();
  if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

ScopedEnv::ScopedEnv(std::string name, const char* value) : name_(std::move(name)) {
  const char* old = std::getenv(name_.c_str());
  had_value_ = old != nullptr;
  if (old) old_value_ = old;
  if (value) {
    ::setenv(name_.c_str(), value, 1);
  } else {
    ::unsetenv(name_.c_str());
  }
}

ScopedEnv::~ScopedEnv() {
  if (had_value_) {
    ::setenv(name_.c_str(), old_value_.c_str(), 1);
  } else {
    ::unsetenv(name_.c_str());
  }
}

}  // namespace testing_support
