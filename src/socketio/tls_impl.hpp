#pragma once
#include <boost/asio/ssl/error.hpp>
#include <boost/asio/ssl/host_name_verification.hpp>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

namespace sio::tls {

template <class Stream>
boost::system::error_code prepare(boost::asio::ssl::stream<Stream>& stream, const std::string& host,
                                  bool host_is_ip) {
  boost::system::error_code ec;
  stream.set_verify_mode(boost::asio::ssl::verify_peer, ec);
  if (ec) return ec;
  stream.set_verify_callback(boost::asio::ssl::host_name_verification(host), ec);
  if (ec) return ec;
  if (!host_is_ip && !SSL_set_tlsext_host_name(stream.native_handle(), host.c_str())) {
    return {static_cast<int>(::ERR_get_error()), boost::asio::error::get_ssl_category()};
  }
  return ec;
}

}  // namespace sio::tls
