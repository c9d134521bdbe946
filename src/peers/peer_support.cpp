#include "peers/peer_support.hpp"

#include "diagnostics/logan_manager.hpp"

namespace qnbrl {

void recordFailure(const Operation& op, const std::string&, int code, Stage stage) {
  if (code == 0) return;
  std::string interface(op.interface);
  if (stage == Stage::ack) interface += "_block_invoke";
  LoganManager::sharedInstance().userAttributes(std::string(op.action), interface, 0, code);
}

}  // namespace qnbrl
