#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "http/HostnameGetter.h"

// Any body a device may send: nothing escapes, and a rejected reply leaves the
// record exactly as it was.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string body(reinterpret_cast<const char*>(data), size);
  const Entry before{"10.0.0.2", "old", "0.9", "unknown"};
  Entry entry = before;
  const bool written = HostnameGetter::applyInfo(body, entry);
  if (entry.ip != before.ip) std::abort();
  if (!written && (entry.name != before.name || entry.version != before.version ||
                   entry.device_type != before.device_type))
    std::abort();
  return 0;
}
