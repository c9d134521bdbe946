// Runs every benchmark group; figures go to stdout as JSON lines, everything else to stderr.
//
//   qnbrl_bench [--rounds N] [--scale X] [--only NAME[,NAME...]]
#include "benchmarks.hpp"

#include <sys/resource.h>
#include <boost/json/serialize.hpp>
#include <boost/json/string.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <sstream>

namespace {

BenchSettings g_settings;

int usage() {
  std::cerr << "usage: qnbrl_bench [--rounds N] [--scale X] [--only NAME[,NAME...]]\n"
               "  --rounds  measured rounds per benchmark (default 7, at least 1)\n"
               "  --scale   multiplies every operation count (default 1; e.g. 0.05 under valgrind)\n"
               "  --only    run only the named benchmarks (the \"bench\" names of the output)\n";
  return 2;
}

bool parse(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (i + 1 >= argc) return false;
    const std::string value = argv[++i];
    char* end = nullptr;
    if (arg == "--rounds") {
      const long n = std::strtol(value.c_str(), &end, 10);
      if (*end || n < 1 || n > 1000) return false;
      g_settings.rounds = static_cast<int>(n);
    } else if (arg == "--scale") {
      const double x = std::strtod(value.c_str(), &end);
      if (*end || !std::isfinite(x) || x <= 0 || x > 100) return false;
      g_settings.scale = x;
    } else if (arg == "--only") {
      std::istringstream names(value);
      for (std::string name; std::getline(names, name, ',');) {
        if (!name.empty()) g_settings.only.push_back(name);
      }
    } else {
      return false;
    }
  }
  return true;
}

}  // namespace

double cpuSeconds() {
  rusage ru{};
  getrusage(RUSAGE_SELF, &ru);
  const auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
  return seconds(ru.ru_utime) + seconds(ru.ru_stime);
}

// The q-quantile by the nearest-rank method.
double percentile(std::vector<double> v, double q) {
  if (v.empty()) return 0;
  const auto rank = static_cast<std::size_t>(std::ceil(q * static_cast<double>(v.size())));
  const auto i = std::min(v.size() - 1, rank == 0 ? 0 : rank - 1);
  std::nth_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(i), v.end());
  return v[i];
}

double median(std::vector<double> v) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  const auto n = v.size();
  return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

bool BenchSettings::selected(std::string_view name) const {
  return only.empty() || std::find(only.begin(), only.end(), name) != only.end();
}

bool BenchSettings::named(std::string_view name) const {
  return std::find(only.begin(), only.end(), name) != only.end();
}

int BenchSettings::count(int base) const {
  return std::max(1, static_cast<int>(std::lround(base * scale)));
}

const BenchSettings& benchSettings() {
  return g_settings;
}

JsonLine& JsonLine::field(std::string_view key, std::string_view raw) {
  text_ += text_.empty() ? '{' : ',';
  text_ += boost::json::serialize(boost::json::string(key));
  text_ += ':';
  text_ += raw;
  return *this;
}

JsonLine& JsonLine::add(std::string_view key, std::string_view text) {
  return field(key, boost::json::serialize(boost::json::string(text)));
}

JsonLine& JsonLine::add(std::string_view key, long long n) {
  return field(key, std::to_string(n));
}

JsonLine& JsonLine::add(std::string_view key, double x, int decimals) {
  if (!std::isfinite(x)) return field(key, "null");
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.*f", decimals, x);
  return field(key, buf);
}

JsonLine& JsonLine::add(std::string_view key, bool b) {
  return field(key, b ? "true" : "false");
}

void JsonLine::print(std::ostream& out) const {
  out << text_ << "}" << std::endl;
}

int main(int argc, char** argv) {
  if (!parse(argc, argv)) return usage();
  struct Group {
    const char* name;
    void (*run)(std::ostream&);
  };
  const Group groups[] = {
      {"socketio", runSocketIoBenchmarks},
      {"diagnostics", runDiagnosticsBenchmarks},
      {"session", runSessionBenchmarks},
      {"channels", runChannelBenchmarks},
  };
  int status = 0;
  for (const auto& group : groups) {
    std::cerr << "== " << group.name << "\n";
    try {
      group.run(std::cout);
    } catch (const std::exception& e) {
      std::cerr << group.name << ": " << e.what() << "\n";
      status = 1;
    }
    std::cout.flush();
  }
  return status;
}
