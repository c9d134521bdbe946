#pragma once
// The local user's attributes: the six operations, and the cache of what the server last confirmed,
// which is written only after a confirmation, replayed whole after a reconnection and emptied at logout.
#include "qnbrl/brl_attribute.hpp"
#include "transport/request.hpp"

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace qnbrl {

class QNBRLLocalUserAttributes {
 public:
  using Map = std::map<std::string, std::string>;

  void setLocalUserAttributes(Map attributes);
  void addOrUpdateLocalUserAttributes(const Map& attributes);
  void deleteLocalUserAttributesByKeys(const std::vector<std::string>& keys);  // unknown keys are ignored
  void clearLocalUserAttributes();
  void logout() { clearLocalUserAttributes(); }

  Map userAttributes() const;
  std::vector<QNBRLAttribute> brlAttributes() const;  // in key order

 private:
  mutable std::mutex lock_;
  Map attributes_;
};

class QNUserAttributes : public std::enable_shared_from_this<QNUserAttributes> {
 public:
  using Completion = std::function<void(int code)>;
  using AttributesCompletion = std::function<void(std::optional<std::vector<QNBRLAttribute>> attributes,
                                                  const std::string& userId, int code)>;

  explicit QNUserAttributes(std::shared_ptr<const RequestPath> requests) : requests_(std::move(requests)) {}

  void setLocalUserAttributes(const std::vector<QNBRLAttribute>& attributes, Completion completion);
  void addOrUpdateLocalUserAttributes(const std::vector<QNBRLAttribute>& attributes, Completion completion);
  void deleteLocalUserAttributesByKeys(const std::vector<std::string>& keys, Completion completion);
  void clearLocalUserAttributesWithCompletion(Completion completion);
  // Any user's attributes, the local user's own included; the cache is not consulted.
  void getUserAttributes(const std::string& userId, AttributesCompletion completion) const;
  void getUserAttributes(const std::string& userId, const std::vector<std::string>& keys,
                         AttributesCompletion completion) const;

  const QNBRLLocalUserAttributes& cache() const { return *cache_; }
  // Sets the whole list again, on every failure once more on the next turn of the main queue, until
  // the server confirms or the user logs out. Nothing is sent for an empty list.
  void restoreLocalUserAttributes(std::vector<QNBRLAttribute> attributes);
  void logout() { cache_->logout(); }

 private:
  using Confirm = std::function<void(QNBRLLocalUserAttributes& cache)>;
  void write(const Operation& op, bool valid, boost::json::object payload, Confirm confirm,
             Completion completion);
  void read(const Operation& op, const std::string& userId, bool valid, boost::json::object payload,
            AttributesCompletion completion) const;

  const std::shared_ptr<const RequestPath> requests_;
  // Held weakly by the acknowledgements: once the client is gone they only complete.
  const std::shared_ptr<QNBRLLocalUserAttributes> cache_ = std::make_shared<QNBRLLocalUserAttributes>();
};

}  // namespace qnbrl
