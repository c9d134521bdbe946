// Costs of the diagnostics on the caller's thread, and the file store's write rate. Each figure is the
// median of 5 rounds; the two per-call costs that run side by side are measured alternately.
#include "benchmarks.hpp"
#include "diagnostics/log.hpp"
#include "diagnostics/logan_file_manager.hpp"
#include "diagnostics/logan_manager.hpp"
#include "support/temp_dir.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ostream>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kRounds = 5;

template <class Fn>
double secondsFor(int calls, Fn&& fn) {
  auto start = Clock::now();
  for (int i = 0; i < calls; ++i) fn(i);
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// The log and the recorder echo to stderr; the echo is part of their cost but not of the report.
class QuietStderr {
 public:
  QuietStderr() : saved_(::dup(STDERR_FILENO)) {
    int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null >= 0) {
      ::dup2(null, STDERR_FILENO);
      ::close(null);
    }
  }
  ~QuietStderr() {
    if (saved_ >= 0) {
      ::dup2(saved_, STDERR_FILENO);
      ::close(saved_);
    }
  }

 private:
  int saved_;
};

void line(std::ostream& out, const char* name, const char* unit, double value) {
  out << "{\"bench\":\"" << name << "\",\"unit\":\"" << unit << "\",\"median\":" << value
      << ",\"rounds\":" << kRounds << "}\n";
}

}  // namespace

void runDiagnosticsBenchmarks(std::ostream& out) {
  testing_support::TempDir tmp;
  QuietStderr quiet;

  const auto& settings = benchSettings();
  // A filtered-out message: one comparison, nothing formatted.
  if (settings.selected("qnlog_info_filtered")) {
    qnbrl::QNLog log((tmp.path() / "filtered.log").string());
    constexpr int kCalls = 2'000'000;
    std::vector<double> ns;
    for (int r = 0; r < kRounds; ++r) {
      ns.push_back(secondsFor(kCalls, [&](int i) { log.info("bench %@", i); }) * 1e9 / kCalls);
    }
    line(out, "qnlog_info_filtered", "ns/call", median(ns));
  }

  // An enabled info line and one telemetry record, alternating round by round.
  if (settings.selected("qnlog_info_enabled") || settings.selected("telemetry_record")) {
    qnbrl::QNLog log((tmp.path() / "enabled.log").string());
    log.setLogFilter(1);
    qnbrl::LoganManager recorder((tmp.path() / "logan").string(), "bench-device");
    recorder.setAppId(std::string("bench-app"));
    recorder.setUId(std::string("bench-user"));
    auto store =
        std::dynamic_pointer_cast<qnbrl::QNLoganFileManager>(recorder.collectManager()->loganFileManager());
    constexpr int kCalls = 5'000;
    std::vector<double> info, record;
    for (int r = 0; r < kRounds; ++r) {
      info.push_back(
          secondsFor(kCalls, [&](int i) { log.info("join channel: %@, ret = %@", "bench-channel", i); }) *
          1e6 / kCalls);
      log.flush();
      record.push_back(secondsFor(kCalls, [&](int i) { recorder.connectState(3, i); }) * 1e6 / kCalls);
      store->queue()->sync([] {});
    }
    line(out, "qnlog_info_enabled", "us/call", median(info));
    line(out, "telemetry_record", "us/call", median(record));
    out << "{\"bench\":\"telemetry_record_vs_info\",\"ratio\":" << median(record) / median(info) << "}\n";
  }

  // Record lines through the file store, including its rotations and their flushes.
  if (settings.selected("file_store_records")) {
    auto store = qnbrl::QNLoganFileManager::create((tmp.path() / "store").string(), false);
    const std::string record(400, 'r');  // about the size of an enveloped event
    constexpr int kRecords = 20'000;
    std::vector<double> rate;
    for (int r = 0; r < kRounds; ++r) {
      auto start = Clock::now();
      for (int i = 0; i < kRecords; ++i) store->writeLog(record);
      store->queue()->sync([] {});
      rate.push_back(kRecords / std::chrono::duration<double>(Clock::now() - start).count());
    }
    line(out, "file_store_records", "records/s", median(rate));
  }
}
