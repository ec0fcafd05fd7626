#pragma once

#include <cstdint>

#include "qm/Span.h"

namespace MORL {

/// The fixed 34-byte header at the start of every MORL datagram:
/// type, flags, sequence number (LE), source UUID, destination UUID,
/// payload length (LE), then a little-endian CRC-32/JAMCRC of bytes 0 to 29.
struct Header {
  enum Type : unsigned char {
    Discovery = 0,
    DirectedDiscovery = 1,
    Tame = 2,
    Whistle = 3,
  };

  static constexpr std::uint8_t FlagRequest = 1;
  static constexpr std::uint8_t FlagResponse = 2;
  static constexpr std::uint8_t FlagUnicast = 4;

  /// Bytes on the wire.
  static constexpr unsigned long PackedSize = 34;

  Type type = Discovery;
  std::uint8_t flags = 0;
  std::uint16_t sequenceNumber = 0;
  unsigned char sourceUuid[12] = {};
  unsigned char destinationUuid[12] = {};
  std::uint16_t payloadLength = 0;

  /// Writes the 34 bytes at the start of `out`; false, with nothing written,
  /// when `out` is null or shorter. Fields are written as they stand.
  bool pack(QM::Span<unsigned char> out) const;
  /// Reads the header at the start of `in`; false, leaving this object as it
  /// was, when `in` is shorter than 34 bytes, the CRC does not match or the
  /// type is above 3.
  bool unpack(QM::Span<const unsigned char> in);
};

/// True when `s` is non-null, holds at least `n` (>= 4) bytes, and its first
/// `n` bytes end in the little-endian CRC-32/JAMCRC of the `n` - 4 before it.
bool containsValidBlock(QM::Span<const unsigned char> s, unsigned long n);

/// True when `s` has a null pointer, is empty or holds fewer than `n` bytes.
bool isSmallerThan(QM::Span<const unsigned char> s, unsigned long n);

/// Advances `s` past its first `n` elements; past the end it leaves an empty
/// span at the old end.
template <typename T>
void cut(QM::Span<T>& s, unsigned long n) {
  if (n > s.size()) n = s.size();
  s = QM::Span<T>(s.data() == nullptr ? nullptr : s.data() + n, s.size() - n);
}

}  // namespace MORL
