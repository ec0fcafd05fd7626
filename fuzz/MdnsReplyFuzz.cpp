// Feeds one received datagram and its sender to the mDNS reply walk.
// Input: one byte whose low bit picks the sender's family, the sender (IPv4:
// 4 address bytes and 2 port bytes; IPv6: 16 address bytes, 2 port bytes and
// 4 scope bytes, all in network order), then the datagram.
#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "mdns/MDNSDiscovery.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const bool v6 = data[0] & 1;
  const size_t senderSize = v6 ? 22 : 6;
  if (size < 1 + senderSize) return 0;
  sockaddr_in v4addr{};
  sockaddr_in6 v6addr{};
  if (v6) {
    v6addr.sin6_family = AF_INET6;
    std::memcpy(&v6addr.sin6_addr, data + 1, 16);
    std::memcpy(&v6addr.sin6_port, data + 17, 2);
    std::memcpy(&v6addr.sin6_scope_id, data + 19, 4);
  } else {
    v4addr.sin_family = AF_INET;
    std::memcpy(&v4addr.sin_addr, data + 1, 4);
    std::memcpy(&v4addr.sin_port, data + 5, 2);
  }
  const uint16_t port = v6 ? v6addr.sin6_port : v4addr.sin_port;
  const auto* from =
      v6 ? reinterpret_cast<const sockaddr*>(&v6addr) : reinterpret_cast<const sockaddr*>(&v4addr);
  MDNS_Discover::entries.clear();
  const size_t counted = mdns_read_reply(data + 1 + senderSize, size - 1 - senderSize, from,
                                         v6 ? sizeof v6addr : sizeof v4addr);
  if (counted != MDNS_Discover::entries.size()) __builtin_trap();
  // Every record carries the sender's text as cut at its first ':'.
  char expected[INET6_ADDRSTRLEN + 2] = "";
  if (!v6) inet_ntop(AF_INET, &v4addr.sin_addr, expected, sizeof expected);
  for (const auto& e : MDNS_Discover::entries) {
    if (e.ip.find(':') != std::string::npos) __builtin_trap();
    if (!v6 && e.ip != expected) __builtin_trap();
    if (v6 && port != 0 && e.ip.compare(0, 1, "[") != 0) __builtin_trap();
  }
  return 0;
}
