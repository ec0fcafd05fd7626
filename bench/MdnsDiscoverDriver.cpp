// Runs one mDNS discovery and prints every found address on a line of its own,
// then "status S, N addresses, T ms" on standard error.
//   mdns_discover_driver [SILENCE-SECONDS] [-v]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "mdns/MDNSDiscovery.h"
#include "qm/log.h"

int main(int argc, char** argv) {
  const long wait = argc > 1 ? std::strtol(argv[1], nullptr, 10) : 1;
  logEnable(argc > 2 && std::strcmp(argv[2], "-v") == 0);
  const auto start = std::chrono::steady_clock::now();
  const int status = MDNS_Discover().discover(wait);
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                      std::chrono::steady_clock::now() - start)
                      .count();
  for (const auto& e : MDNS_Discover::entries) std::printf("%s\n", e.ip.c_str());
  std::fflush(stdout);
  std::fprintf(stderr, "status %d, %zu addresses, %lld ms\n", status, MDNS_Discover::entries.size(),
               static_cast<long long>(ms));
  return status == 1 ? 0 : 1;
}
