#pragma once
// The six operations on a channel's attribute map. No join is needed; a change may be pushed to the
// channel's members ("notify").
#include "qnbrl/brl_attribute.hpp"
#include "qnbrl/brl_channel_types.hpp"
#include "transport/request.hpp"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qnbrl {

class QNChannelAttributes {
 public:
  using Completion = std::function<void(int code)>;
  using AttributesCompletion = std::function<void(std::optional<std::vector<QNBRLAttribute>>, int code)>;
  using Options = std::optional<QNBRLChannelAttributeOptions>;

  explicit QNChannelAttributes(std::shared_ptr<const RequestPath> requests) : requests_(std::move(requests)) {}

  void setChannel(const std::string& channelId, const std::vector<QNBRLAttribute>& attributes, const Options& options,
                  Completion completion) const;
  void addOrUpdateChannel(const std::string& channelId, const std::vector<QNBRLAttribute>& attributes,
                          const Options& options, Completion completion) const;
  void deleteChannelAttributes(const std::string& channelId, const std::vector<std::string>& keys,
                               const Options& options, Completion completion) const;
  void clearChannelAttributes(const std::string& channelId, const Options& options, Completion completion) const;
  void getChannelAttributes(const std::string& channelId, AttributesCompletion completion) const;
  void getChannelAttributes(const std::string& channelId, const std::vector<std::string>& keys,
                            AttributesCompletion completion) const;

 private:
  void write(const Operation& op, const std::string& channelId, bool valid, boost::json::object payload,
             Completion completion) const;
  void read(const Operation& op, const std::string& channelId, bool valid, boost::json::object payload,
            AttributesCompletion completion) const;

  const std::shared_ptr<const RequestPath> requests_;
};

}  // namespace qnbrl
