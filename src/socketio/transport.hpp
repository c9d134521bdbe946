#pragma once
// The seam between the engine and the wire: the engine speaks Engine.IO over any message transport,
// a WebSocket in production, an in-memory one in tests and fuzzers.
#include "socketio/client.hpp"

#include <boost/asio/any_io_executor.hpp>

#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace sio::detail {

struct Outgoing {
  std::string text;
  BufferPtr binary;  // set for an attachment frame
};

// How a transport reports to its owner, always on the owner's executor.
class TransportListener {
 public:
  // The connection is up; the server speaks first, with the Engine.IO open packet.
  virtual void onOpen() = 0;
  virtual void onText(std::string_view frame) = 0;
  virtual void onBinary(BufferPtr frame) = 0;
  // The connection is gone; `why` is the "disconnect" reason text.
  virtual void onClosed(const std::string& why) = 0;

 protected:
  ~TransportListener() = default;
};

// One connection attempt's message channel.
class Transport {
 public:
  virtual ~Transport() = default;
  virtual void start() = 0;
  virtual void send(Outgoing frame) = 0;
  // Closes after the queued frames have gone out; no callback reaches the listener afterwards.
  virtual void close() = 0;
};

using TransportFactory = std::function<std::shared_ptr<Transport>(
    boost::asio::any_io_executor ex, const Endpoint& endpoint, const Options& options,
    std::weak_ptr<TransportListener> listener)>;

}  // namespace sio::detail
