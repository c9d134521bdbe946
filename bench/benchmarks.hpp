#pragma once
// The benchmark groups of qnbrl_bench. Each group prints one JSON object per line to `out`
// ({"bench": "...", figures...}) and its progress to stderr; it throws std::runtime_error when it
// cannot run at all (a target that is missed is a figure, not an error).
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

struct BenchSettings {
  int rounds = 7;                 // measured rounds per benchmark, after one warm-up round
  double scale = 1.0;             // multiplies every operation count; small values for profiling runs
  std::vector<std::string> only;  // the benchmarks to run by name; empty: all of them

  bool selected(std::string_view name) const;
  // Named in `only`: for the benchmarks too heavy to run unasked.
  bool named(std::string_view name) const;
  // An operation count scaled by `scale`, at least 1.
  int count(int base) const;
};

const BenchSettings& benchSettings();

// The q-quantile by the nearest-rank method, and the median (0 for no values).
double percentile(std::vector<double> v, double q);
double median(std::vector<double> v);

// CPU seconds (user + system) this process has used so far; a child server is not counted.
double cpuSeconds();

// One output line, {"bench": name, ...}, with numbers written plainly (43.5, not 4.35E1).
class JsonLine {
 public:
  explicit JsonLine(std::string_view bench) { add("bench", bench); }
  JsonLine& add(std::string_view key, std::string_view text);
  JsonLine& add(std::string_view key, const char* text) { return add(key, std::string_view(text)); }
  JsonLine& add(std::string_view key, long long n);
  JsonLine& add(std::string_view key, int n) { return add(key, static_cast<long long>(n)); }
  JsonLine& add(std::string_view key, double x, int decimals);
  JsonLine& add(std::string_view key, bool b);
  // Writes the line and flushes, so that a reader sees each figure as soon as it is known.
  void print(std::ostream& out) const;

 private:
  JsonLine& field(std::string_view key, std::string_view raw);
  std::string text_;
};

// The Socket.IO client against the dev server, beside a raw WebSocket baseline.
void runSocketIoBenchmarks(std::ostream& out);
void runDiagnosticsBenchmarks(std::ostream& out);
// Login time through the public client, and the footprint of many idle logged-in clients.
void runSessionBenchmarks(std::ostream& out);
// A request and a pushed channel message through the SDK, against the Socket.IO layer alone.
void runChannelBenchmarks(std::ostream& out);
