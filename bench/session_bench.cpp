// What a session costs: the time from loginByToken to its completion on loopback (discovery
// included), and what a thousand logged-in clients cost the process in threads, memory and CPU: idle, and
// each joined to a channel of its own and heartbeating. At ten thousand clients (scale.clients, run only
// when named), the same figures, and what a reconnection storm of all of them costs (scale.storm).
//
// The dev server runs with its session side on: tavern servers check each login's query and answer
// "loginSuccess". Client CPU is getrusage(RUSAGE_SELF): the Node server is a child process, so it is
// not counted. Memory is the process's resident set (/proc/self/statm) beside the heap in use
// (mallinfo2), since freed heap pages may stay resident.
#include "benchmarks.hpp"
#include "devserver/dev_server.hpp"
#include "qnbrl/qnbrl.hpp"
#include "support/queues.hpp"

#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <unordered_map>
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

// Ten thousand clients, logged in 100 at a time; the steady period over which their idle CPU is
// taken; how long a storm may take to recover; the longest the main queue may stall meanwhile.
constexpr int kScaleClients = 10000;
constexpr int kScaleBatch = 100;
constexpr auto kScaleIdle = 10s;
constexpr auto kStormLimit = 120s;
constexpr double kStallTargetMs = 100;
constexpr auto kProbeInterval = 5ms;
constexpr auto kCheckInterval = 100ms;

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
    int reconnecting = 0;  // the delegate's (4, 5)
    int connected = 0;     // the delegate's (3, 2)
    Steady::time_point lastLogin;
    int logins() const { return loggedIn + loginFailed; }
  };

  Tally() : delegate_(std::make_shared<qnbrl::QNBRLDelegate>()) {
    delegate_->connectionStateChanged = [this](qnbrl::QNBRLKit& kit, qnbrl::QNBRLConnectionState state,
                                               qnbrl::QNBRLConnectionChangeReason reason) {
      note([&](Counts& c) {
        auto [it, added] = states_.try_emplace(&kit, state);
        if (!added) --inState_[static_cast<std::size_t>(it->second)];
        it->second = state;
        ++inState_[static_cast<std::size_t>(state)];
        if (state == qnbrl::QNBRLConnectionState::Reconnecting) ++c.reconnecting;
        if (state == qnbrl::QNBRLConnectionState::Connected) ++c.connected;
        if (state == qnbrl::QNBRLConnectionState::Disconnected &&
            reason == qnbrl::QNBRLConnectionChangeReason::LoggedOut)
          ++c.loggedOut;
      });
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
  // How many clients last reported `state`.
  int clientsIn(qnbrl::QNBRLConnectionState state) const {
    std::lock_guard lock(mutex_);
    return inState_[static_cast<std::size_t>(state)];
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
  // The last state each client reported, and how many clients last reported each state.
  std::unordered_map<const qnbrl::QNBRLKit*, qnbrl::QNBRLConnectionState> states_;
  std::array<int, 5> inState_{};
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

int threadCount() {
  int threads = 0;
  std::error_code ec;
  for (std::filesystem::directory_iterator it("/proc/self/task", ec), end; !ec && it != end; it.increment(ec))
    ++threads;
  return threads;
}

// Not for use while the clients work: the heap's figure walks every chunk with the allocator locked.
Footprint footprint() {
  Footprint f;
  f.threads = threadCount();
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

devserver::DevServerOptions populationServer(bool deflate) {
  devserver::DevServerOptions options;
  options.tavern = kTaverns;
  options.tavernTls = 0;
  options.session = true;
  options.record = false;
  options.perMessageDeflate = deflate;
  return options;
}

// One client in and out, so that what every client shares (the main loop, the HTTP session, the
// recorder) is in the figures taken before a population; whether compression was agreed.
bool warmUp(devserver::DevServer& server, Tally& tally) {
  auto kit = makeKit(server, tally);
  login(*kit, tally, "bench-warm-up");
  const auto live = server.connections(0, true);
  logout(*kit, tally);
  return !live.empty() && live.front().deflate;
}

// Logged-in clients of one app, distinct users, each maybe joined to a channel of its own.
struct Population {
  std::vector<std::shared_ptr<qnbrl::QNBRLKit>> kits;
  std::vector<std::shared_ptr<qnbrl::QNBRLChannel>> channels;
  double loginSeconds = 0;
  double joinSeconds = 0;
};

// Logs `clients` users in, `batch` at a time (the next batch waits for their completions).
void logInAll(devserver::DevServer& server, Tally& tally, Population& population, int clients, int batch) {
  const auto base = tally.counts();
  population.kits.reserve(static_cast<std::size_t>(clients));
  const auto started = Steady::now();
  for (int first = 0; first < clients; first += batch) {
    // Each batch starts on another server, as discovery would spread a real population.
    std::vector<std::string> urls = server.tavernUrls();
    std::rotate(urls.begin(), urls.begin() + (first / batch) % kTaverns, urls.end());
    if (!server.scriptDiscovery(devserver::DiscoveryAnswer().servers(urls)))
      throw std::runtime_error("the dev server refused the discovery script");
    const int last = std::min(clients, first + batch);
    for (int i = first; i < last; ++i) {
      population.kits.push_back(makeKit(server, tally));
      population.kits.back()->loginByToken(kToken, kTimestamp, "bench-user-" + std::to_string(i),
                                           tally.login());
    }
    const auto c = tally.await([&](const Tally::Counts& c) { return c.logins() - base.logins() >= last; },
                               "logins " + std::to_string(first) + " to " + std::to_string(last - 1));
    if (c.loginFailed > base.loginFailed)
      throw std::runtime_error("a login was refused with code " + std::to_string(c.lastFailure));
  }
  population.loginSeconds = millis(Steady::now() - started) / 1e3;
}

std::string roomOf(std::size_t i) {
  return "bench-room-" + std::to_string(i);
}

// Each client joins a channel of its own (and heartbeats every 2 seconds from then on).
void joinAll(Population& population) {
  const auto started = Steady::now();
  auto joined = std::make_shared<std::atomic<int>>(0);
  for (std::size_t i = 0; i < population.kits.size(); ++i) {
    population.channels.push_back(population.kits[i]->createChannelWithId(roomOf(i), {}));
    population.channels.back()->joinWithCompletion(
        [joined](int code) { joined->fetch_add(code == 0 ? 1 : 1 << 20); });
  }
  const int clients = static_cast<int>(population.kits.size());
  // Bounded by progress: ten thousand joins on a busy machine may take longer than one wait limit.
  auto deadline = Steady::now() + kWaitLimit;
  for (int seen = 0; joined->load() < clients && Steady::now() < deadline;
       std::this_thread::sleep_for(10ms)) {
    if (joined->load() > seen) {
      seen = joined->load();
      deadline = Steady::now() + kWaitLimit;
    }
  }
  if (joined->load() != clients) throw std::runtime_error("not every client joined its channel");
  population.joinSeconds = millis(Steady::now() - started) / 1e3;
}

// Every client leaves before the server goes, so that none starts reconnecting.
void logOutAll(Population& population, Tally& tally) {
  population.channels.clear();
  const auto base = tally.counts();
  for (auto& kit : population.kits) kit->logoutWithCompletion(tally.logout());
  const int clients = static_cast<int>(population.kits.size());
  tally.await([&](const Tally::Counts& c) { return c.logouts - base.logouts >= clients; }, "logouts");
  population.kits.clear();
}

// CPU seconds per second of wall time that the process spends over `period` while nothing is asked of it.
double idleCpu(std::chrono::seconds period) {
  const double cpu = cpuSeconds();
  const auto started = Steady::now();
  std::this_thread::sleep_for(period);  // the measurement itself: what idle clients cost
  return (cpuSeconds() - cpu) / (millis(Steady::now() - started) / 1e3);
}

// `clients` logged-in clients spread over the tavern servers; one figure line. Runs once per process
// configuration: a second round would reuse the first one's freed pages. With `join`, each client also
// joins a channel of its own and heartbeats every 2 seconds.
void runIdleClients(std::ostream& out, const char* name, bool deflate, int clients, bool join = false) {
  devserver::DevServer server(populationServer(deflate));
  if (!server.ready()) throw std::runtime_error("the dev server did not start");

  std::cerr << "  " << name << "..." << std::flush;
  Tally tally;
  if (warmUp(server, tally) != deflate)
    throw std::runtime_error("compression was not negotiated as the server offered");
  malloc_trim(0);
  const auto before = footprint();

  Population population;
  logInAll(server, tally, population, clients, kBatch);
  if (join) joinAll(population);
  const auto after = footprint();
  const double cpu = idleCpu(join ? 3 * kIdle : kIdle);

  std::cerr << " " << population.loginSeconds << " s to log in\n";
  const double rssPerClient = (after.rssKib - before.rssKib) / clients;
  JsonLine(name)
      .add("clients", clients)
      .add("deflate", deflate)
      .add("login_s", population.loginSeconds, 2)
      .add("threads_before", before.threads)
      .add("threads", after.threads)
      .add("rss_kib_per_client", rssPerClient, 1)
      .add("heap_kib_per_client", (after.heapKib - before.heapKib) / clients, 1)
      .add("idle_cpu_s_per_s", cpu, 4)
      .add("target_threads", kThreadTarget)
      .add("target_rss_kib_per_client", join ? kJoinedRssTargetKib : kRssTargetKib, 0)
      .add("pass", after.threads <= kThreadTarget &&
                       rssPerClient <= (join ? kJoinedRssTargetKib : kRssTargetKib) &&
                       (!join || cpu <= kJoinedCpuTarget))
      .print(out);
  logOutAll(population, tally);
}

// How late tasks posted to the main queue run: post() stamps each task, and the task notes how long
// after that it started.
class MainQueueProbe {
 public:
  struct Sample {
    double postedS;  // since the probe was made
    double lateMs;
  };

  void post() {
    qnbrl::MainQueue::async([samples = samples_, origin = origin_, posted = Steady::now()] {
      samples->push_back({millis(posted - origin) / 1e3, millis(Steady::now() - posted)});
    });
  }
  // Waits for the tasks posted so far; their samples, in posting order.
  std::vector<Sample> results() {
    std::vector<Sample> samples;
    qnbrl::MainQueue::sync([&] { samples = *samples_; });
    return samples;
  }

 private:
  Steady::time_point origin_ = Steady::now();
  std::shared_ptr<std::vector<Sample>> samples_ = std::make_shared<std::vector<Sample>>();  // main queue only
};

// CPU seconds (user + system) that process `pid` has used so far, from /proc; 0 when unreadable.
double cpuSecondsOf(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
  // The fields after the command name, which ends at the last ')': state is field 3, utime 14, stime 15.
  const auto end = text.rfind(')');
  if (end == std::string::npos) return 0;
  std::istringstream fields(text.substr(end + 2));
  std::string field;
  double ticks = 0;
  for (int i = 3; i <= 15 && fields >> field; ++i) {
    if (i >= 14) ticks += std::stod(field);
  }
  return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// True when the service has every client back in its channel, as the only member and none away.
bool everyMemberBack(devserver::DevServer& server, int clients) {
  const auto apps = server.model(kAppId);
  const auto app = apps.find(kAppId);
  if (app == apps.end() || static_cast<int>(app->second.online.size()) != clients) return false;
  for (int i = 0; i < clients; ++i) {
    const auto channel = app->second.channels.find(roomOf(static_cast<std::size_t>(i)));
    if (channel == app->second.channels.end() || !channel->second.away.empty() ||
        channel->second.members != std::vector<std::string>{"bench-user-" + std::to_string(i)})
      return false;
  }
  return true;
}

// The clients print a line on standard output for each reconnection attempt; while they storm it goes
// to stderr, so that stdout holds the figures only.
class StdoutToStderr {
 public:
  StdoutToStderr() {
    std::cout.flush();
    std::fflush(stdout);
    saved_ = dup(STDOUT_FILENO);
    dup2(STDERR_FILENO, STDOUT_FILENO);
  }
  ~StdoutToStderr() {
    std::fflush(stdout);
    dup2(saved_, STDOUT_FILENO);
    close(saved_);
  }
  StdoutToStderr(const StdoutToStderr&) = delete;
  StdoutToStderr& operator=(const StdoutToStderr&) = delete;

 private:
  int saved_ = -1;
};

// Every connection dropped at once (TCP cut on every tavern server, no close frame): the time until
// every client is connected again and the service has every member back, with the main queue's
// lateness meanwhile and the most threads seen.
JsonLine runStorm(devserver::DevServer& server, Tally& tally, int clients) {
  std::cerr << "  scale.storm..." << std::flush;
  const auto base = tally.counts();
  const auto recovered = [&] {
    const auto c = tally.counts();
    return c.reconnecting - base.reconnecting >= clients && c.connected - base.connected >= clients &&
           tally.clientsIn(qnbrl::QNBRLConnectionState::Connected) == clients;
  };
  int threads = threadCount();
  double connectedSeconds = -1;
  double membersSeconds = -1;
  std::vector<MainQueueProbe::Sample> samples;
  double cpu = 0, serverCpu = 0;
  {
    MainQueueProbe probe;
    cpu = -cpuSeconds();
    serverCpu = -cpuSecondsOf(server.pid());
    const auto started = Steady::now();
    // The probe posts from this thread, between the server's answers and the checks.
    probe.post();
    for (int tavern = 0; tavern < kTaverns; ++tavern) {
      if (!server.dropTransport(tavern, {})) throw std::runtime_error("the dev server refused dropTransport");
    }
    const auto deadline = started + kStormLimit;
    auto nextPost = started;
    auto nextCheck = started;
    while (membersSeconds < 0 && Steady::now() < deadline) {
      std::this_thread::sleep_until(std::min(nextPost, nextCheck));
      const auto now = Steady::now();
      if (now >= nextPost) {
        probe.post();
        nextPost += kProbeInterval;
      }
      if (now < nextCheck) continue;
      nextCheck += kCheckInterval;
      threads = std::max(threads, threadCount());
      if (connectedSeconds < 0 && recovered()) connectedSeconds = millis(now - started) / 1e3;
      // Asked only once the clients say they are back: the model's answer is large.
      if (connectedSeconds >= 0 && everyMemberBack(server, clients))
        membersSeconds = millis(now - started) / 1e3;
    }
    samples = probe.results();
    cpu += cpuSeconds();
    serverCpu += cpuSecondsOf(server.pid());
  }
  std::cerr << " " << membersSeconds << " s to recover\n";
  const auto c = tally.counts();
  std::vector<double> late;
  for (const auto& sample : samples) late.push_back(sample.lateMs);
  const auto worst = std::max_element(samples.begin(), samples.end(),
                                      [](const auto& a, const auto& b) { return a.lateMs < b.lateMs; });
  const double longest = worst == samples.end() ? 0 : worst->lateMs;
  return JsonLine("scale.storm")
      .add("clients", clients)
      .add("connected_s", connectedSeconds, 2)
      .add("recovered_s", membersSeconds, 2)
      .add("reconnecting_reports", c.reconnecting - base.reconnecting)
      .add("connected_reports", c.connected - base.connected)
      .add("clients_connected", tally.clientsIn(qnbrl::QNBRLConnectionState::Connected))
      .add("clients_disconnected", tally.clientsIn(qnbrl::QNBRLConnectionState::Disconnected))
      .add("client_cpu_s", cpu, 2)
      .add("server_cpu_s", serverCpu, 2)
      .add("threads", threads)
      .add("probes", static_cast<int>(samples.size()))
      .add("late_p50_ms", percentile(late, 0.50), 2)
      .add("late_p99_ms", percentile(late, 0.99), 2)
      .add("late_p999_ms", percentile(late, 0.999), 2)
      .add("late_max_ms", longest, 2)
      .add("late_max_at_s", worst == samples.end() ? 0 : worst->postedS, 3)
      .add("target_threads", kThreadTarget)
      .add("target_late_max_ms", kStallTargetMs, 0)
      .add("pass", membersSeconds >= 0 && threads <= kThreadTarget && longest <= kStallTargetMs);
}

// Ten thousand clients in one process, each joined to a channel of its own and heartbeating:
// scale.clients gives their footprint and login time; scale.storm then drops every connection at once.
void runScale(std::ostream& out, bool footprints, bool storm, int clients) {
  devserver::DevServer server(populationServer(false));
  if (!server.ready()) throw std::runtime_error("the dev server did not start");
  std::cerr << "  scale.clients..." << std::flush;
  Tally tally;
  warmUp(server, tally);
  malloc_trim(0);
  const auto before = footprint();

  Population population;
  logInAll(server, tally, population, clients, kScaleBatch);
  joinAll(population);
  const auto after = footprint();
  std::cerr << " " << population.loginSeconds + population.joinSeconds << " s to log in and join\n";
  if (footprints) {
    const double cpu = idleCpu(kScaleIdle);
    const double rssPerClient = (after.rssKib - before.rssKib) / clients;
    JsonLine("scale.clients")
        .add("clients", clients)
        .add("login_s", population.loginSeconds, 2)
        .add("join_s", population.joinSeconds, 2)
        .add("threads", after.threads)
        .add("rss_kib_per_client", rssPerClient, 1)
        .add("heap_kib_per_client", (after.heapKib - before.heapKib) / clients, 1)
        .add("idle_cpu_s_per_s", cpu, 4)
        .add("target_threads", kThreadTarget)
        .add("target_rss_kib_per_client", kJoinedRssTargetKib, 0)
        .add("pass", after.threads <= kThreadTarget && rssPerClient <= kJoinedRssTargetKib)
        .print(out);
  }
  if (!storm) return logOutAll(population, tally);
  std::optional<JsonLine> figures;
  {
    // Clients that have not recovered in time go on printing their attempts until they log out.
    StdoutToStderr quiet;
    figures = runStorm(server, tally, clients);
    logOutAll(population, tally);
  }
  figures->print(out);
}

}  // namespace

void runSessionBenchmarks(std::ostream& out) {
  const auto& settings = benchSettings();
  if (settings.selected("session.login_latency")) runLoginLatency(out);
  const bool plain = settings.selected("session.idle_clients");
  const bool deflate = settings.selected("session.idle_clients_deflate");
  const bool joined = settings.selected("session.joined_clients");
  if (plain || deflate || joined) {
    const int clients = settings.count(kClients);
    raiseFileLimit(clients);
    if (plain) runIdleClients(out, "session.idle_clients", false, clients);
    if (deflate) runIdleClients(out, "session.idle_clients_deflate", true, clients);
    if (joined) runIdleClients(out, "session.joined_clients", false, clients, true);
  }
  // Not part of a plain run: ten thousand clients take a minute and most of the machine.
  const bool scale = settings.named("scale.clients");
  const bool storm = settings.named("scale.storm");
  if (scale || storm) {
    const int clients = settings.count(kScaleClients);
    raiseFileLimit(clients);
    runScale(out, scale, storm, clients);
  }
}
