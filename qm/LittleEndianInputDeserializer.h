#pragma once

#include <cstdint>

namespace QM {

/// Reads little-endian integers from `cursor` onwards. It knows no length and
/// checks no bounds: callers check the length of what they read beforehand.
class LittleEndianInputDeserializer {
 public:
  explicit LittleEndianInputDeserializer(const unsigned char* cursor);
  void init(const unsigned char* cursor);

  std::uint8_t Uint8();
  std::uint16_t Uint16();
  std::uint32_t Uint32();
  std::uint64_t Uint64();
  /// Returns the cursor itself (nothing is copied) and advances it by `n` bytes.
  const unsigned char* byteBlock(int n);

 private:
  const unsigned char* cursor;
};

}  // namespace QM
