#include "socketio/tls.hpp"

#include <openssl/ssl.h>

namespace sio::tls {
namespace {

// The event loop may still be closing a TLS stream while the process exits: OpenSSL must not free its
// locks under it from an exit handler. Like the loop itself, its state is left for the system to
// reclaim. This must be the process's first OpenSSL initialisation, hence a static initialiser.
[[maybe_unused]] const bool kNoCleanupAtExit = OPENSSL_init_ssl(OPENSSL_INIT_NO_ATEXIT, nullptr) == 1;

}  // namespace

boost::asio::ssl::context& clientContext() {
  static auto* ctx = [] {
    auto* c = new boost::asio::ssl::context(boost::asio::ssl::context::tls_client);
    c->set_options(boost::asio::ssl::context::default_workarounds | boost::asio::ssl::context::no_sslv2 |
                   boost::asio::ssl::context::no_sslv3);
    c->set_default_verify_paths();
    c->set_verify_mode(boost::asio::ssl::verify_peer);
    return c;
  }();
  return *ctx;
}

}  // namespace sio::tls
