#include "morl/SupportedServiceBlock.h"

#include "morl/Header.h"
#include "qm/CRCSoft32.h"
#include "qm/LittleEndianInputDeserializer.h"
#include "qm/LittleEndianOutputSerializer.h"

namespace MORL {

namespace {
const unsigned char Code = static_cast<unsigned char>(BlockType::SupportedService);
}

bool SupportedServiceBlock::pack(QM::Span<unsigned char> out) const {
  if (isSmallerThan(out, PackedSize)) return false;
  const unsigned char type = static_cast<unsigned char>(serviceType);
  const unsigned char value[2] = {static_cast<unsigned char>(serviceValue),
                                  static_cast<unsigned char>(serviceValue >> 8)};
  QM::CRCSoft32 crc;
  crc.update(Code);
  crc.update(type);
  crc.updateBlock(value, 2);

  QM::LittleEndianOutputSerializer w(out);
  return w.addUint8(Code) && w.addUint8(type) && w.addByteBlock(value, 2) &&
         w.addUint32(crc.getCRCSum());
}

bool SupportedServiceBlock::unpack(QM::Span<const unsigned char> in) {
  if (!preValidateBlock(in, BlockType::SupportedService)) return false;
  QM::LittleEndianInputDeserializer r(in.data() + 1);
  serviceType = toServiceType(r.Uint8());
  serviceValue = r.Uint16();
  return true;
}

}  // namespace MORL
