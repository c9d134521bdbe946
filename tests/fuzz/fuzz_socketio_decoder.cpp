// Feeds hostile frame sequences through the Engine.IO and Socket.IO decoders. The input is a series of
// chunks, each led by one byte: its low bit picks a binary (1) or text (0) frame, the rest is the
// length (a length past the end takes what is left).
#include "socketio/codec.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

namespace {

// JSON carries no Infinity or NaN: a number that overflowed goes out as null.
void nullNonFinite(boost::json::value& v) {
  if (v.is_double() && !std::isfinite(v.get_double())) {
    v = nullptr;
  } else if (auto* a = v.if_array()) {
    for (auto& e : *a) nullNonFinite(e);
  } else if (auto* o = v.if_object()) {
    for (auto& e : *o) nullNonFinite(e.value());
  }
}

// Boost.JSON 1.81 reads some doubles an ulp away from the nearest (24e100): one read, written and
// read again may move that little.
bool same(const boost::json::value& a, const boost::json::value& b) {
  if (a.is_double() && b.is_double()) {
    const double x = a.get_double(), y = b.get_double();
    return x == y || std::abs(x - y) <= 1e-15 * std::max(std::abs(x), std::abs(y));
  }
  if (a.is_array() && b.is_array()) {
    const auto &p = a.get_array(), &q = b.get_array();
    return p.size() == q.size() && std::equal(p.begin(), p.end(), q.begin(), same);
  }
  if (a.is_object() && b.is_object()) {
    const auto &p = a.get_object(), &q = b.get_object();
    return p.size() == q.size() && std::all_of(p.begin(), p.end(), [&](const boost::json::key_value_pair& e) {
             const auto* other = q.if_contains(e.key());
             return other && same(e.value(), *other);
           });
  }
  return a == b;
}

// Delivered events and acks must survive a re-encode and decode (count-0 binary packets come back
// as plain ones, non-finite numbers as null; events named by a number are not re-sent).
void checkRoundTrip(const sio::Result<sio::Decoder::Output>& r) {
  const auto* packet = r ? std::get_if<sio::Packet>(&*r.value) : nullptr;
  if (!packet) return;
  const bool event = packet->type == sio::PacketType::Event || packet->type == sio::PacketType::BinaryEvent;
  const bool ack = packet->type == sio::PacketType::Ack || packet->type == sio::PacketType::BinaryAck;
  if (!event && !ack) return;
  sio::Payload payload{packet->data.as_array(), packet->buffers};
  sio::Frames frames;
  if (event) {
    // Only string names go out: the client emits no numbered events.
    const auto* name = payload.args.front().if_string();
    if (!name) return;
    const std::string event_name(*name);
    payload.args.erase(payload.args.begin());
    frames = sio::encodeEvent(event_name, payload, packet->id);
  } else {
    frames = sio::encodeAck(*packet->id, payload);
  }
  sio::Decoder decoder;
  auto again = decoder.onText(std::string_view(frames.text).substr(1));
  for (const auto& frame : frames.binary) {
    if (!again) break;
    again = decoder.onBinary(frame);
  }
  const auto* copy = again ? std::get_if<sio::Packet>(&*again.value) : nullptr;
  boost::json::value expected = packet->data;
  nullNonFinite(expected);
  const auto plain = event ? sio::PacketType::Event : sio::PacketType::Ack;
  const auto binary = event ? sio::PacketType::BinaryEvent : sio::PacketType::BinaryAck;
  if (!copy || copy->type != (packet->buffers.empty() ? plain : binary) || copy->id != packet->id ||
      copy->buffers != packet->buffers || !same(copy->data, expected)) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  sio::Decoder decoder;
  std::size_t i = 0;
  while (i < size) {
    const std::uint8_t head = data[i++];
    const std::size_t len = std::min<std::size_t>(head >> 1, size - i);
    const std::uint8_t* chunk = data + i;
    i += len;
    if (head & 1) {
      checkRoundTrip(decoder.onBinary(std::make_shared<sio::Buffer>(chunk, chunk + len)));
      continue;
    }
    const std::string_view text(reinterpret_cast<const char*>(chunk), len);
    const auto eio = sio::engine::decodeText(text);
    if (!eio) continue;
    if (eio.value->type == sio::engine::Type::Open) {
      (void)sio::engine::decodeHandshake(eio.value->data);
    } else if (eio.value->type == sio::engine::Type::Message) {
      checkRoundTrip(decoder.onText(eio.value->data));
    }
  }
  return 0;
}
