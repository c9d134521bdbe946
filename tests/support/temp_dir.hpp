#pragma once
// A fresh directory per test, removed with everything in it when the test ends.
#include <filesystem>
#include <string>

namespace testing_support {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

// Sets an environment variable for the life of the object and restores the old value afterwards.
class ScopedEnv {
 public:
  ScopedEnv(std::string name, const char* value);  // nullptr unsets
  ~ScopedEnv();
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  std::string name_;
  bool had_value_;
  std::string old_value_;
};

}  // namespace testing_support
