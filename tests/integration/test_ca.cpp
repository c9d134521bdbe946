// The integration binary trusts the test CA: OpenSSL reads SSL_CERT_FILE when the process-wide TLS
// context is created, which happens on first use, after this runs.
#include "support/devserver.hpp"

#include <cstdlib>

namespace {
const bool kTrustTestCa = [] { return ::setenv("SSL_CERT_FILE", testing_support::testCaFile().c_str(), 1) == 0; }();
}  // namespace
