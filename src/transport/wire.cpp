#include "transport/wire.hpp"

#include "support/text.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

namespace qnbrl {
namespace {

const boost::json::object kEmpty;

// The buffer a placeholder stands for, or null.
sio::BufferPtr bufferAt(const boost::json::value* v, const sio::Payload& payload) {
  if (!v || !sio::isPlaceholder(*v, payload.buffers.size())) return nullptr;
  auto index = v->as_object().at("num").to_number<std::size_t>();
  return payload.buffers[index];
}

std::int64_t truncatedMillis(const boost::json::value* v) {
  if (!v || !v->is_number()) return 0;
  double ms = v->to_number<double>();
  // Saturate rather than overflow: a hostile number must not be undefined behaviour.
  constexpr double kLimit = 9.2e18;
  if (!std::isfinite(ms)) return 0;
  return static_cast<std::int64_t>(std::clamp(std::trunc(ms), -kLimit, kLimit));
}

}  // namespace

bool isValidId(std::string_view id) {
  return match(id, R"(^[a-zA-Z0-9!#$%&()+\-:;<=.>?@\[\\\]^_{}|~,\s]{1,64}$)");
}

int oversizeBodies(const QNBRLMessage& message) {
  int count = message.text && message.text->size() > QNBRLMessageMaxBytes ? 1 : 0;
  const auto* raw = dynamic_cast<const QNBRLRawMessage*>(&message);
  if (raw && raw->rawData && raw->rawData->size() > QNBRLMessageMaxBytes) ++count;
  return count;
}

boost::json::object contentOf(const QNBRLMessage& message, std::vector<sio::BufferPtr>& attachments) {
  boost::json::object content;
  if (message.text) {
    content["text"] = *message.text;
  } else {
    content["text"] = nullptr;
  }
  const auto* raw = dynamic_cast<const QNBRLRawMessage*>(&message);
  if (raw && raw->rawData) {
    content["binary"] = sio::makePlaceholder(attachments.size());
    attachments.push_back(raw->rawData);
  } else {
    content["binary"] = nullptr;
  }
  return content;
}

std::shared_ptr<QNBRLMessage> messageOf(const boost::json::object& item, const sio::Payload& payload) {
  const auto& content = objectIn(item, "content");
  const auto* text = content.if_contains("text");
  std::optional<std::string> body;
  if (text && text->is_string()) body = std::string(text->get_string());
  std::shared_ptr<QNBRLMessage> message;
  if (auto bytes = bufferAt(content.if_contains("binary"), payload)) {
    auto raw = std::make_shared<QNBRLRawMessage>(std::move(bytes));
    raw->text = std::move(body);
    message = std::move(raw);
  } else if (text) {
    message = std::make_shared<QNBRLMessage>(std::move(body));
  } else {
    return nullptr;
  }
  message->serverReceivedTs = truncatedMillis(item.if_contains("serverReceivedTs"));
  return message;
}

std::string textOf(const boost::json::value& value) {
  if (const auto* s = value.if_string()) return std::string(*s);
  return boost::json::serialize(value);
}

boost::json::object attributeMap(const std::vector<QNBRLAttribute>& attributes) {
  boost::json::object map;
  for (const auto& a : attributes) map[a.key] = a.value;
  return map;
}

std::vector<QNBRLAttribute> attributesOf(const boost::json::value* map) {
  std::vector<QNBRLAttribute> list;
  if (!map || !map->is_object()) return list;
  list.reserve(map->get_object().size());
  for (const auto& [key, value] : map->get_object()) list.push_back({std::string(key), textOf(value)});
  return list;
}

std::vector<QNBRLAttributeWithState> attributesWithStateOf(const boost::json::value* map) {
  std::vector<QNBRLAttributeWithState> list;
  if (!map || !map->is_object()) return list;
  list.reserve(map->get_object().size());
  for (const auto& [key, value] : map->get_object()) {
    bool deleted = value.is_string() && value.get_string() == kDeletedValue;
    list.push_back({{std::string(key), deleted ? std::string() : textOf(value)}, deleted});
  }
  return list;
}

const boost::json::object& asObject(const boost::json::value& value) {
  return value.is_object() ? value.get_object() : kEmpty;
}

const boost::json::object& objectAt(const boost::json::array& items, std::size_t index) {
  if (index >= items.size() || !items[index].is_object()) return kEmpty;
  return items[index].get_object();
}

const boost::json::object& objectIn(const boost::json::object& object, std::string_view key) {
  const auto* v = object.if_contains(key);
  return v && v->is_object() ? v->get_object() : kEmpty;
}

const boost::json::object& responseIn(const QNBRLResult* result, std::string_view key) {
  return result && result->response ? objectIn(*result->response, key) : kEmpty;
}

std::string stringIn(const boost::json::object& object, std::string_view key) {
  const auto* v = object.if_contains(key);
  return v && v->is_string() ? std::string(v->get_string()) : std::string();
}

void tag_invoke(boost::json::value_from_tag, boost::json::value& out, const QNBRLAttribute& attribute) {
  out = {{"key", attribute.key}, {"value", attribute.value}};
}

void tag_invoke(boost::json::value_from_tag, boost::json::value& out, const QNBRLAttributeWithState& attribute) {
  out = {{"key", attribute.key}, {"value", attribute.value}, {"deleted", attribute.deleted}};
}

void tag_invoke(boost::json::value_from_tag, boost::json::value& out, const QNBRLMember& member) {
  out = {{"userId", member.userId}, {"channelId", member.channelId}};
}

void tag_invoke(boost::json::value_from_tag, boost::json::value& out, const QNBRLPeerOnlineStatus& status) {
  out = {{"peerId", status.peerId}, {"isOnline", status.isOnline}};
}

}  // namespace qnbrl
