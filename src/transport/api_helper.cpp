#include "transport/api_helper.hpp"

#include "transport/http_request.hpp"

#include <boost/json/parse.hpp>

#include <charconv>

namespace qnbrl {
namespace {

// The integer value of "code" as a loosely typed reader takes it: a number, or the leading
// integer of a text.
std::optional<std::int64_t> integerValue(const boost::json::value& v) {
  if (v.is_int64()) return v.get_int64();
  if (v.is_uint64()) return static_cast<std::int64_t>(v.get_uint64());
  if (v.is_double()) return static_cast<std::int64_t>(v.get_double());
  if (v.is_string()) {
    std::string_view s = v.get_string();
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t' || s.front() == '\n')) s.remove_prefix(1);
    if (!s.empty() && s.front() == '+') s.remove_prefix(1);
    std::int64_t n = 0;
    if (std::from_chars(s.data(), s.data() + s.size(), n).ec == std::errc{}) return n;
  }
  return std::nullopt;
}

std::optional<std::vector<std::string>> tavernServers(const std::string& body) {
  boost::system::error_code ec;
  auto reply = boost::json::parse(body, ec);
  if (ec || !reply.is_object()) return std::nullopt;
  const auto* code = reply.get_object().if_contains("code");
  if (!code || integerValue(*code) != 200) return std::nullopt;
  const auto* data = reply.get_object().if_contains("data");
  if (!data || !data->is_object()) return std::nullopt;
  const auto* list = data->get_object().if_contains("tavernServers");
  if (!list || !list->is_array()) return std::nullopt;
  std::vector<std::string> servers;
  for (const auto& entry : list->get_array()) {
    if (!entry.is_string()) return std::nullopt;
    servers.emplace_back(entry.get_string());
  }
  return servers;
}

}  // namespace

void QNApiHelper::apiServer(const std::string& apiServer, const std::string& appId, Completion completion) {
  // Joined as plain text: the app id is not escaped.
  QNHttpRequest::getRequest(
      apiServer + "/config/api/v1/brl-server?appId=" + appId,
      [completion = std::move(completion)](std::optional<std::string> data, std::error_code error) {
        if (!data || error) {
          completion(std::nullopt);
          return;
        }
        completion(tavernServers(*data));
      });
}

}  // namespace qnbrl
