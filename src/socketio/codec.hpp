#pragma once
// Engine.IO v4 and Socket.IO v5 packet codec: pure functions and one small state machine for binary
// attachments. No I/O; every input is untrusted and every failure is a value, never an exception.
#include <boost/json/array.hpp>
#include <boost/json/value.hpp>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace sio {

using Buffer = std::vector<std::uint8_t>;
using BufferPtr = std::shared_ptr<const Buffer>;

// An event's or an acknowledgement's arguments. A binary value is a placeholder object
// {"_placeholder":true,"num":N} inside `args` whose N indexes `buffers`; with no buffers the packet
// goes out as a plain EVENT/ACK.
struct Payload {
  boost::json::array args;
  std::vector<BufferPtr> buffers;
};

boost::json::value makePlaceholder(std::size_t num);
// True when `v` is a placeholder whose num is a valid index into `buffers`.
bool isPlaceholder(const boost::json::value& v, std::size_t buffer_count);

// Either a value or the reason it could not be produced.
template <class T>
struct Result {
  std::optional<T> value;
  std::string error;
  static Result fail(std::string why) { return Result{std::nullopt, std::move(why)}; }
  explicit operator bool() const { return value.has_value(); }
};

namespace engine {

enum class Type : char { Open = '0', Close = '1', Ping = '2', Pong = '3', Message = '4', Upgrade = '5', Noop = '6' };

struct TextPacket {
  Type type;
  std::string_view data;  // view into the frame
};
// A text WebSocket message: its first character is the packet type.
Result<TextPacket> decodeText(std::string_view frame);

struct Handshake {
  std::string sid;
  std::chrono::milliseconds ping_interval{};
  std::chrono::milliseconds ping_timeout{};
  std::optional<std::size_t> max_payload;  // python-socketio omits it
};
// The JSON of an open packet (after the '0').
Result<Handshake> decodeHandshake(std::string_view json);

}  // namespace engine

enum class PacketType : int { Connect = 0, Disconnect = 1, Event = 2, Ack = 3, ConnectError = 4, BinaryEvent = 5, BinaryAck = 6 };

// A complete Socket.IO packet, attachments already put back in place of their placeholders' numbers
// (`data` keeps the placeholders; `buffers` holds the frames in placeholder order).
struct Packet {
  PacketType type = PacketType::Event;
  std::string nsp = "/";
  std::optional<std::uint64_t> id;
  boost::json::value data;  // null when the packet has no payload
  std::vector<BufferPtr> buffers;
};

// What goes on the wire for one packet: the text frame (with the leading Engine.IO '4') and then the
// binary frames, attachment 0 first.
struct Frames {
  std::string text;
  std::vector<BufferPtr> binary;
};

// Encodes CONNECT, DISCONNECT, EVENT/ACK (binary types chosen from the payload). The event name is
// written ahead of the arguments. Numbers that are not finite go out as null, as JSON has them.
Frames encodeConnect();
Frames encodeDisconnect();
Frames encodeEvent(std::string_view event, const Payload& payload, std::optional<std::uint64_t> ack_id);
Frames encodeAck(std::uint64_t ack_id, const Payload& payload);

// Event names the server refuses (it closes the whole connection on them).
bool isReservedEventName(std::string_view name);

constexpr std::size_t kMaxAttachments = 10;

// What one inbound packet may make the client hold. The service's message bodies are at most
// 32 KiB and its batches (member lists, attribute maps, presence) well under a MiB; without bounds a
// hostile frame of [0,0,...] takes up to 36 times its size while it is parsed.
struct DecoderLimits {
  // All the attachments of one packet together: ten bodies of the largest size, with room to spare.
  std::size_t attachment_bytes = 4u * 1024u * 1024u;
  // Building the packet's JSON value, parser stack included: real payloads take 3 to 10 times
  // their text, so even batches of several MiB parse; a denser one is refused.
  std::size_t json_memory = 32u * 1024u * 1024u;
};

// Turns Engine.IO message data into Socket.IO packets, holding a binary packet until all of its
// attachments have arrived. After an error the decoder is reset; the caller closes the connection.
class Decoder {
 public:
  using Output = std::variant<std::monostate, Packet>;  // monostate: need more frames
  explicit Decoder(DecoderLimits limits = {}) : limits_(limits) {}
  // Text message data, i.e. the frame without its Engine.IO '4'.
  Result<Output> onText(std::string_view data);
  Result<Output> onBinary(BufferPtr frame);
  bool awaitingAttachments() const { return pending_.has_value(); }
  void reset() {
    pending_.reset();
    pending_bytes_ = 0;
  }

 private:
  DecoderLimits limits_;
  std::optional<Packet> pending_;
  std::size_t expected_ = 0;
  std::size_t pending_bytes_ = 0;
};

// Where to connect: built from a base URL, a path and the user's query parameters.
struct Endpoint {
  bool tls = false;
  std::string host;    // without brackets
  std::string port;    // always set (80/443 by default)
  std::string target;  // path and query, e.g. /socket.io/?token=abc&EIO=4&transport=websocket
  std::string host_header;  // host[:port] as the Host header wants it (port omitted when default)
  bool host_is_ip = false;
};
Result<Endpoint> buildEndpoint(std::string_view base_url, std::string_view path,
                               const std::vector<std::pair<std::string, std::string>>& query);

}  // namespace sio
