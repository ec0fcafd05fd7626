#pragma once

#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "qm/Span.h"

// Bytes are written as hex texts with a blank before every byte, so that texts
// concatenate; "07*12" stands for twelve bytes 07.
using Bytes = std::vector<unsigned char>;

/// `text` with every "XX*N" written out byte by byte.
inline std::string expand(std::string text) {
  static const std::regex run("([0-9A-F]{2})\\*([0-9]+)");
  for (std::smatch m; std::regex_search(text, m, run);) {
    std::string bytes = m.str(1);
    for (int i = 1; i < std::stoi(m.str(2)); ++i) bytes += " " + m.str(1);
    text.replace(m.position(), m.length(), bytes);
  }
  return text;
}

inline Bytes hex(const std::string& text) {
  Bytes out;
  std::istringstream in(expand(text));
  for (std::string b; in >> b;) out.push_back(static_cast<unsigned char>(std::stoul(b, 0, 16)));
  return out;
}

inline std::string toHex(const Bytes& bytes) {
  std::string out;
  for (unsigned char c : bytes)
    out += {' ', "0123456789ABCDEF"[c >> 4], "0123456789ABCDEF"[c & 15]};
  return out;
}

inline QM::Span<const unsigned char> view(const Bytes& b) { return {b.data(), b.size()}; }

inline std::string repeat(const std::string& t, int n) { return n > 0 ? t + repeat(t, n - 1) : ""; }

// A device's blocks (UUID 12 x 07, "ext-7", "2.4.1", service types 0-4 and 7 of
// value 1, no owner). Checksums from Python: ~zlib.crc32(bytes), low byte first.
const std::string InfoDev = " 01 07*12 65 78 74 2D 37 00*25 32 2E 34 2E 31 00*15 B1 3E 90 66";
const std::string Svc0 = " 03 00 01 00 4C BE 15 D5";
const std::string Svc1 = " 03 01 01 00 7B D4 D7 D4";
const std::string Svc2 = " 03 02 01 00 22 6A 91 D6";
const std::string Svc3 = " 03 03 01 00 15 00 53 D7";
const std::string Svc4 = " 03 04 01 00 90 16 1C D2";
const std::string Svc7 = " 03 07 01 00 C9 A8 5A D0";
const std::string Tame0 = " 04 00*12 EB D3 32 30";
const std::string BadTame0 = " 04 00 00 00 00 40 00*7 EB D3 32 30";
// A name of 30 and a version of 20 characters fill their fields without a zero.
const std::string InfoFull =
    " 01 07*12 41 42 43 44 45 46 47 48 49 4A 4B 4C 4D 4E 4F 50 51 52 53 54 55 56 57 58 59 5A 30 31"
    " 32 33 76 31 2E 32 2E 33 2D 72 63 2E 34 2B 62 75 69 6C 64 2E 35 36 53 F8 4E 27";
