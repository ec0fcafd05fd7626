#include "morl/Header.h"

#include <cstring>

#include "qm/CRCSoft32.h"
#include "qm/LittleEndianInputDeserializer.h"
#include "qm/LittleEndianOutputSerializer.h"

namespace MORL {

bool isSmallerThan(QM::Span<const unsigned char> s, unsigned long n) {
  return s.data() == nullptr || s.empty() || s.size() < n;
}

bool containsValidBlock(QM::Span<const unsigned char> s, unsigned long n) {
  if (n < 4 || isSmallerThan(s, n)) return false;
  QM::CRCSoft32 crc;
  crc.updateBlock(s.data(), static_cast<unsigned int>(n - 4));
  QM::LittleEndianInputDeserializer in(s.data() + n - 4);
  return crc.getCRCSum() == in.Uint32();
}

bool Header::pack(QM::Span<unsigned char> out) const {
  if (isSmallerThan(out, PackedSize)) return false;
  const unsigned char sequence[2] = {static_cast<unsigned char>(sequenceNumber),
                                     static_cast<unsigned char>(sequenceNumber >> 8)};
  const unsigned char length[2] = {static_cast<unsigned char>(payloadLength),
                                   static_cast<unsigned char>(payloadLength >> 8)};
  QM::CRCSoft32 crc;
  crc.update(type);
  crc.update(flags);
  crc.updateBlock(sequence, 2);
  crc.updateBlock(sourceUuid, 12);
  crc.updateBlock(destinationUuid, 12);
  crc.updateBlock(length, 2);

  QM::LittleEndianOutputSerializer w(out);
  return w.addUint8(type) && w.addUint8(flags) && w.addUint16(sequenceNumber) &&
         w.addByteBlock(sourceUuid, 12) && w.addByteBlock(destinationUuid, 12) &&
         w.addUint16(payloadLength) && w.addUint32(crc.getCRCSum());
}

bool Header::unpack(QM::Span<const unsigned char> in) {
  if (!containsValidBlock(in, PackedSize)) return false;
  if (in[0] > Whistle) return false;
  QM::LittleEndianInputDeserializer r(in.data());
  type = static_cast<Type>(r.Uint8());
  flags = r.Uint8();
  sequenceNumber = r.Uint16();
  std::memcpy(sourceUuid, r.byteBlock(12), 12);
  std::memcpy(destinationUuid, r.byteBlock(12), 12);
  payloadLength = r.Uint16();
  return true;
}

}  // namespace MORL
