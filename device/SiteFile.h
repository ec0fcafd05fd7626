#pragma once

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "device/DeviceConfig.h"

/// The largest site file read, in bytes.
constexpr std::size_t kMaxSiteBytes = 4 << 20;

/// The IPv4 addresses of this host's interfaces, in host order.
std::set<unsigned int> hostAddresses();

/// Parses the strict JSON text of a site file (see varnock-device(1)) into
/// `devices`, one per entry of its "devices" array; every device's address
/// must be in `host` and no two the same, each checked as the device is read.
/// A device without "uuid" gets one drawn from `seed`. Returns "" or one line
/// of at most about 200 characters naming `path`, the device (index and
/// address) and the field.
std::string parseSite(const std::string& path, std::string_view text,
                      const std::set<unsigned int>& host, std::uint64_t seed,
                      std::vector<DeviceConfig>& devices);

/// Reads the site file at `path` (a regular file of at most kMaxSiteBytes,
/// never waiting on a FIFO) and parses it against this host's addresses.
/// Returns "" or the error line.
std::string loadSite(const std::string& path, std::vector<DeviceConfig>& devices);
