#pragma once
// Attributes of users and channels: text keys with text values.
#include <string>
#include <vector>

namespace qnbrl {

struct QNBRLAttribute {
  std::string key;
  std::string value;

  friend bool operator==(const QNBRLAttribute&, const QNBRLAttribute&) = default;
};

// A change of another user's attribute: a deleted key has `deleted` set and an empty value.
struct QNBRLAttributeWithState : QNBRLAttribute {
  bool deleted = false;

  friend bool operator==(const QNBRLAttributeWithState&, const QNBRLAttributeWithState&) = default;
};

struct QNBRLUserAttributes {
  std::string userId;
  // In the order the server listed the keys.
  std::vector<QNBRLAttributeWithState> attributes;
};

}  // namespace qnbrl
