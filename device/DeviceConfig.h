#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "morl/SupportedServiceBlock.h"

/// One simulated device: its identity, its replies and which sides it runs.
struct DeviceConfig {
  /// IPv4 address in host order that every socket of the device binds;
  /// 0: all of the host's (MORL and HTTP on 0.0.0.0, mDNS on the first address).
  unsigned int address = 0;
  unsigned char uuid[12] = {};
  unsigned char owner[12] = {};
  std::string name = "varnock-device";
  std::string softwareVersion = "1.0.0";
  std::vector<MORL::SupportedServiceBlock> services{{MORL::ServiceType(2), 1}};
  bool unicast = true;
  bool acceptTame = true;
  bool morl = true;
  bool http = true;
  /// Announced only while the info server runs.
  bool mdns = true;
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

/// Dotted text of a host-order IPv4 address.
std::string addressText(unsigned int address);

/// `text` fit for a one-line message: bytes other than printable ASCII as
/// "\xHH", cut to at most `width` characters (then followed by its length in bytes).
std::string shown(const std::string& text, std::size_t width = 32);

/// Sets one field from its text, named as the long option (for a repeatable
/// "service", adds one). Returns "" or what is wrong, e.g. "must be 1-65535".
std::string setField(DeviceConfig& config, const std::string& field, const std::string& text);
