#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "mdns/MDNSDiscovery.h"
#include "tests/mdns/MDNSDatagram.h"

namespace {

// A service reply of about 300 bytes: question, PTR answer, SRV, TXT and A.
void BM_WalkTypicalReply(benchmark::State& state) {
  const std::vector<uint8_t> reply = typicalReply("living-room-controller", 150);
  const sockaddr_in from = ipv4Sender("192.168.1.20", 5353);
  MDNS_Discover::entries.reserve(64);
  size_t counted = 0;
  for (auto _ : state) {
    MDNS_Discover::entries.clear();
    counted = mdns_read_reply(reply.data(), reply.size(), reinterpret_cast<const sockaddr*>(&from),
                              sizeof from);
    benchmark::DoNotOptimize(counted);
  }
  state.counters["bytes"] = static_cast<double>(reply.size());
  state.counters["records"] = static_cast<double>(counted);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * reply.size()));
}
BENCHMARK(BM_WalkTypicalReply);

// The same reply from an IPv6 sender (its text is cut to a fragment).
void BM_WalkTypicalReplyIPv6(benchmark::State& state) {
  const std::vector<uint8_t> reply = typicalReply("living-room-controller", 150);
  const sockaddr_in6 from = ipv6Sender("fe80::20c:29ff:fe12:3456", 5353);
  MDNS_Discover::entries.reserve(64);
  for (auto _ : state) {
    MDNS_Discover::entries.clear();
    benchmark::DoNotOptimize(mdns_read_reply(
        reply.data(), reply.size(), reinterpret_cast<const sockaddr*>(&from), sizeof from));
  }
}
BENCHMARK(BM_WalkTypicalReplyIPv6);

// A datagram that is dropped at its question count: the cost of refusing it.
void BM_RejectTwoQuestions(benchmark::State& state) {
  std::vector<uint8_t> reply = typicalReply("living-room-controller", 150);
  reply[5] = 2;
  const sockaddr_in from = ipv4Sender("192.168.1.20", 5353);
  for (auto _ : state)
    benchmark::DoNotOptimize(mdns_read_reply(
        reply.data(), reply.size(), reinterpret_cast<const sockaddr*>(&from), sizeof from));
}
BENCHMARK(BM_RejectTwoQuestions);

}  // namespace
