#pragma once
#include "socketio/transport.hpp"

namespace sio::detail {

// A WebSocket over TCP or TLS (Beast), by the endpoint's scheme. `ex` must be an io_context's executor.
std::shared_ptr<Transport> makeWebSocketTransport(boost::asio::any_io_executor ex, const Endpoint& endpoint,
                                                  const Options& options,
                                                  std::weak_ptr<TransportListener> listener);

}  // namespace sio::detail
