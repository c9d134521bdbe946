#pragma once
// Wire shapes that several features share: a message's "content", attribute maps, and the JSON form
// of the public value types in log lines.
#include "qnbrl/brl_attribute.hpp"
#include "qnbrl/brl_channel_types.hpp"
#include "qnbrl/brl_message.hpp"
#include "qnbrl/brl_peer_types.hpp"
#include "socketio/codec.hpp"
#include "transport/brl_result.hpp"

#include <boost/json.hpp>

#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

namespace qnbrl {

// The value a server gives a deleted attribute; never sent, never shown to the application.
inline constexpr std::string_view kDeletedValue = "!!&@#DELETED#@&!!";

// 1 to 64 characters: ASCII letters, digits, white space and the listed punctuation. Checks user,
// peer and channel ids.
bool isValidId(std::string_view id);

// How many of the message's bodies (its UTF-8 text, its bytes) exceed QNBRLMessageMaxBytes: each is
// told to the sender on its own.
int oversizeBodies(const QNBRLMessage& message);

// {"text": text or null, "binary": bytes or null}; the bytes are shared into `attachments` and the
// object holds their placeholder.
boost::json::object contentOf(const QNBRLMessage& message, std::vector<sio::BufferPtr>& attachments);

// The message a pushed item carries in "content", with its "serverReceivedTs": a raw message when
// "binary" is bytes (its text as given, null or absent staying absent), else a text message when
// "text" is present (null included), else none.
std::shared_ptr<QNBRLMessage> messageOf(const boost::json::object& item, const sio::Payload& payload);

// A map's value as text: a string as it is, anything else as its JSON text.
std::string textOf(const boost::json::value& value);

// {key: value, ...} in list order; a later duplicate key overwrites an earlier one.
boost::json::object attributeMap(const std::vector<QNBRLAttribute>& attributes);
// One attribute per key of a server's map, in the map's order; anything but an object gives none.
std::vector<QNBRLAttribute> attributesOf(const boost::json::value* map);
// The same with the deleted sentinel read: such a key comes with `deleted` set and an empty value.
std::vector<QNBRLAttributeWithState> attributesWithStateOf(const boost::json::value* map);

// The value as an object, or an empty one: pushed items are read defensively.
const boost::json::object& asObject(const boost::json::value& value);
const boost::json::object& objectAt(const boost::json::array& items, std::size_t index);
const boost::json::object& objectIn(const boost::json::object& object, std::string_view key);
std::string stringIn(const boost::json::object& object, std::string_view key);
// The object under `key` in an answer's response; empty when there is none.
const boost::json::object& responseIn(const QNBRLResult* result, std::string_view key);

// Their JSON form in log lines.
void tag_invoke(boost::json::value_from_tag, boost::json::value& out, const QNBRLAttribute& attribute);
void tag_invoke(boost::json::value_from_tag, boost::json::value& out, const QNBRLAttributeWithState& attribute);
void tag_invoke(boost::json::value_from_tag, boost::json::value& out, const QNBRLMember& member);
void tag_invoke(boost::json::value_from_tag, boost::json::value& out, const QNBRLPeerOnlineStatus& status);

}  // namespace qnbrl
