// The fallback store for machines without a Secret Service: one JSON file {service: {account: value}}
// that only its owner may read, replaced atomically on every change.
#include "support/json.hpp"
#include "support/keychain_store.hpp"

#include <libsecret/secret.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>

namespace qnbrl {
namespace {

static_assert(SECRET_ERROR_NO_SUCH_OBJECT == 3 && SECRET_ERROR_INVALID_FILE_FORMAT == 5);

class FileBackend : public KeyChainBackend {
 public:
  explicit FileBackend(std::filesystem::path file) : file_(std::move(file)) {}

  KeyChainStatus add(const std::string& service, const std::string& account,
                     const std::string& value) override {
    std::lock_guard lock(mutex_);
    boost::json::object items;
    // A damaged file is replaced rather than left to block every later write.
    KeyChainStatus status = read(items);
    if (status != 0 && status != ENOENT && status != SECRET_ERROR_INVALID_FILE_FORMAT) return status;
    auto* accounts = items[service].if_object();
    if (!accounts) accounts = &(items[service] = boost::json::object()).as_object();
    (*accounts)[account] = value;
    return write(items);
  }

  KeyChainStatus copy(const std::string& service, const std::string& account, std::string& value) override {
    std::lock_guard lock(mutex_);
    boost::json::object items;
    if (KeyChainStatus status = read(items)) return status == ENOENT ? SECRET_ERROR_NO_SUCH_OBJECT : status;
    const auto* found = find(items, service, account);
    if (!found) return SECRET_ERROR_NO_SUCH_OBJECT;
    value = std::string(found->get_string());
    return 0;
  }

  KeyChainStatus remove(const std::string& service, const std::string& account) override {
    std::lock_guard lock(mutex_);
    boost::json::object items;
    if (KeyChainStatus status = read(items)) return status == ENOENT ? SECRET_ERROR_NO_SUCH_OBJECT : status;
    if (!find(items, service, account)) return SECRET_ERROR_NO_SUCH_OBJECT;
    items[service].as_object().erase(account);
    return write(items);
  }

 private:
  static const boost::json::value* find(const boost::json::object& items, const std::string& service,
                                        const std::string& account) {
    const auto* accounts = items.if_contains(service);
    if (!accounts || !accounts->is_object()) return nullptr;
    const auto* value = accounts->get_object().if_contains(account);
    return value && value->is_string() ? value : nullptr;
  }

  KeyChainStatus read(boost::json::object& items) const {
    int fd = ::open(file_.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return errno;
    std::string text;
    char buffer[4096];
    for (;;) {
      ssize_t n = ::read(fd, buffer, sizeof buffer);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      text.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(fd);
    boost::system::error_code ec;
    auto parsed = boost::json::parse(text, ec);
    if (ec || !parsed.is_object()) return SECRET_ERROR_INVALID_FILE_FORMAT;
    items = std::move(parsed.as_object());
    return 0;
  }

  KeyChainStatus write(const boost::json::object& items) const {
    auto text = jsonString(items);
    if (!text) return EILSEQ;  // a value that is not UTF-8 text
    std::error_code ec;
    std::filesystem::create_directories(file_.parent_path(), ec);
    if (ec) return ec.value();
    ::chmod(file_.parent_path().c_str(), 0700);
    auto temporary = file_;
    temporary += ".tmp";
    int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) return errno;
    // A file left behind with wider permissions by someone else is narrowed before anything is written.
    KeyChainStatus status = ::fchmod(fd, 0600) == 0 ? 0 : errno;
    std::string_view rest = *text;
    while (status == 0 && !rest.empty()) {
      ssize_t n = ::write(fd, rest.data(), rest.size());
      if (n < 0 && errno == EINTR) continue;
      if (n < 0)
        status = errno;
      else
        rest.remove_prefix(static_cast<std::size_t>(n));
    }
    if (status == 0 && ::fsync(fd) != 0) status = errno;
    ::close(fd);
    if (status == 0 && ::rename(temporary.c_str(), file_.c_str()) != 0) status = errno;
    if (status != 0) ::unlink(temporary.c_str());
    return status;
  }

  const std::filesystem::path file_;
  std::mutex mutex_;
};

}  // namespace

std::shared_ptr<KeyChainBackend> fileBackend(std::filesystem::path file) {
  return std::make_shared<FileBackend>(std::move(file));
}

}  // namespace qnbrl
