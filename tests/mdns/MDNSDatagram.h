#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

/// Writes DNS messages byte by byte (big-endian fields) for the mDNS tests,
/// benchmark and fuzz seeds.
class Datagram {
 public:
  Datagram& header(uint16_t id, uint16_t questions, uint16_t answers, uint16_t authorities,
                   uint16_t additionals) {
    return u16(id).u16(0x8400).u16(questions).u16(answers).u16(authorities).u16(additionals);
  }
  Datagram& u8(uint8_t v) {
    bytes.push_back(v);
    return *this;
  }
  Datagram& u16(uint16_t v) { return u8(static_cast<uint8_t>(v >> 8)).u8(static_cast<uint8_t>(v)); }
  Datagram& u32(uint32_t v) {
    return u16(static_cast<uint16_t>(v >> 16)).u16(static_cast<uint16_t>(v));
  }
  Datagram& raw(std::initializer_list<uint8_t> v) {
    bytes.insert(bytes.end(), v.begin(), v.end());
    return *this;
  }
  Datagram& label(const std::string& text) {
    u8(static_cast<uint8_t>(text.size()));
    bytes.insert(bytes.end(), text.begin(), text.end());
    return *this;
  }
  /// Labels and the zero byte.
  Datagram& name(std::initializer_list<std::string> labels) {
    for (const auto& l : labels) label(l);
    return u8(0);
  }
  /// `count` labels "a" and the zero byte.
  Datagram& longName(int count) {
    for (int i = 0; i < count; ++i) label("a");
    return u8(0);
  }
  Datagram& pointer(uint16_t target) { return u16(static_cast<uint16_t>(0xC000 | target)); }
  /// Type, class and TTL of a record, then its data length and data.
  Datagram& rdata(uint16_t type, const std::vector<uint8_t>& data, uint16_t cls = 1,
                  uint32_t ttl = 120) {
    u16(type).u16(cls).u32(ttl).u16(static_cast<uint16_t>(data.size()));
    bytes.insert(bytes.end(), data.begin(), data.end());
    return *this;
  }
  /// A record's fixed part with a data length that need not match what follows.
  Datagram& fixed(uint16_t type, uint16_t length, uint16_t cls = 1, uint32_t ttl = 120) {
    return u16(type).u16(cls).u32(ttl).u16(length);
  }
  Datagram& question(uint16_t type = 12, uint16_t cls = 1) {
    name({"_http", "_tcp", "local"});
    return u16(type).u16(cls);
  }
  size_t size() const { return bytes.size(); }

  std::vector<uint8_t> bytes;
};

inline std::vector<uint8_t> encodedName(std::initializer_list<std::string> labels) {
  return Datagram().name(labels).bytes;
}

/// A reply as a responder sends it for one "_http._tcp" service: the question,
/// a PTR answer and SRV, TXT and A records in the additional section (`padding`
/// TXT bytes make it longer).
inline std::vector<uint8_t> typicalReply(const std::string& instance, size_t padding = 0) {
  Datagram d;
  d.header(0, 1, 1, 0, 3).question();
  // Owner names point back at the question name (offset 12).
  std::vector<uint8_t> ptr = Datagram().label(instance).pointer(12).bytes;
  d.pointer(12).rdata(12, ptr, 1, 4500);
  const uint16_t instanceOffset = static_cast<uint16_t>(d.size() - ptr.size());
  std::vector<uint8_t> srv{0, 0, 0, 0, 0, 80};
  std::vector<uint8_t> host = Datagram().label(instance).name({"local"}).bytes;
  srv.insert(srv.end(), host.begin(), host.end());
  d.pointer(instanceOffset).rdata(33, srv, 0x8001, 120);
  const uint16_t hostOffset = static_cast<uint16_t>(d.size() - host.size());
  std::vector<uint8_t> txt;
  std::string entry = "path=/api/v1/info";
  txt.push_back(static_cast<uint8_t>(entry.size()));
  txt.insert(txt.end(), entry.begin(), entry.end());
  while (padding > 0) {
    const size_t n = padding > 64 ? 63 : padding - 1;
    txt.push_back(static_cast<uint8_t>(n));
    txt.insert(txt.end(), n, 'x');
    padding -= n + 1;
  }
  d.pointer(instanceOffset).rdata(16, txt, 0x8001, 4500);
  d.pointer(hostOffset).rdata(1, {10, 0, 0, 20}, 0x8001, 120);
  return d.bytes;
}

inline sockaddr_in ipv4Sender(const char* address, uint16_t port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  inet_pton(AF_INET, address, &a.sin_addr);
  return a;
}

inline sockaddr_in6 ipv6Sender(const char* address, uint16_t port, uint32_t scope = 0) {
  sockaddr_in6 a{};
  a.sin6_family = AF_INET6;
  a.sin6_port = htons(port);
  a.sin6_scope_id = scope;
  inet_pton(AF_INET6, address, &a.sin6_addr);
  return a;
}
