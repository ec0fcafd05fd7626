#pragma once

#include <iosfwd>
#include <vector>

#include "device/DeviceConfig.h"

/// Everything the command line asks for.
struct Startup {
  /// Exit at once with this status (help, version or an error), or -1: run.
  int status = -1;
  std::vector<DeviceConfig> devices;
};

/// Reads the command line and the site file, and checks that every device's
/// address is on this host. Help goes to `out`; an error gives one line and a
/// pointer to --help (a site file's error: one line naming file, device and
/// field) on `err`, with status 2.
Startup configure(int argc, char** argv, std::ostream& out, std::ostream& err);
