#include "diagnostics/logan_file_manager.hpp"

#include "diagnostics/console.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <system_error>

namespace qnbrl {
namespace fs = std::filesystem;

namespace {

constexpr std::int64_t kRecordsPerFile = 100;
constexpr const char* kWorkingFileName = "logan";

std::string join(const std::string& dir, const std::string& name) {
  return (fs::path(dir) / name).string();
}

// A plain rename would silently replace a file closed off earlier in the same second; this one
// fails instead, leaving both files where they are.
std::error_code renameNoReplace(const std::string& from, const std::string& to) {
#if defined(__linux__)
  if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return {};
  if (errno != EINVAL && errno != ENOSYS) return {errno, std::generic_category()};
#endif
  // Where the file system cannot refuse to replace, a hard link can: it fails when the name exists.
  if (::link(from.c_str(), to.c_str()) != 0) return {errno, std::generic_category()};
  ::unlink(from.c_str());
  return {};
}

bool writeAll(int fd, const std::string& data) {
  const char* p = data.data();
  std::size_t left = data.size();
  while (left > 0) {
    auto n = ::write(fd, p, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    left -= static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace

std::shared_ptr<QNLoganFileManager> QNLoganFileManager::create(const std::string& loganDirPath, bool backup) {
  return std::shared_ptr<QNLoganFileManager>(new QNLoganFileManager(loganDirPath, backup));
}

QNLoganFileManager::QNLoganFileManager(const std::string& loganDirPath, bool backup)
    : queue_(SerialQueue::create("com.qn.data.collect.queue")), backup_(backup), loganDirPath_(loganDirPath) {
  createDir(loganDirPath_);
  auto dir = fs::path(loganDirPath_);
  if (!dir.has_filename()) dir = dir.parent_path();  // "logan/" names the same directory as "logan"
  loganBackupDirPath_ = dir.string() + "_bak";
  createDir(loganBackupDirPath_);
  removeEmptyFile();
  loganFileToWrite_ = join(loganDirPath_, kWorkingFileName);
  resetFileHandle();
}

QNLoganFileManager::~QNLoganFileManager() {
  std::lock_guard lock(filelock_);
  closeHandleLocked();
}

std::int64_t QNLoganFileManager::writeCount() const {
  std::lock_guard lock(filelock_);
  return writeCount_;
}

void QNLoganFileManager::writeLog(std::string log) {
  // The task keeps the store alive, so records written just before it is dropped still land.
  queue_->async([self = shared_from_this(), log = std::move(log)] { self->append(log); });
}

void QNLoganFileManager::append(const std::string& log) {
  std::lock_guard lock(filelock_);
  if (handle_ < 0) return;
  // Raised before the test and reset after the rotation: the first file after start-up gets 99
  // records, every later one 100.
  if (++writeCount_ >= kRecordsPerFile) {
    saveLocked();
    writeCount_ = 0;
  }
  if (handle_ < 0) return;
  writeAll(handle_, log + "\n");
}

std::string QNLoganFileManager::saveCurrentWritingLoganFileToWaitUpload() {
  std::lock_guard lock(filelock_);
  return saveLocked();
}

std::string QNLoganFileManager::saveLocked() {
  auto path = nextLogPath();
  renameNoReplace(loganFileToWrite_, path);  // on failure writing simply goes on in the working file
  resetLocked();
  return path;
}

std::string QNLoganFileManager::nextLogPath() const {
  std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char name[32];
  std::strftime(name, sizeof name, "%Y_%m_%d_%H_%M_%S", &local);
  return join(loganDirPath_, name);
}

void QNLoganFileManager::resetFileHandle() {
  std::lock_guard lock(filelock_);
  resetLocked();
}

void QNLoganFileManager::resetLocked() {
  closeHandleLocked();
  writeCount_ = 0;
  qn_createFile(loganFileToWrite_);
  // No O_CREAT: a working file that cannot be created leaves the store without a handle.
  handle_ = ::open(loganFileToWrite_.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
}

void QNLoganFileManager::closeHandleLocked() {
  if (handle_ < 0) return;
  ::fsync(handle_);
  ::close(handle_);
  handle_ = -1;
}

std::optional<std::vector<std::string>> QNLoganFileManager::allLogPaths() const {
  std::error_code ec;
  fs::directory_iterator it(loganDirPath_, ec);
  if (ec) return std::nullopt;
  std::vector<std::pair<double, std::string>> entries;
  for (; it != fs::directory_iterator(); it.increment(ec)) {
    if (ec) break;
    auto name = it->path().filename().string();
    entries.emplace_back(fileCreationDate(join(loganDirPath_, name)).value_or(0.0), std::move(name));
  }
  std::stable_sort(entries.begin(), entries.end(), [](auto& a, auto& b) { return a.first < b.first; });
  std::vector<std::string> names;
  names.reserve(entries.size());
  for (auto& e : entries) names.push_back(std::move(e.second));
  return names;
}

std::optional<double> QNLoganFileManager::fileCreationDate(const std::string& path) {
#if defined(__linux__)
  struct statx st {};
  if (::statx(AT_FDCWD, path.c_str(), 0, STATX_BTIME | STATX_MTIME, &st) != 0) return std::nullopt;
  const auto& t = (st.stx_mask & STATX_BTIME) ? st.stx_btime : st.stx_mtime;
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
#elif defined(__APPLE__)
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return std::nullopt;
  return static_cast<double>(st.st_birthtimespec.tv_sec) +
         static_cast<double>(st.st_birthtimespec.tv_nsec) / 1e9;
#else
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return std::nullopt;
  return static_cast<double>(st.st_mtime);
#endif
}

std::optional<std::string> QNLoganFileManager::getWaitUploadFilePath() {
  for (const auto& name : allLogPaths().value_or(std::vector<std::string>{})) {
    if (name == ".DS_Store") continue;
    // The directory test looks at the bare name, i.e. relative to the process's working directory;
    // that is how the trail has always behaved, so a stray directory here is offered like a file.
    std::error_code dirError;
    if (fs::is_directory(name, dirError)) continue;
    if (name == kWorkingFileName) continue;
    auto path = join(loganDirPath_, name);
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) {
      consoleEcho("error:" + std::error_code(errno, std::generic_category()).message());
      return path;
    }
    if (st.st_size != 0) return path;
    if (::unlink(path.c_str()) != 0) consoleEcho(std::error_code(errno, std::generic_category()).message());
  }
  struct stat st {};
  if (::stat(loganFileToWrite_.c_str(), &st) == 0 && st.st_size != 0)
    return saveCurrentWritingLoganFileToWaitUpload();
  return std::nullopt;
}

void QNLoganFileManager::moveToBackupWithFilePath(const std::string& filePath) {
  auto target = join(loganBackupDirPath_, fs::path(filePath).filename().string());
  // An older backup of the same name (two close-offs in one second, or local time set back) is
  // replaced: refusing would leave the accepted file in place, to be sent again on every tick.
  if (::rename(filePath.c_str(), target.c_str()) != 0) {
    consoleEcho(std::error_code(errno, std::generic_category()).message());
  }
}

void QNLoganFileManager::removeEmptyFile() const {
  std::error_code ec;
  fs::directory_iterator it(loganDirPath_, ec);
  if (ec) return;
  for (; it != fs::directory_iterator(); it.increment(ec)) {
    if (ec) break;
    auto path = join(loganDirPath_, it->path().filename().string());
    struct stat st {};
    if (::stat(path.c_str(), &st) == 0 && st.st_size == 0) fs::remove(path, ec);
  }
}

void QNLoganFileManager::createDir(const std::string& path) {
  std::error_code ec;
  if (fs::exists(fs::symlink_status(path, ec))) return;
  fs::create_directories(path, ec);
}

bool QNLoganFileManager::qn_createFile(const std::string& path) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  if (fd >= 0) ::close(fd);
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

}  // namespace qnbrl
