// Feeds any text to the site-file parser, named by a long path: an error is
// one short line of printable ASCII and leaves no device; a success gives devices on distinct
// addresses of the host, with names and versions of the allowed length and
// no control byte.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <set>
#include <string>

#include "device/SiteFile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::set<unsigned int> host{0x7F000001, 0x0A090002, 0x0A090003, 0x0A090004};
  std::vector<DeviceConfig> devices;
  const std::string path = "/srv/sites/" + std::string(90, 'p') + ".json";
  const std::string error =
      parseSite(path, {reinterpret_cast<const char*>(data), size}, host, 1, devices);
  if (!error.empty()) {
    // With "varnock-device: " before it, the line stays within about 200 characters.
    if (!devices.empty() || error.size() > 200) std::abort();
    for (char c : error)
      if (c < 0x20 || c > 0x7E) std::abort();
    return 0;
  }
  std::set<unsigned int> seen;
  for (const DeviceConfig& device : devices) {
    if (!host.count(device.address) || !seen.insert(device.address).second) std::abort();
    if (device.name.size() > 30 || device.softwareVersion.size() > 20) std::abort();
    for (const std::string* text : {&device.name, &device.softwareVersion})
      for (char c : *text)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) std::abort();
  }
  return 0;
}
