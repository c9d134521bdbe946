#include "transport/api_helper.hpp"

#include "support/http_request.hpp"
#include "support/json.hpp"

#include <boost/json/parse.hpp>

namespace qnbrl {

std::optional<std::vector<std::string>> QNApiHelper::tavernServersOf(const std::optional<std::string>& body,
                                                                     std::error_code error) {
  if (!body || error) return std::nullopt;
  boost::system::error_code ec;
  auto reply = boost::json::parse(*body, ec);
  if (ec || !reply.is_object()) return std::nullopt;
  const auto* code = reply.get_object().if_contains("code");
  if (!code || looseInteger(*code) != 200) return std::nullopt;
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

void QNApiHelper::apiServer(const std::string& apiServer, const std::string& appId, Completion completion) {
  // Joined as plain text: the app id is not escaped.
  QNHttpRequest::getRequest(
      apiServer + "/config/api/v1/brl-server?appId=" + appId,
      [completion = std::move(completion)](std::optional<std::string> data, std::error_code error) {
        completion(tavernServersOf(data, error));
      });
}

}  // namespace qnbrl
