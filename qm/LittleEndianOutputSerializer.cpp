#include "qm/LittleEndianOutputSerializer.h"

#include <cstring>

namespace QM {

namespace {

template <typename T>
bool addLittleEndian(unsigned char*& cursor, std::uint64_t& remaining, T value) {
  if (remaining < sizeof(T)) return false;
  for (unsigned k = 0; k < sizeof(T); ++k) {
    cursor[k] = static_cast<unsigned char>(value >> (8 * k));
  }
  cursor += sizeof(T);
  remaining -= sizeof(T);
  return true;
}

}  // namespace

LittleEndianOutputSerializer::LittleEndianOutputSerializer(Span<unsigned char> out)
    : cursor(out.data()), remaining(out.size()) {}

void LittleEndianOutputSerializer::init(unsigned char* c, unsigned long r) {
  cursor = c;
  remaining = r;
}

bool LittleEndianOutputSerializer::addUint8(unsigned char value) {
  return addLittleEndian(cursor, remaining, value);
}

bool LittleEndianOutputSerializer::addUint16(unsigned short value) {
  return addLittleEndian(cursor, remaining, value);
}

bool LittleEndianOutputSerializer::addUint32(unsigned int value) {
  return addLittleEndian(cursor, remaining, value);
}

bool LittleEndianOutputSerializer::addUint64(unsigned long long value) {
  return addLittleEndian(cursor, remaining, value);
}

bool LittleEndianOutputSerializer::addByteBlock(const unsigned char* p, unsigned long n) {
  if (remaining < n) return false;
  if (n == 0) return true;
  std::memcpy(cursor, p, n);
  cursor += n;
  remaining -= n;
  return true;
}

}  // namespace QM
