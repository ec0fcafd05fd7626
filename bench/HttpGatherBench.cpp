// gather over 200 records on the simulated LAN (needs root; run it through
// lab/lan/isolated.sh so the LAN vanishes with the process):
//   Answering100ms - every device answers after 100 ms: about one answer's time
//   AnsweringAtOnce - every device answers at once: the cost of the exchanges
//   SilentServers  - every device accepts and answers only after a minute: one read deadline
//   SilentAddresses - nobody has the addresses: one connect deadline
// Counters: filled records, peak threads of the process during the call, and
// the process's peak resident memory.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Lan.h"
#include "http/HostnameGetter.h"

namespace {

constexpr int kRecords = 200;
constexpr int kServerHost = 2;  // 10.0.0.2 .. 10.0.0.201, one server for all
constexpr int kEdgeHost = 500;  // 10.0.1.244: makes the LAN a /23
constexpr int kSilentBase = 0;  // 10.0.1.1 .. 10.0.1.200: no node has them

std::string addressOf(int base, int i) {
  return base == kServerHost ? "10.0.0." + std::to_string(2 + i)
                             : "10.0.1." + std::to_string(1 + i);
}

int threadsNow() {
  std::ifstream in("/proc/self/status");
  for (std::string line; std::getline(in, line);)
    if (line.rfind("Threads:", 0) == 0) return std::stoi(line.substr(8));
  return 0;
}

class GatherLan {
 public:
  static GatherLan& get() {
    static GatherLan lan;
    return lan;
  }
  bool ok() const { return ok_; }

  // Restarts the one info server (a varnock-device named "A") on the server
  // device with these options.
  bool serve(const std::vector<std::string>& args) {
    if (server_ > 0) lan_.stop(server_);
    std::vector<std::string> argv{VARNOCK_DEVICE, "--no-morl", "--name", "A"};
    argv.insert(argv.end(), args.begin(), args.end());
    server_ = lan_.spawn(Lan::device(kServerHost), argv, "/dev/null");
    return server_ > 0 && lan_.waitForPort(Lan::device(kServerHost), "tcp", 80);
  }

 private:
  GatherLan() : lan_({kServerHost, kEdgeHost}) {
    if (!lan_.ok()) {
      std::fprintf(stderr, "the simulated LAN could not be built\n");
      return;
    }
    std::string server, silent;
    for (int i = 0; i < kRecords; ++i) {
      if (addressOf(kServerHost, i) != lan_.ip(kServerHost))
        server += "addr add " + addressOf(kServerHost, i) + "/23 dev eth0\n";
      // A neighbour entry with a MAC that no node has: frames to these
      // addresses are flooded over the bridge and nobody ever answers.
      silent += "neigh add " + addressOf(kSilentBase, i) +
                " lladdr 02:00:00:00:00:99 dev eth0 nud permanent\n";
    }
    ok_ =
        batch(Lan::device(kServerHost), server) && batch("finder", silent) && lan_.enter("finder");
  }

  bool batch(const std::string& node, const std::string& commands) {
    std::string path = "/tmp/varnock-http-bench-" + node + ".batch";
    std::ofstream(path) << commands;
    auto r = lan_.run(node, {"ip", "-batch", path});
    std::remove(path.c_str());
    if (r.status != 0) std::fprintf(stderr, "ip -batch in %s: %s\n", node.c_str(), r.err.c_str());
    return r.status == 0;
  }

  Lan lan_;
  bool ok_ = false;
  pid_t server_ = -1;
};

void gatherAll(benchmark::State& state, int base, const std::string& filledName) {
  std::vector<Entry> entries;
  for (int i = 0; i < kRecords; ++i) entries.push_back(Entry{addressOf(base, i), "", "", ""});
  int filled = 0;
  int peakThreads = 0;
  for (auto _ : state) {
    std::vector<Entry> list = entries;
    std::atomic<bool> running{true};
    std::atomic<int> peak{0};
    state.PauseTiming();
    std::thread sampler([&] {
      while (running.load()) {
        peak.store(std::max(peak.load(), threadsNow()));
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    });
    state.ResumeTiming();
    HostnameGetter::gather(list);
    state.PauseTiming();
    running.store(false);
    sampler.join();
    state.ResumeTiming();
    filled = 0;
    for (const Entry& e : list) filled += e.name == filledName;
    // The sampler itself is one of the threads counted.
    peakThreads = std::max(peakThreads, peak.load() - 1);
  }
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  state.counters["filled"] = filled;
  state.counters["peak_threads"] = peakThreads;
  state.counters["peak_rss_MiB"] = static_cast<double>(usage.ru_maxrss) / 1024.0;
}

void Answering100ms(benchmark::State& state) {
  if (!GatherLan::get().ok() || !GatherLan::get().serve({"--http-delay", "100"})) {
    state.SkipWithError("simulated LAN not available (needs root)");
    return;
  }
  gatherAll(state, kServerHost, "A");
}

// The same without the devices' delay: what the exchange itself costs.
void AnsweringAtOnce(benchmark::State& state) {
  if (!GatherLan::get().ok() || !GatherLan::get().serve({})) {
    state.SkipWithError("simulated LAN not available (needs root)");
    return;
  }
  gatherAll(state, kServerHost, "A");
}

void SilentServers(benchmark::State& state) {
  if (!GatherLan::get().ok() || !GatherLan::get().serve({"--http-delay", "60000"})) {
    state.SkipWithError("simulated LAN not available (needs root)");
    return;
  }
  gatherAll(state, kServerHost, "A");
}

void SilentAddresses(benchmark::State& state) {
  if (!GatherLan::get().ok()) {
    state.SkipWithError("simulated LAN not available (needs root)");
    return;
  }
  gatherAll(state, kSilentBase, "A");
}

}  // namespace

BENCHMARK(Answering100ms)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
BENCHMARK(AnsweringAtOnce)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
BENCHMARK(SilentServers)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);
BENCHMARK(SilentAddresses)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);
