// The channel operations of the facade: each forwards to the channel registry or to the channel
// attributes.
#include "client/kit_impl.hpp"

namespace qnbrl {

std::shared_ptr<QNBRLChannel> QNBRLKit::createChannelWithId(const std::string& channelId,
                                                            std::weak_ptr<QNBRLChannelDelegate> delegate) {
  return impl_->channels->createChannelWithId(channelId, std::move(delegate));
}

bool QNBRLKit::destroyChannelWithId(const std::string& channelId) {
  return impl_->channels->destroyChannelWithId(channelId);
}

void QNBRLKit::getChannelMemberCount(const std::vector<std::string>& channelIds, MemberCountCompletion completion) {
  impl_->channels->getChannelMemberCount(channelIds, impl_->app->completion(std::move(completion)));
}

void QNBRLKit::setChannel(const std::string& channelId, const std::vector<QNBRLAttribute>& attributes,
                          const Options& options, Completion completion) {
  impl_->channelAttributes.setChannel(channelId, attributes, options, impl_->app->completion(std::move(completion)));
}

void QNBRLKit::addOrUpdateChannel(const std::string& channelId, const std::vector<QNBRLAttribute>& attributes,
                                  const Options& options, Completion completion) {
  impl_->channelAttributes.addOrUpdateChannel(channelId, attributes, options, impl_->app->completion(std::move(completion)));
}

void QNBRLKit::deleteChannelAttributes(const std::string& channelId, const std::vector<std::string>& keys,
                                       const Options& options, Completion completion) {
  impl_->channelAttributes.deleteChannelAttributes(channelId, keys, options, impl_->app->completion(std::move(completion)));
}

void QNBRLKit::clearChannelAttributes(const std::string& channelId, const Options& options, Completion completion) {
  impl_->channelAttributes.clearChannelAttributes(channelId, options, impl_->app->completion(std::move(completion)));
}

void QNBRLKit::getChannelAttributes(const std::string& channelId, AttributesCompletion completion) {
  impl_->channelAttributes.getChannelAttributes(channelId, impl_->app->completion(std::move(completion)));
}

void QNBRLKit::getChannelAttributes(const std::string& channelId, const std::vector<std::string>& keys,
                                    AttributesCompletion completion) {
  impl_->channelAttributes.getChannelAttributes(channelId, keys, impl_->app->completion(std::move(completion)));
}

}  // namespace qnbrl
