#include "socketio/tls.hpp"

namespace sio::tls {

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
