#include "socketio/websocket_transport.hpp"

#include "socketio/tls.hpp"

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>

#include <deque>
#include <type_traits>

namespace sio::detail {
namespace {

namespace net = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
using tcp = net::ip::tcp;
// A plain socket on the loop's own executor type: no polymorphic executor and no per-operation timer
// bookkeeping on the hot path. The engine's connect and heartbeat time-outs bound every wait.
using Executor = net::io_context::executor_type;
using Socket = net::basic_stream_socket<tcp, Executor>;
using Resolver = net::ip::basic_resolver<tcp, Executor>;

template <class NextLayer>
class WsTransport : public Transport, public std::enable_shared_from_this<WsTransport<NextLayer>> {
 public:
  template <class... Args>
  WsTransport(std::weak_ptr<TransportListener> owner, Endpoint ep, const Options& options, Args&&... args)
      : owner_(std::move(owner)),
        ep_(std::move(ep)),
        ws_(std::forward<Args>(args)...),
        resolver_(ws_.get_executor()),
        max_message_size_(options.max_message_size) {
    ws_.read_message_max(max_message_size_);
    ws_.auto_fragment(false);
    websocket::permessage_deflate pmd;
    pmd.client_enable = options.compress;
    pmd.msg_size_threshold = 1024;  // small frames cost more to deflate than they save
    ws_.set_option(pmd);
    // This only bounds a closing handshake with a peer that never answers.
    ws_.set_option(websocket::stream_base::timeout{std::chrono::seconds(30), websocket::stream_base::none(), false});
  }

  void start() override {
    resolver_.async_resolve(ep_.host, ep_.port,
                            [self = this->shared_from_this()](beast::error_code ec, tcp::resolver::results_type r) {
                              self->onResolve(ec, std::move(r));
                            });
  }

  void send(Outgoing frame) override {
    if (closing_) return;
    queue_.push_back(std::move(frame));
    if (!writing_ && open_) writeNext();
  }

  void close() override {
    if (closing_) return;
    closing_ = true;
    owner_.reset();
    if (!open_) {
      beast::error_code ec;
      beast::get_lowest_layer(ws_).close(ec);
      resolver_.cancel();
      return;
    }
    if (!writing_) closeNow();
  }

 private:
  void fail(const std::string& why) {
    if (closing_) return;
    auto owner = owner_.lock();
    close();
    if (owner) owner->onClosed(why);
  }

  static std::string describe(beast::error_code ec) {
    if (ec == net::error::eof || ec == beast::http::error::end_of_stream) return reason::kTransportClose;
    return "Transport error: " + ec.message();
  }

  void onResolve(beast::error_code ec, const tcp::resolver::results_type& results) {
    if (closing_) return;
    if (ec) return fail(describe(ec));
    net::async_connect(beast::get_lowest_layer(ws_), results,
                       [self = this->shared_from_this()](beast::error_code ec, const tcp::endpoint&) {
                         self->onConnect(ec);
                       });
  }

  void onConnect(beast::error_code ec) {
    if (closing_) return;
    if (ec) return fail(describe(ec));
    beast::get_lowest_layer(ws_).set_option(tcp::no_delay(true), ec);
    if constexpr (std::is_same_v<NextLayer, Socket>) {
      handshake();
    } else {
      if (auto err = tls::prepare(ws_.next_layer(), ep_.host, ep_.host_is_ip)) return fail(describe(err));
      ws_.next_layer().async_handshake(net::ssl::stream_base::client,
                                       [self = this->shared_from_this()](beast::error_code ec) {
                                         if (self->closing_) return;
                                         if (ec) return self->fail(describe(ec));
                                         self->handshake();
                                       });
    }
  }

  void handshake() {
    ws_.async_handshake(response_, ep_.host_header, ep_.target,
                        [self = this->shared_from_this()](beast::error_code ec) { self->onHandshake(ec); });
  }

  void onHandshake(beast::error_code ec) {
    if (closing_) return;
    if (ec) {
      if (response_.result_int() != 0 && response_.result() != beast::http::status::switching_protocols) {
        std::string why = "Handshake failed: HTTP " + std::to_string(response_.result_int());
        if (!response_.body().empty()) why += " " + response_.body().substr(0, 200);
        return fail(why);
      }
      return fail(describe(ec));
    }
    open_ = true;
    if (!queue_.empty() && !writing_) writeNext();
    read();
    if (auto owner = owner_.lock()) owner->onOpen();
  }

  void read() {
    ws_.async_read(buffer_, [self = this->shared_from_this()](beast::error_code ec, std::size_t) {
      self->onRead(ec);
    });
  }

  void onRead(beast::error_code ec) {
    if (closing_) return;
    if (ec) {
      if (ec == websocket::error::closed) {
        std::string why = reason::kTransportClose;
        if (ws_.reason().code != websocket::close_code::none) {
          why += " (code " + std::to_string(ws_.reason().code) + ")";
        }
        return fail(why);
      }
      if (ec == websocket::error::message_too_big) {
        return fail("Transport error: inbound message over " + std::to_string(max_message_size_) + " bytes");
      }
      return fail(describe(ec));
    }
    auto owner = owner_.lock();
    if (!owner) return close();
    auto data = buffer_.cdata();
    if (ws_.got_text()) {
      owner->onText(std::string_view(static_cast<const char*>(data.data()), data.size()));
    } else {
      auto bytes = static_cast<const std::uint8_t*>(data.data());
      owner->onBinary(std::make_shared<const Buffer>(bytes, bytes + data.size()));
    }
    buffer_.consume(buffer_.size());
    if (!closing_) read();
  }

  void writeNext() {
    writing_ = true;
    auto& f = queue_.front();
    auto done = [self = this->shared_from_this()](beast::error_code ec, std::size_t) { self->onWrite(ec); };
    if (f.binary) {
      ws_.binary(true);
      ws_.async_write(net::buffer(*f.binary), std::move(done));
    } else {
      ws_.text(true);
      ws_.async_write(net::buffer(f.text), std::move(done));
    }
  }

  void onWrite(beast::error_code ec) {
    writing_ = false;
    queue_.pop_front();
    if (ec) {
      if (closing_) return;
      return fail(describe(ec));
    }
    if (!queue_.empty()) return writeNext();
    if (closing_) closeNow();
  }

  void closeNow() {
    queue_.clear();
    ws_.async_close(websocket::close_code::normal, [self = this->shared_from_this()](beast::error_code) {
      beast::error_code ignored;
      beast::get_lowest_layer(self->ws_).close(ignored);
    });
  }

  std::weak_ptr<TransportListener> owner_;
  Endpoint ep_;
  websocket::stream<NextLayer> ws_;
  Resolver resolver_;
  std::size_t max_message_size_;
  websocket::response_type response_;
  beast::flat_buffer buffer_;
  std::deque<Outgoing> queue_;
  bool open_ = false;
  bool writing_ = false;
  bool closing_ = false;
};

}  // namespace

std::shared_ptr<Transport> makeWebSocketTransport(boost::asio::any_io_executor ex, const Endpoint& endpoint,
                                                  const Options& options,
                                                  std::weak_ptr<TransportListener> listener) {
  const auto* io = ex.target<Executor>();  // checked by the Manager
  if (endpoint.tls) {
    return std::make_shared<WsTransport<net::ssl::stream<Socket>>>(std::move(listener), endpoint, options, *io,
                                                                   tls::clientContext());
  }
  return std::make_shared<WsTransport<Socket>>(std::move(listener), endpoint, options, *io);
}

}  // namespace sio::detail
