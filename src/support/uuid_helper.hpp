#pragma once
// Random identifiers, and the one identifier of this device kept in the secure store.
#include <string>

namespace qnbrl {

class QNUUIDHelper {
 public:
  // A random (version 4) UUID: 32 lower-case hexadecimal characters, no hyphens.
  static std::string uuid();
  // The identifier stored under "com.qn.device.uuid", created and stored on first use. When the store
  // does not keep it, a fresh identifier is returned each time.
  static std::string uuidForDevice();
};

}  // namespace qnbrl
