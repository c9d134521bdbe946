#pragma once
// The features over the real request path, with an in-memory command sender in place of the socket:
// every request is kept and the test answers it, on its own thread, with any acknowledgement.
#include "channels/channel_attributes.hpp"
#include "channels/channel_registry.hpp"
#include "diagnostics/logan_file_manager.hpp"
#include "diagnostics/logan_manager.hpp"
#include "invitations/invitation_kit.hpp"
#include "peers/peer_attributes.hpp"
#include "peers/peer_messages.hpp"
#include "peers/presence.hpp"
#include "peers/user_attributes.hpp"
#include "support/memory_sender.hpp"
#include "support/socketio_fixture.hpp"
#include "transport/request.hpp"

#include <gtest/gtest.h>
#include <boost/json.hpp>

#include <fstream>
#include <vector>

namespace testing_support {

// The in-memory sender with a checked answer: answering a request that was never sent fails the test.
class InMemorySender : public MemorySender {
 public:
  // Answers the latest request of that name (any name when empty).
  void answer(const boost::json::array& ack, std::string_view name = {}) {
    auto all = sent(name);
    ASSERT_FALSE(all.empty()) << "no request " << name << " to answer";
    all.back().done(sio::Payload{ack, {}});
  }
};

class FeatureFixture : public ::testing::Test {
 protected:
  FeatureFixture() {
    state->setLogin(true);
    forgetRecords();
  }

  // Every telemetry record written from here on, as parsed events.
  std::vector<boost::json::object> records() {
    auto& logan = qnbrl::LoganManager::sharedInstance();
    logan.collectManager()->queue()->sync([] {});
    auto store = std::dynamic_pointer_cast<qnbrl::QNLoganFileManager>(logan.collectManager()->loganFileManager());
    store->queue()->sync([] {});
    std::ifstream in(store->loganFileToWrite());
    std::vector<boost::json::object> out;
    std::size_t line_number = 0;
    for (std::string line; std::getline(in, line);) {
      if (line_number++ < records_before_) continue;
      auto envelope = boost::json::parse(line).as_object();
      out.push_back(boost::json::parse(envelope.at("content").as_string()).as_object());
    }
    return out;
  }
  void forgetRecords() { records_before_ += records().size(); }

  ManualTime time;  // no heartbeat or retry fires unless a test moves time
  std::shared_ptr<qnbrl::QNBRLStateManager> state = std::make_shared<qnbrl::QNBRLStateManager>("app");
  std::shared_ptr<InMemorySender> sender = std::make_shared<InMemorySender>();
  std::shared_ptr<const qnbrl::RequestPath> requests = std::make_shared<qnbrl::RequestPath>(state, sender);
  std::shared_ptr<qnbrl::QNBRLChannelRegistry> channels = std::make_shared<qnbrl::QNBRLChannelRegistry>(requests);
  qnbrl::QNChannelAttributes attributes{requests};
  qnbrl::QNPeerMessages peers{requests};
  std::shared_ptr<qnbrl::QNUserAttributes> users = std::make_shared<qnbrl::QNUserAttributes>(requests);
  std::shared_ptr<qnbrl::QNPresence> presence = std::make_shared<qnbrl::QNPresence>(requests);
  std::shared_ptr<qnbrl::QNPeerAttributes> peerAttributes = std::make_shared<qnbrl::QNPeerAttributes>(requests);
  std::shared_ptr<qnbrl::QNBRLInvitationKit> invitations = qnbrl::QNBRLInvitationKit::Impl::create(requests, state);

 private:
  std::size_t records_before_ = 0;
};

}  // namespace testing_support
