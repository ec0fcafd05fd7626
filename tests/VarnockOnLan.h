#pragma once

#include <cstdlib>
#include <numeric>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "RequireLan.h"

// The real varnock and varnock-device, run in the nodes of a simulated LAN.

using Args = std::vector<std::string>;

inline const std::string kBin =
    std::getenv("VARNOCK_BIN_DIR") ? std::getenv("VARNOCK_BIN_DIR") : ".";

/// Starts varnock-device in the node and waits until it is ready; its output goes to the scratch
/// file `log` (NODE.log by default). Returns its PID, or -1.
inline pid_t startDevice(Lan& lan, const std::string& node, Args args, std::string log = "") {
  log = lan.scratchFile(log.empty() ? node + ".log" : log);
  args.insert(args.begin(), kBin + "/device/varnock-device");
  const pid_t pid = lan.spawn(node, args, log);
  return pid > 0 && Lan::waitForText(log, "ready\n") ? pid : -1;
}

inline Lan::Result varnock(Lan& lan, Args args) {
  args.insert(args.begin(), kBin + "/app/varnock");
  return lan.run("finder", args);
}

/// The threads write their log lines in any order; the result follows them all.
inline std::string sortedLog(const std::string& out) {
  size_t end = out.find("Result:\n") == std::string::npos ? 0 : out.find("Result:\n");
  std::multiset<std::string> lines;
  std::istringstream log(out.substr(0, end));
  for (std::string line; std::getline(log, line);) lines.insert(line + "\n");
  return std::accumulate(lines.begin(), lines.end(), std::string()) + out.substr(end);
}
