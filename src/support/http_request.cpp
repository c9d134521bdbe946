#include "support/http_request.hpp"

#include "socketio/clock.hpp"
#include "socketio/tls.hpp"
#include "support/queues.hpp"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/connect.hpp>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/http/write.hpp>
#include <boost/url/parse.hpp>

#include <algorithm>
#include <memory>

namespace qnbrl {
namespace {

namespace asio = boost::asio;
namespace http = boost::beast::http;
using tcp = asio::ip::tcp;

// Discovery replies and upload answers are small; a larger body is a misbehaving server.
constexpr std::uint64_t kBodyLimit = 4 * 1024 * 1024;

struct Target {
  bool tls = false;
  std::string host;
  bool hostIsIp = false;
  std::string port;
  std::string hostHeader;
  std::string target;
};

std::optional<Target> parseTarget(const std::string& url) {
  auto parsed = boost::urls::parse_uri(url);
  if (!parsed) return std::nullopt;
  const auto& u = *parsed;
  Target t;
  if (u.scheme_id() == boost::urls::scheme::https) {
    t.tls = true;
  } else if (u.scheme_id() != boost::urls::scheme::http) {
    return std::nullopt;
  }
  if (!u.has_authority() || u.encoded_host().empty()) return std::nullopt;
  t.hostIsIp = u.host_type() == boost::urls::host_type::ipv4 || u.host_type() == boost::urls::host_type::ipv6;
  t.host = u.host_address();
  t.port = u.has_port() ? std::string(u.port()) : (t.tls ? "443" : "80");
  t.hostHeader = u.encoded_host_and_port();
  t.target = u.encoded_path().empty() ? "/" : std::string(u.encoded_path());
  if (u.has_query()) t.target += "?" + std::string(u.encoded_query());
  return t;
}

class Exchange : public std::enable_shared_from_this<Exchange> {
 public:
  Exchange(HttpRequest request, HttpSession::Completion completion)
      : request_(std::move(request)),
        completion_(std::move(completion)),
        strand_(asio::make_strand(backgroundExecutor())),
        resolver_(strand_),
        plain_(strand_) {}

  void start() {
    asio::dispatch(strand_, [self = shared_from_this()] {
      auto limit = std::min<sio::Clock::duration>(self->request_.timeout, HttpSession::resourceTimeout);
      self->timer_ = sio::Clock::current().schedule(self->strand_, limit, [weak = self->weak_from_this()] {
        if (auto s = weak.lock()) s->expire();
      });
      asio::co_spawn(self->strand_, self->run(), [self](std::exception_ptr e) { self->finish(e); });
    });
  }

 private:
  tcp::socket& lowest() { return tls_ ? tls_->next_layer() : plain_; }

  asio::awaitable<void> run() {
    auto target = parseTarget(request_.url);
    auto verb = http::string_to_verb(request_.method);
    if (!target || verb == http::verb::unknown) {
      throw boost::system::system_error(make_error_code(boost::system::errc::invalid_argument));
    }
    auto endpoints = co_await resolver_.async_resolve(target->host, target->port, asio::use_awaitable);
    // A time-out that fired while the answer was already queued closed no socket yet: stop here.
    if (timedOut_) throw boost::system::system_error(make_error_code(boost::system::errc::timed_out));
    if (target->tls) {
      tls_.emplace(std::move(plain_), sio::tls::clientContext());
      if (auto ec = sio::tls::prepare(*tls_, target->host, target->hostIsIp))
        throw boost::system::system_error(ec);
    }
    co_await asio::async_connect(lowest(), endpoints, asio::use_awaitable);
    if (tls_) {
      co_await tls_->async_handshake(asio::ssl::stream_base::client, asio::use_awaitable);
      co_await transfer(*tls_, *target, verb);
    } else {
      co_await transfer(plain_, *target, verb);
    }
  }

  template <class Stream>
  asio::awaitable<void> transfer(Stream& stream, const Target& target, http::verb verb) {
    http::request<http::string_body> req(verb, target.target, 11);
    req.set(http::field::host, target.hostHeader);
    req.set(http::field::user_agent, "qnbrl/" QNBRL_VERSION);
    for (const auto& [name, value] : request_.headers) req.set(name, value);
    req.keep_alive(false);
    req.body() = std::move(request_.body);
    req.prepare_payload();
    co_await http::async_write(stream, req, asio::use_awaitable);

    boost::beast::flat_buffer buffer;
    http::response_parser<http::string_body> parser;
    parser.body_limit(kBodyLimit);
    co_await http::async_read(stream, buffer, parser, asio::use_awaitable);
    response_.status = static_cast<int>(parser.get().result_int());
    response_.body = std::move(parser.get().body());
  }

  // Closing the socket is what ends a stalled exchange: every pending step fails at once.
  void expire() {
    if (finished_) return;
    timedOut_ = true;
    boost::system::error_code ignored;
    resolver_.cancel();
    lowest().close(ignored);
  }

  void finish(const std::exception_ptr& failure) {
    finished_ = true;
    if (timer_) timer_->cancel();
    if (failure || timedOut_) {
      response_ = HttpResponse{};
      response_.error = std::make_error_code(std::errc::timed_out);
      if (!timedOut_) {
        try {
          std::rethrow_exception(failure);
        } catch (const boost::system::system_error& e) {
          response_.error = e.code();
        } catch (...) {
          response_.error = std::make_error_code(std::errc::io_error);
        }
      }
    }
    auto completion = std::move(completion_);
    try {
      completion(std::move(response_));
    } catch (...) {
      // A throwing completion must not take the HTTP executor down.
    }
  }

  HttpRequest request_;
  HttpSession::Completion completion_;
  asio::strand<asio::any_io_executor> strand_;
  tcp::resolver resolver_;
  tcp::socket plain_;
  std::optional<asio::ssl::stream<tcp::socket>> tls_;
  sio::TimerPtr timer_;
  HttpResponse response_;
  bool finished_ = false;
  bool timedOut_ = false;
};

}  // namespace

void HttpSession::send(HttpRequest request, Completion completion) {
  std::make_shared<Exchange>(std::move(request), std::move(completion))->start();
}

HttpSession& QNHttpRequest::sharedSession() {
  static auto* session = new HttpSession();
  return *session;
}

void QNHttpRequest::getRequest(const std::string& url, Completion completion) {
  HttpRequest request;
  request.url = url;
  request.headers.emplace_back("Content-Type", "application/json");
  request.timeout = HttpSession::requestTimeout;
  sharedSession().send(std::move(request), [completion = std::move(completion)](HttpResponse r) {
    if (r.error) {
      completion(std::nullopt, r.error);
    } else {
      completion(std::move(r.body), {});
    }
  });
}

void QNHttpRequest::postRequest(const std::string&, const std::string&, const Completion&) {}

}  // namespace qnbrl
