#include <arpa/inet.h>
#include <benchmark/benchmark.h>

#include <algorithm>
#include <string>
#include <vector>

#include "mdns/MDNSDiscovery.h"
#include "tests/mdns/MDNSDatagram.h"

namespace {

sockaddr_in6 sender(const char* host, uint16_t port) {
  sockaddr_in6 a{};
  const bool v4 = inet_pton(AF_INET, host, &reinterpret_cast<sockaddr_in*>(&a)->sin_addr) == 1;
  if (!v4) inet_pton(AF_INET6, host, &a.sin6_addr);
  a.sin6_family = v4 ? AF_INET : AF_INET6;  // family and port lie alike in both
  a.sin6_port = htons(port);
  return a;
}

// A service reply as a responder sends it: the question, a PTR answer and SRV,
// TXT and A records in the additional section; `padding` TXT bytes make it longer.
Bytes typicalReply(const std::string& instance, size_t padding) {
  Bytes instanceName = name({instance});
  instanceName.pop_back();
  Bytes d = header(1, 1, 0, 3) + question() + pointer(12) + record(12, instanceName + pointer(12));
  const unsigned instanceOffset = d.size() - instanceName.size() - 2;
  const Bytes host = instanceName + name({"local"});
  d = d + pointer(instanceOffset) + record(33, Bytes{0, 0, 0, 0, 0, 80} + host);
  const unsigned hostOffset = d.size() - host.size();
  const std::string path = "path=/api/v1/info";
  Bytes txt = name({path});
  txt.pop_back();
  for (; padding > 0; padding -= std::min<size_t>(padding, 64)) {
    const size_t n = std::min<size_t>(padding, 64) - 1;
    txt = txt + Bytes{uint8_t(n)} + Bytes(n, 'x');
  }
  return d + pointer(instanceOffset) + record(16, txt) + pointer(hostOffset) +
         record(1, {10, 0, 0, 20});
}

// A service reply of about 300 bytes: question, PTR answer, SRV, TXT and A.
void BM_WalkTypicalReply(benchmark::State& state) {
  const std::vector<uint8_t> reply = typicalReply("living-room-controller", 150);
  const sockaddr_in6 from = sender("192.168.1.20", 5353);
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
  const sockaddr_in6 from = sender("fe80::20c:29ff:fe12:3456", 5353);
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
  const sockaddr_in6 from = sender("192.168.1.20", 5353);
  for (auto _ : state)
    benchmark::DoNotOptimize(mdns_read_reply(
        reply.data(), reply.size(), reinterpret_cast<const sockaddr*>(&from), sizeof from));
}
BENCHMARK(BM_RejectTwoQuestions);

}  // namespace
