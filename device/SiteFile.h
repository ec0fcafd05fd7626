#pragma once

#include <string>
#include <vector>

#include "device/DeviceConfig.h"

/// Reads a site file (see varnock-device(1)) into `devices`, one per entry of
/// its "devices" array, each with a random UUID unless it gives one. Returns ""
/// or one line naming the file, the device (index and address) and the field.
std::string loadSite(const std::string& path, std::vector<DeviceConfig>& devices);

/// Checks that every device's address (if it has one) is an IPv4 address of
/// this host and no two devices share one. `path` names the site file, empty
/// for the command line. Returns "" or the error line.
std::string checkAddresses(const std::string& path, const std::vector<DeviceConfig>& devices);
