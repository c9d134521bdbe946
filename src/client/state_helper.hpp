#pragma once
// The session's credentials, kept for reconnections and forgotten at logout. The other state a
// reconnection replays (joined channels, the local user's attributes, subscriptions) belongs to
// the features that keep it.
#include "client/login_params.hpp"

namespace qnbrl {

class QNBRLStateHelper {
 public:
  QNBRLLoginParams& loginParams() { return loginParams_; }

  // Forgets the credentials; the record stays for the next login.
  void logout() { loginParams_.logout(); }

 private:
  QNBRLLoginParams loginParams_;
};

}  // namespace qnbrl
