#pragma once
/// @file
/// Attributes of users and channels: text keys with text values.
#include <string>
#include <vector>

namespace qnbrl {

/// One attribute of a user or a channel.
struct QNBRLAttribute {
  std::string key;    ///< The attribute's name.
  std::string value;  ///< Its value.

  /// Equal when key and value are.
  friend bool operator==(const QNBRLAttribute&, const QNBRLAttribute&) = default;
};

/// A change of another user's attribute: a deleted key has `deleted` set and an empty value.
struct QNBRLAttributeWithState : QNBRLAttribute {
  bool deleted = false;  ///< The key was deleted.

  /// Equal when key, value and state are.
  friend bool operator==(const QNBRLAttributeWithState&, const QNBRLAttributeWithState&) = default;
};

/// One user's attributes, as a read or a change push reports them.
struct QNBRLUserAttributes {
  std::string userId;  ///< The user they belong to.
  /// In the order the server listed the keys.
  std::vector<QNBRLAttributeWithState> attributes;
};

}  // namespace qnbrl
