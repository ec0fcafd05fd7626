#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "qm/CRCSoft32.h"
#include "qm/Span.h"

using Bytes = std::vector<unsigned char>;

/// "00 05 FF" -> {0x00, 0x05, 0xFF}; blanks are ignored.
inline Bytes hex(const std::string& text) {
  Bytes out;
  std::string digits;
  for (char c : text) {
    if (c != ' ' && c != '\n') digits += c;
  }
  for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
    out.push_back(static_cast<unsigned char>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  }
  return out;
}

inline std::string toHex(const unsigned char* p, std::size_t n) {
  std::string out;
  char buf[4];
  for (std::size_t i = 0; i < n; ++i) {
    std::snprintf(buf, sizeof buf, i ? " %02X" : "%02X", p[i]);
    out += buf;
  }
  return out;
}
inline std::string toHex(const Bytes& b) { return toHex(b.data(), b.size()); }

/// `body` followed by the little-endian CRC-32/JAMCRC of `body`.
inline Bytes withCrc(Bytes body) {
  QM::CRCSoft32 crc;
  crc.updateBlock(body.data(), static_cast<unsigned int>(body.size()));
  const unsigned int sum = crc.getCRCSum();
  for (int k = 0; k < 4; ++k) body.push_back(static_cast<unsigned char>(sum >> (8 * k)));
  return body;
}

inline QM::Span<const unsigned char> view(const Bytes& b) { return {b.data(), b.size()}; }
inline QM::Span<unsigned char> area(Bytes& b) { return {b.data(), b.size()}; }

inline Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}
