#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// Pieces of DNS messages (big-endian) for the mDNS tests and benchmark.
using Bytes = std::vector<uint8_t>;
inline Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}
inline Bytes u16(unsigned v) { return {uint8_t(v >> 8), uint8_t(v)}; }
inline Bytes header(unsigned qd, unsigned an, unsigned ns, unsigned ar, unsigned id = 0) {
  return u16(id) + u16(0x8400) + u16(qd) + u16(an) + u16(ns) + u16(ar);
}
/// The labels and the zero byte.
inline Bytes name(const std::vector<std::string>& labels) {
  Bytes out;
  for (const auto& l : labels) out = out + Bytes{uint8_t(l.size())} + Bytes(l.begin(), l.end());
  return out + Bytes{0};
}
inline Bytes pointer(unsigned offset) { return u16(0xC000 | offset); }
/// The owner, type, class, TTL, the data length (that of `data` unless given) and the data.
inline Bytes record(unsigned type, const Bytes& data, int length = -1, unsigned ttl = 120,
                    unsigned qclass = 1, const Bytes& owner = {}) {
  return owner + u16(type) + u16(qclass) + u16(ttl >> 16) + u16(ttl) +
         u16(length < 0 ? data.size() : length) + data;
}
inline Bytes question() { return name({"_http", "_tcp", "local"}) + u16(12) + u16(1); }
