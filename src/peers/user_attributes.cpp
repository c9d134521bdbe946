#include "peers/user_attributes.hpp"

#include "diagnostics/log.hpp"
#include "peers/peer_support.hpp"
#include "qnbrl/brl_peer_types.hpp"
#include "transport/callback.hpp"
#include "transport/wire.hpp"

namespace qnbrl {
namespace {

constexpr AckCodes codesPassing(std::uint64_t passed) {
  return {.noAck = QNBRLUserAttributeErrorTimeout,
          .tooManyRequests = QNBRLUserAttributeErrorTooOften,
          .passed = passed,
          .failure = QNBRLUserAttributeErrorFailure,
          .textsFirst = true};
}

// A time-out of the by-keys read is recorded as 5 while the caller is told 7.
void recordByKeysFailure(const Operation& op, const std::string& subject, int code, Stage stage) {
  bool timedOut = stage == Stage::ack && code == QNBRLUserAttributeErrorTimeout;
  recordFailure(op, subject, timedOut ? QNBRLUserAttributeErrorTooOften : code, stage);
}

constexpr Operation kSet{
    .command = "setLocalUserAttributes",
    .codes = codesPassing(codeSet({4})),
    .record = recordFailure,
    .interface = "-[QNBRLKit setLocalUserAttributes:completion:]",
    .action = "set",
    .logRequest = [](const boost::json::object& p) { QNLog::shared().info("set user attributes: %@", p); },
};

constexpr Operation kAddOrUpdate{
    .command = "addOrUpdateLocalUserAttributes",
    .codes = codesPassing(codeSet({4})),
    .record = recordFailure,
    .interface = "-[QNBRLKit addOrUpdateLocalUserAttributes:completion:]",
    .action = "update",
    .logRequest = [](const boost::json::object& p) { QNLog::shared().info("add user attributes: %@", p); },
};

constexpr Operation kDelete{
    .command = "deleteLocalUserAttributesByKeys",
    .codes = codesPassing(0),
    .record = recordFailure,
    .interface = "-[QNBRLKit deleteLocalUserAttributesByKeys:completion:]",
    .action = "delete",
    .logRequest = [](const boost::json::object& p) { QNLog::shared().info("delete user attributes: %@", p); },
};

constexpr Operation kClear{
    .command = "clearLocalUserAttributes",  // the sender waits 10 seconds for this one
    .codes = codesPassing(0),
    .record = recordFailure,
    .interface = "-[QNBRLKit clearLocalUserAttributesWithCompletion:]",
    .action = "delete",  // clearing is recorded as a deletion
    .logRequest = [](const boost::json::object&) { QNLog::shared().info("clear user attributes"); },
};

constexpr Operation kGet{
    .command = "getUserAttributes",
    .codes = codesPassing(codeSet({6})),
    .record = recordFailure,
    .interface = "-[QNBRLKit getUserAttributes:completion:]",
    .action = "get",
    .logRequest = [](const boost::json::object& p) { QNLog::shared().info("get user attributes: %@", p); },
};

constexpr Operation kGetByKeys{
    .command = "getUserAttributesByKeys",
    .codes = codesPassing(codeSet({6})),
    .record = recordByKeysFailure,
    .interface = "-[QNBRLKit getUserAttributes:byKeys:completion:]",
    .action = "get",
    .logRequest = [](const boost::json::object& p) { QNLog::shared().info("get user attributes: %@", p); },
};

QNBRLLocalUserAttributes::Map mapOf(const std::vector<QNBRLAttribute>& attributes) {
  QNBRLLocalUserAttributes::Map map;
  for (const auto& a : attributes) map[a.key] = a.value;  // a later duplicate key wins
  return map;
}

boost::json::array keysOf(const std::vector<std::string>& keys) {
  return boost::json::array(keys.begin(), keys.end());
}

}  // namespace

void QNBRLLocalUserAttributes::setLocalUserAttributes(Map attributes) {
  std::lock_guard lock(lock_);
  attributes_ = std::move(attributes);
}

void QNBRLLocalUserAttributes::addOrUpdateLocalUserAttributes(const Map& attributes) {
  std::lock_guard lock(lock_);
  for (const auto& [key, value] : attributes) attributes_[key] = value;
}

void QNBRLLocalUserAttributes::deleteLocalUserAttributesByKeys(const std::vector<std::string>& keys) {
  std::lock_guard lock(lock_);
  for (const auto& key : keys) attributes_.erase(key);
}

void QNBRLLocalUserAttributes::clearLocalUserAttributes() {
  std::lock_guard lock(lock_);
  attributes_.clear();
}

QNBRLLocalUserAttributes::Map QNBRLLocalUserAttributes::userAttributes() const {
  std::lock_guard lock(lock_);
  return attributes_;
}

std::vector<QNBRLAttribute> QNBRLLocalUserAttributes::brlAttributes() const {
  std::vector<QNBRLAttribute> list;
  for (auto& [key, value] : userAttributes()) list.push_back({key, value});
  return list;
}

void QNUserAttributes::write(const Operation& op, bool valid, boost::json::object payload, Confirm confirm,
                             Completion completion) {
  requests_->send(op, {.refusal = valid ? 0 : QNBRLUserAttributeErrorInvalidArgument,
                       .payload = std::move(payload),
                       .finish = [cache = std::weak_ptr(cache_), confirm = std::move(confirm),
                                  completion = std::move(completion)](int code, const QNBRLResult*) {
                         if (code == 0) {
                           if (auto c = cache.lock()) confirm(*c);
                         }
                         callApplication(completion, code);
                       }});
}

void QNUserAttributes::read(const Operation& op, const std::string& userId, bool valid,
                            boost::json::object payload, AttributesCompletion completion) const {
  requests_->send(
      op, {.refusal = valid ? 0 : QNBRLUserAttributeErrorInvalidArgument,
           .payload = std::move(payload),
           .finish = [userId, completion = std::move(completion)](int code, const QNBRLResult* result) {
             std::optional<std::vector<QNBRLAttribute>> attributes;
             if (result && code == 0)
               attributes =
                   attributesOf(result->response ? result->response->if_contains("attributes") : nullptr);
             callApplication(completion, std::move(attributes), userId, code);
           }});
}

void QNUserAttributes::setLocalUserAttributes(const std::vector<QNBRLAttribute>& attributes,
                                              Completion completion) {
  write(
      kSet, !attributes.empty(), {{"attributes", attributeMap(attributes)}},
      [map = mapOf(attributes)](QNBRLLocalUserAttributes& cache) { cache.setLocalUserAttributes(map); },
      std::move(completion));
}

void QNUserAttributes::addOrUpdateLocalUserAttributes(const std::vector<QNBRLAttribute>& attributes,
                                                      Completion completion) {
  write(
      kAddOrUpdate, !attributes.empty(), {{"attributes", attributeMap(attributes)}},
      [map = mapOf(attributes)](QNBRLLocalUserAttributes& cache) {
        cache.addOrUpdateLocalUserAttributes(map);
      },
      std::move(completion));
}

void QNUserAttributes::deleteLocalUserAttributesByKeys(const std::vector<std::string>& keys,
                                                       Completion completion) {
  write(
      kDelete, !keys.empty(), {{"attributeKeys", keysOf(keys)}},
      [keys](QNBRLLocalUserAttributes& cache) { cache.deleteLocalUserAttributesByKeys(keys); },
      std::move(completion));
}

void QNUserAttributes::clearLocalUserAttributesWithCompletion(Completion completion) {
  write(
      kClear, true, {}, [](QNBRLLocalUserAttributes& cache) { cache.clearLocalUserAttributes(); },
      std::move(completion));
}

void QNUserAttributes::getUserAttributes(const std::string& userId, AttributesCompletion completion) const {
  read(kGet, userId, isValidId(userId), {{"userId", userId}}, std::move(completion));
}

void QNUserAttributes::getUserAttributes(const std::string& userId, const std::vector<std::string>& keys,
                                         AttributesCompletion completion) const {
  read(kGetByKeys, userId, !keys.empty() && isValidId(userId),
       {{"userId", userId}, {"attributeKeys", keysOf(keys)}}, std::move(completion));
}

void QNUserAttributes::restoreLocalUserAttributes(std::vector<QNBRLAttribute> attributes) {
  if (!requests_->loggedIn() || attributes.empty()) return;
  setLocalUserAttributes(
      attributes,
      againOnFailure(weak_from_this(), &QNUserAttributes::restoreLocalUserAttributes, attributes));
}

}  // namespace qnbrl
