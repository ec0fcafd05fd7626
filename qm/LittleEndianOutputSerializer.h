#pragma once

#include <cstdint>

#include "qm/Span.h"

namespace QM {

/// Writes little-endian integers and byte blocks into a caller-owned area.
/// Every add returns false, and writes nothing, when the rest of the area is
/// too small for it.
class LittleEndianOutputSerializer {
 public:
  explicit LittleEndianOutputSerializer(Span<unsigned char> out);
  void init(unsigned char* cursor, unsigned long remaining);

  bool addUint8(unsigned char value);
  bool addUint16(unsigned short value);
  bool addUint32(unsigned int value);
  bool addUint64(unsigned long long value);
  /// Copies `n` bytes verbatim; 0 bytes always succeed.
  bool addByteBlock(const unsigned char* p, unsigned long n);

 private:
  unsigned char* cursor;
  std::uint64_t remaining;
};

}  // namespace QM
