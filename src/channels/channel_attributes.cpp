#include "channels/channel_attributes.hpp"

#include "diagnostics/log.hpp"
#include "diagnostics/logan_manager.hpp"
#include "transport/callback.hpp"
#include "transport/wire.hpp"

namespace qnbrl {
namespace {

// Failures only: the acknowledgement's record names the handler ("..._block_invoke").
void recordFailure(const Operation& op, const std::string& channelId, int code, Stage stage) {
  if (code == 0) return;
  std::string interface(op.interface);
  if (stage == Stage::ack) interface += "_block_invoke";
  LoganManager::sharedInstance().channelAttributes(channelId, std::string(op.action), interface, 0, code);
}

// The whole-map read records a local refusal as 102, whatever it told the caller.
void recordReadFailure(const Operation& op, const std::string& channelId, int code, Stage stage) {
  recordFailure(op, channelId, stage == Stage::local ? QNBRLChannelAttributeErrorNotLoggedIn : code, stage);
}

constexpr AckCodes kWriteCodes{.noAck = QNBRLChannelAttributeErrorTimeout,
                               .tooManyRequests = QNBRLChannelAttributeErrorTooOften,
                               .passed = codeSet({4}),
                               .failure = QNBRLChannelAttributeErrorFailure,
                               .textsFirst = true};

constexpr Operation kSet{
    .command = "setChannelAttributes",
    .codes = kWriteCodes,
    .record = recordFailure,
    .interface = "-[QNBRLKit setChannel:attributes:options:completion:]",
    .action = "set",
    .logRequest = [](const boost::json::object& p) { QNLog::shared().info("set channel attributes: %@", p); },
};

constexpr Operation kAddOrUpdate{
    .command = "addOrUpdateChannelAttributes",
    .codes = kWriteCodes,
    .record = recordFailure,
    .interface = "-[QNBRLKit addOrUpdateChannel:attributes:options:completion:]",
    .action = "update",
    .logRequest = [](const boost::json::object& p) { QNLog::shared().info("add or update channel attributes: %@", p); },
};

constexpr Operation kDelete{
    .command = "deleteChannelAttributesByKeys",
    .codes = kWriteCodes,
    .record = recordFailure,
    .interface = "-[QNBRLKit deleteChannelAttributes:byKeys:options:completion:]",
    .action = "delete",
    .logRequest = [](const boost::json::object& p) { QNLog::shared().info("delete channel attributes: %@", p); },
};

constexpr Operation kClear{
    .command = "clearChannelAttributes",
    .codes = kWriteCodes,
    .record = recordFailure,
    .interface = "-[QNBRLKit clearChannelAttributes:options:completion:]",
    .action = "delete",  // clearing is recorded as a deletion
    .logRequest = [](const boost::json::object& p) { QNLog::shared().info("clear channel attributes: %@", p); },
};

constexpr Operation kGet{
    .command = "getChannelAttributes",
    .codes = {.noAck = QNBRLChannelAttributeErrorTimeout,
              .tooManyRequests = QNBRLChannelAttributeErrorTooOften,
              .failure = QNBRLChannelAttributeErrorFailure},
    .record = recordReadFailure,
    .interface = "-[QNBRLKit getChannelAttributes:completion:]",
    .action = "get",
    .logRequest = [](const boost::json::object& p) { QNLog::shared().info("get channel attributes: %@", p); },
};

constexpr Operation kGetByKeys{
    .command = "getChannelAttributesByKeys",
    .codes = {.noAck = QNBRLChannelAttributeErrorTimeout,
              .tooManyRequests = QNBRLChannelAttributeErrorTooOften,
              .passed = codeSet({3}),
              .failure = QNBRLChannelAttributeErrorFailure},
    .record = recordFailure,
    .interface = "-[QNBRLKit getChannelAttributes:byKeys:completion:]",
    .action = "get",
    .logRequest = [](const boost::json::object& p) { QNLog::shared().info("get channel attributes: %@", p); },
};

// An absent options object sends false, like a present one left at false.
boost::json::object optionOf(const QNChannelAttributes::Options& options) {
  return {{"notify", options && options->enableNotificationToChannelMembers}};
}

}  // namespace

void QNChannelAttributes::write(const Operation& op, const std::string& channelId, bool valid,
                                boost::json::object payload, Completion completion) const {
  requests_->send(op, {.subject = channelId,
                       .refusal = valid ? 0 : QNBRLChannelAttributeErrorInvalidArgument,
                       .payload = std::move(payload),
                       .finish = [completion = std::move(completion)](int code, const QNBRLResult*) {
                         callApplication(completion, code);
                       }});
}

void QNChannelAttributes::read(const Operation& op, const std::string& channelId, bool valid,
                               boost::json::object payload, AttributesCompletion completion) const {
  requests_->send(op, {.subject = channelId,
                       .refusal = valid ? 0 : QNBRLChannelAttributeErrorInvalidArgument,
                       .payload = std::move(payload),
                       .finish = [completion = std::move(completion)](int code, const QNBRLResult* result) {
                         std::optional<std::vector<QNBRLAttribute>> attributes;
                         if (result && code == 0)
                           attributes = attributesOf(result->response ? result->response->if_contains("attributes")
                                                                      : nullptr);
                         callApplication(completion, std::move(attributes), code);
                       }});
}

void QNChannelAttributes::setChannel(const std::string& channelId, const std::vector<QNBRLAttribute>& attributes,
                                     const Options& options, Completion completion) const {
  write(kSet, channelId, !attributes.empty() && isValidId(channelId),
        {{"channelId", channelId}, {"attributes", attributeMap(attributes)}, {"option", optionOf(options)}},
        std::move(completion));
}

void QNChannelAttributes::addOrUpdateChannel(const std::string& channelId, const std::vector<QNBRLAttribute>& attributes,
                                             const Options& options, Completion completion) const {
  write(kAddOrUpdate, channelId, !attributes.empty() && isValidId(channelId),
        {{"channelId", channelId}, {"attributes", attributeMap(attributes)}, {"option", optionOf(options)}},
        std::move(completion));
}

void QNChannelAttributes::deleteChannelAttributes(const std::string& channelId, const std::vector<std::string>& keys,
                                                  const Options& options, Completion completion) const {
  write(kDelete, channelId, !keys.empty() && isValidId(channelId),
        {{"channelId", channelId},
         {"attributeKeys", boost::json::array(keys.begin(), keys.end())},
         {"option", optionOf(options)}},
        std::move(completion));
}

void QNChannelAttributes::clearChannelAttributes(const std::string& channelId, const Options& options,
                                                 Completion completion) const {
  write(kClear, channelId, isValidId(channelId), {{"channelId", channelId}, {"option", optionOf(options)}},
        std::move(completion));
}

void QNChannelAttributes::getChannelAttributes(const std::string& channelId, AttributesCompletion completion) const {
  read(kGet, channelId, isValidId(channelId), {{"channelId", channelId}}, std::move(completion));
}

void QNChannelAttributes::getChannelAttributes(const std::string& channelId, const std::vector<std::string>& keys,
                                               AttributesCompletion completion) const {
  read(kGetByKeys, channelId, !keys.empty() && isValidId(channelId),
       {{"channelId", channelId}, {"attributeKeys", boost::json::array(keys.begin(), keys.end())}},
       std::move(completion));
}

}  // namespace qnbrl
