#include "support/keychain_store.hpp"

#include "support/paths.hpp"

#include <unistd.h>

#include <cctype>
#include <climits>
#include <cstdio>
#include <mutex>

namespace qnbrl {
namespace {

struct State {
  std::mutex mutex;
  std::optional<std::string> service;
  std::shared_ptr<KeyChainBackend> backend;
};

// Never destroyed: the store may be used while the process exits.
State& state() {
  static auto* s = new State();
  return *s;
}

std::string executableName() {
  char buffer[PATH_MAX];
  ssize_t n = ::readlink("/proc/self/exe", buffer, sizeof buffer - 1);
  if (n <= 0) return {};
  return std::filesystem::path(std::string(buffer, static_cast<std::size_t>(n))).filename().string();
}

std::shared_ptr<KeyChainBackend> backend() {
  auto& s = state();
  std::lock_guard lock(s.mutex);
  if (!s.backend) {
    s.backend = secretServiceBackend();
    if (!s.backend) s.backend = fileBackend(defaultFallbackFile());
  }
  return s.backend;
}

// The status as a signed number, as eight hexadecimal digits, and as the four bytes of the status
// word read as characters (most significant first, ending at a zero byte; unprintable bytes as '?').
void printStatus(const char* format, KeyChainStatus status) {
  auto word = static_cast<std::uint32_t>(status);
  char chars[5] = {};
  for (int i = 0; i < 4; ++i) {
    auto byte = static_cast<unsigned char>(word >> (24 - 8 * i));
    if (byte == 0) break;
    chars[i] = std::isprint(byte) ? static_cast<char>(byte) : '?';
  }
  std::printf(format, static_cast<long>(status), static_cast<unsigned long>(word), chars);
  std::fflush(stdout);
}

}  // namespace

std::filesystem::path defaultFallbackFile() {
  return dataDirectory() / "qnbrl" / "secure-store.json";
}

std::string QNKeyChainStore::defaultService() {
  auto& s = state();
  std::lock_guard lock(s.mutex);
  if (!s.service) s.service = executableName();
  return *s.service;
}

void QNKeyChainStore::setDefaultService(std::string service) {
  auto& s = state();
  std::lock_guard lock(s.mutex);
  s.service = std::move(service);
}

void QNKeyChainStore::setBackend(std::shared_ptr<KeyChainBackend> store) {
  auto& s = state();
  std::lock_guard lock(s.mutex);
  s.backend = std::move(store);
}

bool QNKeyChainStore::setString(const std::string& value, const std::string& key) {
  auto store = backend();
  auto service = defaultService();
  // Write replaces: whatever was there goes first, and whether it was there does not matter.
  store->remove(service, key);
  KeyChainStatus status = store->add(service, key, value);
  if (status == 0) return true;
  printStatus("SecItemAdd error, status: %ld %08lX %4.4s\n", status);
  return false;
}

std::optional<std::string> QNKeyChainStore::stringForKey(const std::string& key) {
  std::string value;
  KeyChainStatus status = backend()->copy(defaultService(), key, value);
  if (status == 0) return value;
  printStatus("SecItemCopyMatching error, status: %ld %08lX %4.4s \n", status);
  return std::nullopt;
}

bool QNKeyChainStore::deleteKey(const std::string& key) {
  KeyChainStatus status = backend()->remove(defaultService(), key);
  if (status == 0) return true;
  printStatus("SecItemDelete error, status: %ld %08lX %4.4s \n", status);
  return false;
}

}  // namespace qnbrl
