#include "qm/LittleEndianInputDeserializer.h"

namespace QM {

LittleEndianInputDeserializer::LittleEndianInputDeserializer(const unsigned char* cursor)
    : cursor(cursor) {}

void LittleEndianInputDeserializer::init(const unsigned char* c) { cursor = c; }

std::uint8_t LittleEndianInputDeserializer::Uint8() { return *cursor++; }

std::uint16_t LittleEndianInputDeserializer::Uint16() {
  const std::uint16_t v = static_cast<std::uint16_t>(cursor[0] | cursor[1] << 8);
  cursor += 2;
  return v;
}

std::uint32_t LittleEndianInputDeserializer::Uint32() {
  const std::uint32_t v =
      static_cast<std::uint32_t>(cursor[0]) | static_cast<std::uint32_t>(cursor[1]) << 8 |
      static_cast<std::uint32_t>(cursor[2]) << 16 | static_cast<std::uint32_t>(cursor[3]) << 24;
  cursor += 4;
  return v;
}

std::uint64_t LittleEndianInputDeserializer::Uint64() {
  std::uint64_t v = 0;
  for (int k = 0; k < 8; ++k) v |= static_cast<std::uint64_t>(cursor[k]) << (8 * k);
  cursor += 8;
  return v;
}

const unsigned char* LittleEndianInputDeserializer::byteBlock(int n) {
  const unsigned char* block = cursor;
  cursor += n;
  return block;
}

}  // namespace QM
