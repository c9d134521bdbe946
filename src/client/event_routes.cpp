// The one table that sends each event a server pushes to the part of the client that handles it.
// Handlers read their payloads defensively: a missing or mistyped item reads as absent and never
// throws. An event without a row is dropped.
#include "client/kit_impl.hpp"

#include <string_view>

namespace qnbrl {
namespace {

using Handler = void (QNBRLKit::Impl::*)(QNBRLKit&, const sio::Payload&);

struct Route {
  std::string_view event;
  Handler handler;
};

constexpr Route kRoutes[] = {
    {"disconnect", &QNBRLKit::Impl::onDisconnect},
    {"disconnectReason", &QNBRLKit::Impl::onDisconnectReason},
    {"loginSuccess", &QNBRLKit::Impl::onLoginSuccess},
};

}  // namespace

void QNBRLKit::Impl::onEvent(QNBRLKit& kit, std::string_view event, const sio::Payload& data) {
  for (const auto& route : kRoutes) {
    if (route.event == event) return (this->*route.handler)(kit, data);
  }
}

}  // namespace qnbrl
