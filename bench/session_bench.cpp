// What a session costs: the time from loginByToken to its completion on loopback (discovery
// included), and what a thousand logged-in clients cost the process in threads, memory and CPU: idle, and
// each joined to a channel of its own and heartbeating.
//
// The dev server runs with its session side on: tavern servers check each login's query and answer
// "loginSuccess". Client CPU is getrusage(RUSAGE_SELF): the Node server is a child process, so it is
// not counted. Memory is the process's resident set (/proc/self/statm) beside the heap in use
// (mallinfo2), since freed heap pages may stay resident.
#include "benchmarks.hpp"
#include "qnbrl/qnbrl.hpp"
#include "devserver/dev_server.hpp"

#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using Steady = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr int kCycles = 200;    // login and logout cycles per latency round
constexpr int kClients = 1000;  // clients logged in at once
constexpr int kBatch = 50;      // logins started together; the next batch waits for their completions
constexpr int kTaverns = 3;
constexpr auto kIdle = 3s;
constexpr auto kWaitLimit = 30s;  // for one login, one logout or one batch
constexpr int kFdsBeyondClients = 256;

constexpr double kLoginTargetMs = 5;
constexpr int kThreadTarget = 8;
constexpr double kRssTargetKib = 64;
// Joined and heartbeating: at most 1 % of one core for all of them, and 32 KiB each.
constexpr double kJoinedRssTargetKib = 32;
constexpr double kJoinedCpuTarget = 0.01;

constexpr const char* kAppId = "bench-app";
constexpr const char* kToken = "0123456789abcdef0123456789abcdef";
constexpr std::int64_t kTimestamp = 1700000000000;

double millis(Steady::duration d) {
  return std::chrono::duration<double, std::milli>(d).count();
}

// What the clients' completions and delegate report, counted, so that the benchmark can wait on it.
// One tally serves any number of clients; it must outlive them.
class Tally {
 public:
  struct Counts {
    int loggedIn = 0;     // login completions with 0
    int loginFailed = 0;  // login completions with any other code
    int lastFailure = 0;
    int logouts = 0;    // logout completions
    int loggedOut = 0;  // the delegate's (1, 6)
    Steady::time_point lastLogin;
    int logins() const { return loggedIn + loginFailed; }
  };

  Tally() : delegate_(std::make_shared<qnbrl::QNBRLDelegate>()) {
    delegate_->connectionStateChanged = [this](qnbrl::QNBRLKit&, qnbrl::QNBRLConnectionState state,
                                               qnbrl::QNBRLConnectionChangeReason reason) {
      if (state == qnbrl::QNBRLConnectionState::Disconnected &&
          reason == qnbrl::QNBRLConnectionChangeReason::LoggedOut)
        note([](Counts& c) { ++c.loggedOut; });
    };
  }

  const std::shared_ptr<qnbrl::QNBRLDelegate>& delegate() const { return delegate_; }

  qnbrl::QNBRLKit::Completion login() {
    return [this](int code) {
      const auto now = Steady::now();
      note([&](Counts& c) {
        c.lastLogin = now;
        if (code == 0) {
          ++c.loggedIn;
        } else {
          ++c.loginFailed;
          c.lastFailure = code;
        }
      });
    };
  }
  qnbrl::QNBRLKit::Completion logout() {
    return [this](int) { note([](Counts& c) { ++c.logouts; }); };
  }

  Counts counts() const {
    std::lock_guard lock(mutex_);
    return counts_;
  }
  // Waits until `done` holds, at most `limit`; throws when it does not, naming `what`.
  Counts await(const std::function<bool(const Counts&)>& done, const std::string& what,
               std::chrono::seconds limit = kWaitLimit) const {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, limit, [&] { return done(counts_); }))
      throw std::runtime_error(what + ": stalled");
    return counts_;
  }

 private:
  void note(const std::function<void(Counts&)>& change) {
    {
      std::lock_guard lock(mutex_);
      change(counts_);
    }
    changed_.notify_all();
  }

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  Counts counts_;
  std::shared_ptr<qnbrl::QNBRLDelegate> delegate_;
};

std::shared_ptr<qnbrl::QNBRLKit> makeKit(const devserver::DevServer& server, const Tally& tally) {
  qnbrl::QNBRLOptions options;
  options.envConfig.apiServer = server.httpUrl();
  options.envConfig.logServer = server.httpUrl();
  auto kit = qnbrl::QNBRLKit::create(kAppId, tally.delegate(), options);
  if (!kit) throw std::runtime_error("the client refused the dev server's URL");
  return kit;
}

// Logs in and waits for the completion; its time from the call, in ms.
double login(qnbrl::QNBRLKit& kit, Tally& tally, const std::string& userId) {
  const auto before = tally.counts();
  const auto started = Steady::now();
  kit.loginByToken(kToken, kTimestamp, userId, tally.login());
  const auto after =
      tally.await([&](const Tally::Counts& c) { return c.logins() > before.logins(); }, "login");
  if (after.loginFailed > before.loginFailed)
    throw std::runtime_error("login refused with code " + std::to_string(after.lastFailure));
  return millis(after.lastLogin - started);
}

// Logs out and waits for both the completion and the delegate's (1, 6).
void logout(qnbrl::QNBRLKit& kit, Tally& tally) {
  const auto before = tally.counts();
  kit.logoutWithCompletion(tally.logout());
  tally.await(
      [&](const Tally::Counts& c) { return c.logouts > before.logouts && c.loggedOut > before.loggedOut; },
      "logout");
}

struct LoginRound {
  std::vector<double> ms;
  double cpuMs = 0;  // client CPU per cycle, login and logout
  double cpu() const { return cpuMs; }
  double p50() const { return percentile(ms, 0.50); }
  double p99() const { return percentile(ms, 0.99); }
};

LoginRound loginRound(qnbrl::QNBRLKit& kit, Tally& tally, int cycles) {
  LoginRound r;
  r.ms.reserve(static_cast<std::size_t>(cycles));
  const double cpu = cpuSeconds();
  for (int i = 0; i < cycles; ++i) {
    r.ms.push_back(login(kit, tally, "bench-user"));
    logout(kit, tally);
  }
  r.cpuMs = (cpuSeconds() - cpu) * 1e3 / cycles;
  return r;
}

void runLoginLatency(std::ostream& out) {
  const auto& settings = benchSettings();
  devserver::DevServerOptions options;
  options.tavern = 1;
  options.tavernTls = 0;
  options.session = true;
  options.record = false;
  devserver::DevServer server(options);
  if (!server.ready()) throw std::runtime_error("the dev server did not start");

  Tally tally;
  auto kit = makeKit(server, tally);
  const int cycles = settings.count(kCycles);
  std::vector<LoginRound> rounds;
  for (int round = 0; round <= settings.rounds; ++round) {
    std::cerr << "  session.login_latency " << (round ? "round " + std::to_string(round) : "warm-up") << "..."
              << std::flush;
    const auto started = Steady::now();
    auto r = loginRound(*kit, tally, cycles);
    std::cerr << " " << millis(Steady::now() - started) / 1e3 << " s\n";
    if (round > 0) rounds.push_back(std::move(r));
  }
  const auto med = [&](double (LoginRound::*figure)() const) {
    std::vector<double> v;
    for (const auto& r : rounds) v.push_back((r.*figure)());
    return median(v);
  };
  const double p50 = med(&LoginRound::p50);
  JsonLine("session.login_latency")
      .add("cycles", cycles)
      .add("rounds", static_cast<int>(rounds.size()))
      .add("p50_ms", p50, 3)
      .add("p99_ms", med(&LoginRound::p99), 3)
      .add("client_cpu_ms_per_cycle", med(&LoginRound::cpu), 3)
      .add("target_p50_ms", kLoginTargetMs, 1)
      .add("pass", p50 <= kLoginTargetMs)
      .print(out);
}

// The process's threads, resident set and heap in use.
struct Footprint {
  int threads = 0;
  double rssKib = 0;
  double heapKib = 0;
};

Footprint footprint() {
  Footprint f;
  std::error_code ec;
  for (std::filesystem::directory_iterator it("/proc/self/task", ec), end; !ec && it != end; it.increment(ec))
    ++f.threads;
  std::ifstream statm("/proc/self/statm");
  long size = 0, resident = 0;
  statm >> size >> resident;
  f.rssKib = static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1024;
  const auto heap = mallinfo2();
  f.heapKib = static_cast<double>(heap.uordblks + heap.hblkhd) / 1024;
  return f;
}

// A thousand sockets need more descriptors than the usual soft limit; the dev server, a child,
// inherits the raised limit.
void raiseFileLimit(int clients) {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) throw std::runtime_error("getrlimit failed");
  limit.rlim_cur = limit.rlim_max;
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) throw std::runtime_error("setrlimit failed");
  if (limit.rlim_cur != RLIM_INFINITY && limit.rlim_cur < static_cast<rlim_t>(clients + kFdsBeyondClients))
    throw std::runtime_error("the descriptor limit " + std::to_string(limit.rlim_cur) + " is too low for " +
                             std::to_string(clients) + " clients");
}

// `clients` logged-in clients of one app, distinct users, spread over the tavern servers; one figure
// line. Runs once per process configuration: a second round would reuse the first one's freed pages.
// With `join`, each client also joins a channel of its own and heartbeats every 2 seconds.
void runIdleClients(std::ostream& out, const char* name, bool deflate, int clients, bool join = false) {
  devserver::DevServerOptions options;
  options.tavern = kTaverns;
  options.tavernTls = 0;
  options.session = true;
  options.record = false;
  options.perMessageDeflate = deflate;
  devserver::DevServer server(options);
  if (!server.ready()) throw std::runtime_error("the dev server did not start");

  std::cerr << "  " << name << "..." << std::flush;
  Tally tally;
  // One client in and out first, so that what every client shares (the main loop, the HTTP session,
  // the recorder) is in the figures before.
  bool agreed = false;
  {
    auto kit = makeKit(server, tally);
    login(*kit, tally, "bench-warm-up");
    const auto live = server.connections(0, true);
    agreed = !live.empty() && live.front().deflate;
    logout(*kit, tally);
  }
  if (agreed != deflate) throw std::runtime_error("compression was not negotiated as the server offered");
  malloc_trim(0);
  const auto before = footprint();
  const auto base = tally.counts();

  std::vector<std::shared_ptr<qnbrl::QNBRLKit>> kits;
  kits.reserve(static_cast<std::size_t>(clients));
  const auto started = Steady::now();
  for (int first = 0; first < clients; first += kBatch) {
    // Each batch starts on another server, as discovery would spread a real population.
    std::vector<std::string> urls = server.tavernUrls();
    std::rotate(urls.begin(), urls.begin() + (first / kBatch) % kTaverns, urls.end());
    if (!server.scriptDiscovery(devserver::DiscoveryAnswer().servers(urls)))
      throw std::runtime_error("the dev server refused the discovery script");
    const int last = std::min(clients, first + kBatch);
    for (int i = first; i < last; ++i) {
      kits.push_back(makeKit(server, tally));
      kits.back()->loginByToken(kToken, kTimestamp, "bench-user-" + std::to_string(i), tally.login());
    }
    const auto c = tally.await([&](const Tally::Counts& c) { return c.logins() - base.logins() >= last; },
                               "logins " + std::to_string(first) + " to " + std::to_string(last - 1));
    if (c.loginFailed > base.loginFailed)
      throw std::runtime_error("a login was refused with code " + std::to_string(c.lastFailure));
  }
  const double loginSeconds = millis(Steady::now() - started) / 1e3;
  std::vector<std::shared_ptr<qnbrl::QNBRLChannel>> channels;
  if (join) {
    auto joined = std::make_shared<std::atomic<int>>(0);
    for (std::size_t i = 0; i < kits.size(); ++i) {
      channels.push_back(kits[i]->createChannelWithId("bench-room-" + std::to_string(i), {}));
      channels.back()->joinWithCompletion([joined](int code) { joined->fetch_add(code == 0 ? 1 : 1 << 20); });
    }
    const auto deadline = Steady::now() + kWaitLimit;
    while (joined->load() < clients && Steady::now() < deadline) std::this_thread::sleep_for(10ms);
    if (joined->load() != clients) throw std::runtime_error("not every client joined its channel");
  }
  const auto after = footprint();

  const double cpu = cpuSeconds();
  const auto idleStarted = Steady::now();
  std::this_thread::sleep_for(join ? 3 * kIdle : kIdle);  // the measurement itself: what idle clients cost
  const double idleCpu = (cpuSeconds() - cpu) / (millis(Steady::now() - idleStarted) / 1e3);

  std::cerr << " " << loginSeconds << " s to log in\n";
  const double rssPerClient = (after.rssKib - before.rssKib) / clients;
  JsonLine(name)
      .add("clients", clients)
      .add("deflate", deflate)
      .add("login_s", loginSeconds, 2)
      .add("threads_before", before.threads)
      .add("threads", after.threads)
      .add("rss_kib_per_client", rssPerClient, 1)
      .add("heap_kib_per_client", (after.heapKib - before.heapKib) / clients, 1)
      .add("idle_cpu_s_per_s", idleCpu, 4)
      .add("target_threads", kThreadTarget)
      .add("target_rss_kib_per_client", join ? kJoinedRssTargetKib : kRssTargetKib, 0)
      .add("pass", after.threads <= kThreadTarget && rssPerClient <= (join ? kJoinedRssTargetKib : kRssTargetKib) &&
                       (!join || idleCpu <= kJoinedCpuTarget))
      .print(out);

  channels.clear();
  // Every client leaves before the server goes, so that none starts reconnecting.
  for (auto& kit : kits) kit->logoutWithCompletion(tally.logout());
  tally.await([&](const Tally::Counts& c) { return c.logouts - base.logouts >= clients; }, "logouts");
  kits.clear();
}

}  // namespace

void runSessionBenchmarks(std::ostream& out) {
  const auto& settings = benchSettings();
  if (settings.selected("session.login_latency")) runLoginLatency(out);
  const bool plain = settings.selected("session.idle_clients");
  const bool deflate = settings.selected("session.idle_clients_deflate");
  const bool joined = settings.selected("session.joined_clients");
  if (!plain && !deflate && !joined) return;
  const int clients = settings.count(kClients);
  raiseFileLimit(clients);
  if (plain) runIdleClients(out, "session.idle_clients", false, clients);
  if (deflate) runIdleClients(out, "session.idle_clients_deflate", true, clients);
  if (joined) runIdleClients(out, "session.joined_clients", false, clients, true);
}
