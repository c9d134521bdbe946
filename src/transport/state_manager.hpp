#pragma once
// Who is logged in and how the connection stands: what every operation consults before it sends
// anything. Shared by the client, its channels and its invitation kit; readable from any thread.
#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

namespace qnbrl {

class QNBRLStateManager {
 public:
  explicit QNBRLStateManager(std::string appId) : appId_(std::move(appId)) {}

  const std::string& appId() const { return appId_; }

  std::string userId() const {
    std::lock_guard lock(mutex_);
    return userId_;
  }
  void setUserId(std::string userId) {
    std::lock_guard lock(mutex_);
    userId_ = std::move(userId);
  }

  // True from the first "loginSuccess" until logout.
  bool login() const { return login_.load(); }
  void setLogin(bool login) { login_.store(login); }

  // The connection state's integer (1 to 4), 0 before the first login.
  std::int64_t state() const { return state_.load(); }
  void setState(std::int64_t state) { state_.store(state); }

 private:
  const std::string appId_;
  mutable std::mutex mutex_;
  std::string userId_;
  std::atomic<bool> login_{false};
  std::atomic<std::int64_t> state_{0};
};

}  // namespace qnbrl
