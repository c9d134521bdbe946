#pragma once
// The one TLS client setup shared by the Socket.IO layer and the HTTP client: verification against
// the system store (OpenSSL default paths, so SSL_CERT_FILE works), host-name check, SNI for DNS
// names only. Verification is never off.
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/system/error_code.hpp>

#include <string>

namespace sio::tls {

// The process-wide client context, created on first use.
boost::asio::ssl::context& clientContext();

// Sets verification mode, host-name check and SNI on a new stream's native handle. The mode must be
// set on the stream: the context's is copied when the stream is created.
template <class Stream>
boost::system::error_code prepare(boost::asio::ssl::stream<Stream>& stream, const std::string& host,
                                  bool host_is_ip);

}  // namespace sio::tls

#include "socketio/tls_impl.hpp"
