// Reads hostile discovery answers. The input's first byte says whether the transfer failed (bit 0);
// the rest is the answer's body. The status code never reaches the reading: the HTTP client hands
// on the body whatever the status. Checked: a failed transfer gives no list; a list comes only from
// an object whose "code" reads as 200 and whose "data"."tavernServers" holds strings alone, and it
// names them in order; each server the list names, and the body itself, go through the server URL
// check that configured servers pass, which must not trip on them either.
#include "transport/api_helper.hpp"
#include "transport/api_manager.hpp"

#include <boost/json/parse.hpp>

#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const bool failed = data[0] & 1;
  const std::string body(reinterpret_cast<const char*>(data) + 1, size - 1);
  const auto servers = qnbrl::QNApiHelper::tavernServersOf(
      body, failed ? std::make_error_code(std::errc::connection_reset) : std::error_code{});
  qnbrl::isValidApiServer(body);
  if (!servers) return 0;
  if (failed) std::abort();
  const auto reply = boost::json::parse(body);
  const auto& list = reply.as_object().at("data").as_object().at("tavernServers").as_array();
  if (list.size() != servers->size()) std::abort();
  for (std::size_t i = 0; i < list.size(); ++i) {
    if (list[i].as_string() != (*servers)[i]) std::abort();
    qnbrl::isValidApiServer((*servers)[i]);
  }
  return 0;
}
