// The Secret Service through libsecret. Every call runs under a deadline: a keyring that waits for an
// unlock prompt nobody answers must not stall the caller.
#include "support/keychain_store.hpp"

#include <libsecret/secret.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace qnbrl {
namespace {

static_assert(SECRET_ERROR_IS_LOCKED == 2 && SECRET_ERROR_NO_SUCH_OBJECT == 3);
static_assert(G_IO_ERROR_TIMED_OUT == 24);

constexpr auto kDeadline = std::chrono::seconds(5);

const SecretSchema kSchema = {"qnbrl.GenericPassword",
                              SECRET_SCHEMA_NONE,
                              {{"service", SECRET_SCHEMA_ATTRIBUTE_STRING},
                               {"account", SECRET_SCHEMA_ATTRIBUTE_STRING},
                               {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING}},
                              0,
                              nullptr,
                              nullptr,
                              nullptr,
                              nullptr,
                              nullptr,
                              nullptr,
                              nullptr};

// Cancels its GCancellable when the deadline passes before the object is destroyed.
class Deadline {
 public:
  Deadline() : cancellable_(g_cancellable_new()) {
    watchdog_ = std::thread([this] {
      std::unique_lock lock(mutex_);
      if (!finished_.wait_for(lock, kDeadline, [this] { return done_; })) {
        expired_ = true;
        g_cancellable_cancel(cancellable_);
      }
    });
  }
  ~Deadline() {
    {
      std::lock_guard lock(mutex_);
      done_ = true;
    }
    finished_.notify_one();
    watchdog_.join();
    g_object_unref(cancellable_);
  }
  Deadline(const Deadline&) = delete;
  Deadline& operator=(const Deadline&) = delete;

  GCancellable* cancellable() const { return cancellable_; }

  // The status of a failed call, taking ownership of its error (which may be null: nothing matched).
  KeyChainStatus status(GError* error) {
    KeyChainStatus status = SECRET_ERROR_NO_SUCH_OBJECT;
    if (error) {
      std::lock_guard lock(mutex_);
      if (expired_ && g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
        status = G_IO_ERROR_TIMED_OUT;
      } else {
        status = error->code != 0 ? error->code : -1;
      }
      g_error_free(error);
    }
    return status;
  }

 private:
  GCancellable* cancellable_;
  std::mutex mutex_;
  std::condition_variable finished_;
  bool done_ = false;
  bool expired_ = false;
  std::thread watchdog_;
};

class SecretServiceBackend : public KeyChainBackend {
 public:
  KeyChainStatus add(const std::string& service, const std::string& account,
                     const std::string& value) override {
    Deadline deadline;
    GError* error = nullptr;
    SecretValue* secret = secret_value_new(value.data(), static_cast<gssize>(value.size()), "text/plain");
    gboolean ok = secret_password_store_binary_sync(&kSchema, SECRET_COLLECTION_DEFAULT, account.c_str(),
                                                    secret, deadline.cancellable(), &error, "service",
                                                    service.c_str(), "account", account.c_str(), nullptr);
    secret_value_unref(secret);
    return ok ? 0 : deadline.status(error);
  }

  KeyChainStatus copy(const std::string& service, const std::string& account, std::string& value) override {
    Deadline deadline;
    GError* error = nullptr;
    SecretValue* secret =
        secret_password_lookup_binary_sync(&kSchema, deadline.cancellable(), &error, "service",
                                           service.c_str(), "account", account.c_str(), nullptr);
    if (!secret) return deadline.status(error);
    gsize length = 0;
    const gchar* data = secret_value_get(secret, &length);
    value.assign(data, length);
    secret_value_unref(secret);
    return 0;
  }

  KeyChainStatus remove(const std::string& service, const std::string& account) override {
    Deadline deadline;
    GError* error = nullptr;
    gboolean ok = secret_password_clear_sync(&kSchema, deadline.cancellable(), &error, "service",
                                             service.c_str(), "account", account.c_str(), nullptr);
    return ok ? 0 : deadline.status(error);
  }
};

}  // namespace

std::shared_ptr<KeyChainBackend> secretServiceBackend() {
  // Opening a session is a real round trip: it starts an activatable service, and fails at once
  // without a session bus.
  Deadline deadline;
  GError* error = nullptr;
  SecretService* service =
      secret_service_get_sync(SECRET_SERVICE_OPEN_SESSION, deadline.cancellable(), &error);
  if (!service) {
    if (error) g_error_free(error);
    return nullptr;
  }
  g_object_unref(service);
  return std::make_shared<SecretServiceBackend>();
}

}  // namespace qnbrl
