#pragma once
// A tiny text store on top of the user's secure store: one item per key, under a service name that is
// the application's identifier. The Secret Service (GNOME Keyring, KWallet) keeps the items; when none
// answers, a per-user file readable only by its owner does.
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

namespace qnbrl {

// Status numbers, shown in the store's console messages:
//   0                          success
//   3 (SECRET_ERROR_NO_SUCH_OBJECT)  no item for the key (either store)
//   2 (SECRET_ERROR_IS_LOCKED)       the keyring is locked and could not be unlocked
//   5 (SECRET_ERROR_INVALID_FILE_FORMAT)  the fallback file is not readable as a store
//   24 (G_IO_ERROR_TIMED_OUT)        the Secret Service did not answer in time
//   any other positive number        the GError code from libsecret/GDBus/GIO, or the errno of a
//                                    failed file operation
//   -1                               an error whose own code is 0 (a domain's generic "failed")
using KeyChainStatus = std::int32_t;

class KeyChainBackend {
 public:
  virtual ~KeyChainBackend() = default;
  virtual KeyChainStatus add(const std::string& service, const std::string& account,
                             const std::string& value) = 0;
  virtual KeyChainStatus copy(const std::string& service, const std::string& account, std::string& value) = 0;
  virtual KeyChainStatus remove(const std::string& service, const std::string& account) = 0;
};

// The Secret Service on the session bus; null when none answers.
std::shared_ptr<KeyChainBackend> secretServiceBackend();
// Items kept in one JSON file (mode 0600, its directory 0700).
std::shared_ptr<KeyChainBackend> fileBackend(std::filesystem::path file);
// The fallback file: $XDG_DATA_HOME (else ~/.local/share) /qnbrl/secure-store.json.
std::filesystem::path defaultFallbackFile();

class QNKeyChainStore {
 public:
  // The application's identifier: the file name of the running executable unless the application set
  // another; the empty string when neither is known. Read once and cached.
  static std::string defaultService();
  static void setDefaultService(std::string service);

  // Replaces any item under the key. On failure prints "SecItemAdd error, ..." to stdout.
  static bool setString(const std::string& value, const std::string& key);
  // nullopt (after printing "SecItemCopyMatching error, ...") when there is no item or the read fails.
  static std::optional<std::string> stringForKey(const std::string& key);
  // On failure, a missing item included, prints "SecItemDelete error, ..." to stdout.
  static bool deleteKey(const std::string& key);

  // The store behind the class operations: chosen on first use (the Secret Service when one answers,
  // else the fallback file). Tests install their own; nullptr makes the next use choose again.
  static void setBackend(std::shared_ptr<KeyChainBackend> backend);
};

}  // namespace qnbrl
