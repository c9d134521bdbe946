// The Socket.IO client against the dev server's Node Socket.IO server, each figure beside the same
// traffic over the leanest correct async Beast WebSocket client (a plain TCP socket on the loop's
// concrete executor) to the dev server's raw echo, so that the ratios show what the Socket.IO layer
// adds. Requests are built inside the timed path, as an application builds them, and answered with
// [{"result":0}] (no login, so no service model); events carry the nested object of a channel message.
//
// Compared pairs run in one process, alternating round by round (the order flips every round), after
// one warm-up round; every figure is the median over the rounds and every ratio the median of the
// per-round ratios. Client CPU is getrusage(RUSAGE_SELF) user + sys: the Node server is a child
// process, so it is not counted. Under callgrind each measured round is dumped on its own, named
// "<bench> ops=<n>", so instructions per operation need no subtraction (scripts/bench.sh --callgrind).
#include "benchmarks.hpp"
#include "socketio/client.hpp"
#include "socketio/codec.hpp"
#include "devserver/dev_server.hpp"
#include "support/queues.hpp"

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/json.hpp>
#include <boost/url/parse.hpp>

#include <sys/resource.h>

#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#else
#define CALLGRIND_ZERO_STATS
#define CALLGRIND_DUMP_STATS_AT(name)
#endif

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <functional>
#include <future>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

namespace json = boost::json;
namespace net = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
using tcp = net::ip::tcp;
using Steady = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr int kSequential = 2000;  // round trips per latency round
constexpr int kPipelined = 20000;  // requests per pipelined round
constexpr int kInFlight = 256;
constexpr int kEvents = 50000;  // events per flood round
constexpr auto kAckTimeout = 10s;
constexpr auto kRoundLimit = 120s;  // a round that takes longer has stalled

// Against the lean raw client.
constexpr double kLatencyTarget = 1.3;   // Socket.IO ack p50 / WebSocket echo p50
constexpr double kPipelineTarget = 1.4;  // CPU per acknowledged emit / CPU per echo

double micros(Steady::duration d) {
  return std::chrono::duration<double, std::micro>(d).count();
}
double seconds(Steady::duration d) {
  return std::chrono::duration<double>(d).count();
}

void await(std::future<void>& f, const std::string& what) {
  if (f.wait_for(kRoundLimit) != std::future_status::ready) throw std::runtime_error(what + ": stalled");
  f.get();
}

// One round of one benchmark: per-operation latencies (sequential rounds), or wall and CPU time.
struct Round {
  int ops = 0;
  std::vector<double> latencies_us;
  double wall_s = 0;
  double cpu_s = 0;
  double p50() const { return percentile(latencies_us, 0.50); }
  double p99() const { return percentile(latencies_us, 0.99); }
  double cpuPer100k() const { return cpu_s / ops * 1e5; }
  double perSecond() const { return ops / wall_s; }
  double cpuPerOpUs() const { return cpu_s / ops * 1e6; }
};

struct Measure {
  Steady::time_point wall = Steady::now();
  double cpu = cpuSeconds();
  void finish(Round& r) const {
    r.cpu_s = cpuSeconds() - cpu;
    r.wall_s = seconds(Steady::now() - wall);
  }
};

// The request the SDK sends most, a channel attribute update, built as an application builds it.
json::array commandArgs() {
  return json::array{"setChannelAttributes",
                     json::object{{"channelId", "c1"},
                                  {"attributes", json::object{{"k1", "v1"}, {"k2", "v2"}, {"k3", "v3"}}},
                                  {"option", json::object{{"notify", false}}}}};
}

// The server's acknowledgement: [{"result":0}].
bool isDefaultAck(const sio::Payload& reply) {
  if (reply.args.size() != 1 || !reply.buffers.empty()) return false;
  const auto* o = reply.args[0].if_object();
  const auto* result = o ? o->if_contains("result") : nullptr;
  return result && result->is_int64() && result->get_int64() == 0 && o->size() == 1;
}

// Emits "command" with an acknowledgement, keeping up to `window` unanswered; the next emit goes out
// from the acknowledgement callback, on the client's own thread, as an application would chain them.
class AckChain : public std::enable_shared_from_this<AckChain> {
 public:
  AckChain(std::shared_ptr<sio::Socket> socket, int total, int window)
      : socket_(std::move(socket)), total_(total), window_(window) {
    if (window_ == 1) latencies_.reserve(static_cast<std::size_t>(total_));
  }

  Round run() {
    auto finished = done_.get_future();
    Measure m;
    qnbrl::MainQueue::async([self = shared_from_this()] {
      for (int i = 0; i < self->window_ && self->sent_ < self->total_; ++i) self->emitOne();
    });
    await(finished, "Socket.IO acknowledgements");
    Round r;
    m.finish(r);
    r.ops = total_;
    if (bad_) throw std::runtime_error("the server answered with something else than [{\"result\":0}]");
    r.latencies_us = std::move(latencies_);
    return r;
  }

 private:
  void emitOne() {
    ++sent_;
    const auto started = Steady::now();
    socket_->emitWithAck(
        "command", sio::Payload{commandArgs(), {}}, kAckTimeout,
        [self = shared_from_this(), started](const sio::Payload& reply) { self->onAck(started, reply); });
  }

  void onAck(Steady::time_point started, const sio::Payload& reply) {
    if (window_ == 1) latencies_.push_back(micros(Steady::now() - started));
    if (!isDefaultAck(reply)) bad_ = true;
    if (++received_ == total_) return done_.set_value();
    if (sent_ < total_) emitOne();
  }

  std::shared_ptr<sio::Socket> socket_;
  const int total_, window_;
  // Touched only on the main queue until `done_` is set.
  int sent_ = 0, received_ = 0;
  bool bad_ = false;
  std::vector<double> latencies_;
  std::promise<void> done_;
};

// The shape of a channel message as the service sends it: seven keys, two levels, ~100 bytes of text.
json::array channelMessage() {
  return {json::object{{"from", {{"channelId", "ch-1"}, {"userId", "u-42"}}},
                       {"serverReceivedTs", 1718000000123},
                       {"messageId", "m-1"},
                       {"content", {{"text", "hello"}}}}};
}

devserver::DevServerOptions serverOptions() {
  devserver::DevServerOptions o;
  o.tavern = 1;
  o.tavernTls = 0;
  o.record = false;  // a flood would otherwise be kept
  o.onError = [](const std::string& why) { throw std::runtime_error("dev server: " + why); };
  return o;
}

// A connected client socket.
class SioClient {
 public:
  explicit SioClient(const std::string& url)
      : manager_(std::make_unique<sio::Manager>(qnbrl::MainQueue::executor(), url, sio::Options{})) {
    auto connected = std::make_shared<std::promise<void>>();
    auto future = connected->get_future();
    socket().on("connect",
                [connected](const sio::Payload&, const sio::Responder&) { connected->set_value(); });
    socket().on("disconnect", [](const sio::Payload& p, const sio::Responder&) {
      std::cerr << "Socket.IO client disconnected: " << json::serialize(p.args) << "\n";
    });
    socket().connect(10s, [] { std::cerr << "Socket.IO connect timed out\n"; });
    if (future.wait_for(15s) != std::future_status::ready)
      throw std::runtime_error("Socket.IO connect failed");
  }

  sio::Socket& socket() { return *manager_->socket(); }
  const std::shared_ptr<sio::Socket>& socketPtr() { return manager_->socket(); }

 private:
  std::unique_ptr<sio::Manager> manager_;
};

// Counts channel messages on the client's thread, reading them as the SDK does; `reached` is set
// when the round's goal is met.
struct EventCounter {
  long count = 0;
  long goal = 0;
  bool bad = false;
  std::promise<void> reached;

  void onEvent(const sio::Payload& p) {
    const auto* msg = p.args.size() == 1 ? p.args[0].if_object() : nullptr;
    const auto* content = msg ? msg->if_contains("content") : nullptr;
    const auto* text = content && content->is_object() ? content->get_object().if_contains("text") : nullptr;
    if (!text || !text->is_string() || msg->size() != 4) bad = true;
    if (++count == goal) reached.set_value();
  }
};

// The leanest correct async Beast WebSocket client: a plain TCP socket on a concrete io_context
// executor, no timers, driven on the calling thread.
class RawClient {
 public:
  explicit RawClient(const std::string& url) : ws_(ioc_) {
    auto parsed = boost::urls::parse_uri(url);
    if (!parsed) throw std::runtime_error("bad echo URL: " + url);
    const std::string host(parsed->host_address());
    const std::string port(parsed->port());
    Resolver resolver(ioc_);
    net::connect(ws_.next_layer(), resolver.resolve(host, port));
    ws_.next_layer().set_option(tcp::no_delay(true));
    ws_.auto_fragment(false);
    ws_.handshake(host + ":" + port, std::string(parsed->encoded_path()));
    ws_.text(true);
  }

  // `total` echoes of `frame`, keeping up to `window` unanswered.
  Round run(const std::string& frame, int total, int window) {
    frame_ = &frame;
    total_ = total;
    window_ = window;
    sent_ = received_ = 0;
    error_.clear();
    started_.assign(static_cast<std::size_t>(total), {});
    latencies_.clear();
    latencies_.reserve(window == 1 ? static_cast<std::size_t>(total) : 0);
    ioc_.restart();
    Measure m;
    read();
    pump();
    ioc_.run();
    Round r;
    m.finish(r);
    r.ops = total;
    if (!error_.empty() || received_ != total_) throw std::runtime_error("WebSocket echo: " + error_);
    r.latencies_us = std::move(latencies_);
    return r;
  }

 private:
  using Socket = net::basic_stream_socket<tcp, net::io_context::executor_type>;
  using Resolver = net::ip::basic_resolver<tcp, net::io_context::executor_type>;

  void pump() {
    if (writing_ || sent_ == total_ || sent_ - received_ >= window_) return;
    writing_ = true;
    started_[static_cast<std::size_t>(sent_++)] = Steady::now();
    ws_.async_write(net::buffer(*frame_), [this](beast::error_code ec, std::size_t) {
      writing_ = false;
      if (ec) return fail(ec);
      pump();
    });
  }

  void read() {
    ws_.async_read(buffer_, [this](beast::error_code ec, std::size_t n) {
      if (ec) return fail(ec);
      const auto i = static_cast<std::size_t>(received_++);
      if (window_ == 1) latencies_.push_back(micros(Steady::now() - started_[i]));
      if (n != frame_->size() || !ws_.got_text()) error_ = "the echo differs from the frame sent";
      buffer_.consume(buffer_.size());
      if (received_ == total_) return;
      read();
      pump();
    });
  }

  void fail(beast::error_code ec) {
    if (error_.empty()) error_ = ec.message();
    ws_.next_layer().cancel();
  }

  net::io_context ioc_{1};
  websocket::stream<Socket> ws_;
  beast::flat_buffer buffer_;
  const std::string* frame_ = nullptr;
  int total_ = 0, window_ = 1, sent_ = 0, received_ = 0;
  bool writing_ = false;
  std::string error_;
  std::vector<Steady::time_point> started_;
  std::vector<double> latencies_;
};

// A benchmark's rounds; it runs only when selected.
struct Case {
  Case(std::string n, std::function<Round()> r)
      : name(std::move(n)), run(std::move(r)), on(benchSettings().selected(name)) {}

  std::string name;
  std::function<Round()> run;
  bool on;
  std::vector<Round> rounds;

  void measure(bool keep) {
    if (!on) return;
    std::cerr << "  " << name << "..." << std::flush;
    CALLGRIND_ZERO_STATS;
    auto r = run();
    if (keep) {
      const std::string dump = name + " ops=" + std::to_string(r.ops);
      CALLGRIND_DUMP_STATS_AT(dump.c_str());
    }
    std::cerr << " " << r.wall_s << " s\n";
    if (keep) rounds.push_back(std::move(r));
  }
  std::vector<double> each(double (Round::*figure)() const) const {
    std::vector<double> v;
    for (const auto& r : rounds) v.push_back((r.*figure)());
    return v;
  }
  double med(double (Round::*figure)() const) const { return median(each(figure)); }
};

void printLatency(std::ostream& out, const Case& c) {
  if (!c.on) return;
  JsonLine(c.name)
      .add("round_trips", c.rounds.front().ops)
      .add("rounds", static_cast<int>(c.rounds.size()))
      .add("p50_us", c.med(&Round::p50), 1)
      .add("p99_us", c.med(&Round::p99), 1)
      .add("client_cpu_us_per_round_trip", c.med(&Round::cpuPerOpUs), 2)
      .print(out);
}

void printThroughput(std::ostream& out, const Case& c, const char* unit) {
  if (!c.on) return;
  JsonLine(c.name)
      .add(unit, c.rounds.front().ops)
      .add("rounds", static_cast<int>(c.rounds.size()))
      .add(std::string(unit) + "_per_s", c.med(&Round::perSecond), 0)
      .add("cpu_s_per_100k", c.med(&Round::cpuPer100k), 3)
      .print(out);
}

// The median of the per-round ratios of one figure, against its target (lower is better).
void printRatio(std::ostream& out, const std::string& name, const Case& num, const Case& den,
                double (Round::*figure)() const, const char* field, double target) {
  if (!num.on || !den.on) return;
  const auto a = num.each(figure), b = den.each(figure);
  std::vector<double> ratios;
  for (std::size_t i = 0; i < a.size() && i < b.size(); ++i) ratios.push_back(a[i] / b[i]);
  const double ratio = median(ratios);
  JsonLine line(name);
  line.add(field, ratio, 3)
      .add("min", *std::min_element(ratios.begin(), ratios.end()), 3)
      .add("max", *std::max_element(ratios.begin(), ratios.end()), 3);
  if (target > 0) line.add("target", target, 2).add("pass", ratio <= target);
  line.print(out);
}

}  // namespace

void runSocketIoBenchmarks(std::ostream& out) {
  const auto& settings = benchSettings();
  devserver::DevServer server(serverOptions());
  SioClient sio(server.tavernUrls().at(0));
  RawClient raw(server.echoUrl());
  const std::string sid = sio.socket().sid();
  const auto message = channelMessage();

  // The text frame the client sends for the first emit, for the raw client to echo.
  const std::string frame = sio::encodeEvent("command", sio::Payload{commandArgs(), {}}, 0).text;

  auto events = std::make_shared<EventCounter>();
  sio.socket().on("ChannelMessageReceived",
                  [events](const sio::Payload& p, const sio::Responder&) { events->onEvent(p); });

  const int sequential = settings.count(kSequential);
  const int pipelined = settings.count(kPipelined);
  const int flood = settings.count(kEvents);

  Case ackLatency{"socketio.ack_latency",
                  [&] { return std::make_shared<AckChain>(sio.socketPtr(), sequential, 1)->run(); }};
  Case echoLatency{"websocket.echo_latency", [&] { return raw.run(frame, sequential, 1); }};
  Case ackPipelined{"socketio.ack_pipelined",
                    [&] { return std::make_shared<AckChain>(sio.socketPtr(), pipelined, kInFlight)->run(); }};
  Case echoPipelined{"websocket.echo_pipelined", [&] { return raw.run(frame, pipelined, kInFlight); }};
  Case eventReceive{"socketio.event_receive", [&] {
                      std::future<void> reached;
                      qnbrl::MainQueue::sync([&] {
                        events->count = 0;
                        events->goal = flood;
                        events->reached = {};
                        reached = events->reached.get_future();
                      });
                      Measure m;
                      server.burst(0, sid, "ChannelMessageReceived", flood, 0, message);
                      await(reached, "Socket.IO events");
                      Round r;
                      m.finish(r);
                      r.ops = flood;
                      bool bad = false;
                      qnbrl::MainQueue::sync([&] { bad = events->bad; });
                      if (bad) throw std::runtime_error("an event arrived with other arguments than sent");
                      return r;
                    }};

  std::cerr << "frame: " << frame << "\n";
  for (int round = 0; round <= settings.rounds; ++round) {
    const bool keep = round > 0;
    std::cerr << (keep ? "round " + std::to_string(round) : std::string("warm-up")) << "\n";
    // The order within each pair flips every round, so that a drift in the machine's load does not
    // favour one side.
    Case* pairs[][2] = {{&ackLatency, &echoLatency}, {&ackPipelined, &echoPipelined}};
    for (auto& pair : pairs) {
      if (round % 2) std::swap(pair[0], pair[1]);
      pair[0]->measure(keep);
      pair[1]->measure(keep);
    }
    eventReceive.measure(keep);
  }

  printLatency(out, ackLatency);
  printLatency(out, echoLatency);
  printRatio(out, "socketio.ack_latency_vs_websocket", ackLatency, echoLatency, &Round::p50, "ratio_p50",
             kLatencyTarget);
  printThroughput(out, ackPipelined, "requests");
  printThroughput(out, echoPipelined, "requests");
  printRatio(out, "socketio.ack_pipelined_cpu_vs_websocket", ackPipelined, echoPipelined, &Round::cpuPer100k,
             "ratio", kPipelineTarget);
  printThroughput(out, eventReceive, "events");
  printRatio(out, "socketio.event_receive_cpu_vs_websocket", eventReceive, echoPipelined, &Round::cpuPer100k,
             "ratio", 0);
}
