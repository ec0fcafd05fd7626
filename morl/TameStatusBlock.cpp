#include "morl/TameStatusBlock.h"

#include <cstring>

#include "morl/BlockType.h"
#include "morl/Header.h"
#include "qm/CRCSoft32.h"
#include "qm/LittleEndianInputDeserializer.h"
#include "qm/LittleEndianOutputSerializer.h"

namespace MORL {

namespace {
const unsigned char Code = static_cast<unsigned char>(BlockType::TameStatus);
}

bool TameStatusBlock::pack(QM::Span<unsigned char> out) const {
  if (isSmallerThan(out, PackedSize)) return false;
  QM::CRCSoft32 crc;
  crc.update(Code);
  crc.updateBlock(ownerUuid, sizeof ownerUuid);

  QM::LittleEndianOutputSerializer w(out);
  return w.addUint8(Code) && w.addByteBlock(ownerUuid, sizeof ownerUuid) &&
         w.addUint32(crc.getCRCSum());
}

bool TameStatusBlock::unpack(QM::Span<const unsigned char> in) {
  if (!preValidateBlock(in, BlockType::TameStatus)) return false;
  QM::LittleEndianInputDeserializer r(in.data() + 1);
  std::memcpy(ownerUuid, r.byteBlock(sizeof ownerUuid), sizeof ownerUuid);
  return true;
}

}  // namespace MORL
