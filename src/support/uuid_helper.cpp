#include "support/uuid_helper.hpp"

#include "support/keychain_store.hpp"

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

#include <algorithm>
#include <cctype>

namespace qnbrl {

std::string QNUUIDHelper::uuid() {
  std::string text = boost::uuids::to_string(boost::uuids::random_generator()());
  std::erase(text, '-');
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

std::string QNUUIDHelper::uuidForDevice() {
  constexpr const char* kKey = "com.qn.device.uuid";
  if (auto stored = QNKeyChainStore::stringForKey(kKey)) return *stored;
  std::string fresh = uuid();
  QNKeyChainStore::setString(fresh, kKey);
  return fresh;
}

}  // namespace qnbrl
