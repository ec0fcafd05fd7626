#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "morl/SupportedServiceBlock.h"

/// Everything the simulated device is told on its command line.
struct DeviceConfig {
  unsigned char uuid[12] = {};
  unsigned char owner[12] = {};
  std::string name = "varnock-device";
  std::string softwareVersion = "1.0.0";
  std::vector<MORL::SupportedServiceBlock> services;
  bool unicast = true;
  bool acceptTame = true;
  bool morl = true;
  bool http = true;
  unsigned short httpPort = 80;
  std::string httpContentType = "application/json";
  /// Replaces the info JSON when set.
  bool httpBodySet = false;
  std::string httpBody;
  unsigned int httpStatus = 200;
  unsigned int httpDelayMs = 0;
  unsigned int morlDelayMs = 0;
};

/// Device-type name that the info server reports: that of the last service,
/// the same one a MORL finder records; empty without services.
std::string deviceTypeOf(const DeviceConfig& config);

/// 24 lowercase hex digits.
std::string uuidText(const unsigned char (&uuid)[12]);

enum class ParseResult { Run, Exit, Error };

/// Reads the command line. Help goes to `out`; a rejected argument gives its
/// message and the help text on `err`.
ParseResult parseDeviceOptions(int argc, char** argv, DeviceConfig& config, std::ostream& out,
                               std::ostream& err);
