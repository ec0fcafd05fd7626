// One MORL discovery run for bench/morl_load.sh: prints the number of records
// and the time discover() took. Run it only inside a namespace of the
// simulated LAN.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "morl/MORL_Discover.h"
#include "qm/log.h"

int main(int argc, char** argv) {
  unsigned int seconds = 1;
  bool list = false;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--list") == 0)
      list = true;
    else if (std::strcmp(argv[i], "--verbose") == 0)
      logEnable(true);
    else
      seconds = static_cast<unsigned int>(std::strtoul(argv[i], nullptr, 10));
  }
  MORL_Discover discovery;
  auto start = std::chrono::steady_clock::now();
  bool ok = discovery.discover(seconds);
  std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  if (list)
    for (const auto& e : discovery.entries)
      std::printf("%s|%s|%s|%s\n", e.ip.c_str(), e.name.c_str(), e.version.c_str(),
                  e.device_type.c_str());
  std::printf("ok %d records %zu seconds %.3f\n", ok ? 1 : 0, discovery.entries.size(),
              took.count());
  return ok ? 0 : 1;
}
