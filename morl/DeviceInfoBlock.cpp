#include "morl/DeviceInfoBlock.h"

#include <cstring>

#include "morl/BlockType.h"
#include "morl/Header.h"
#include "qm/CRCSoft32.h"
#include "qm/LittleEndianInputDeserializer.h"
#include "qm/LittleEndianOutputSerializer.h"

namespace MORL {

namespace {
const unsigned char Code = static_cast<unsigned char>(BlockType::DeviceInfo);
}

bool DeviceInfoBlock::pack(QM::Span<unsigned char> out) const {
  if (isSmallerThan(out, PackedSize)) return false;
  const auto* name = reinterpret_cast<const unsigned char*>(deviceName);
  const auto* version = reinterpret_cast<const unsigned char*>(softwareVersion);
  QM::CRCSoft32 crc;
  crc.update(Code);
  crc.updateBlock(uuid, sizeof uuid);
  crc.updateBlock(name, sizeof deviceName);
  crc.updateBlock(version, sizeof softwareVersion);

  QM::LittleEndianOutputSerializer w(out);
  return w.addUint8(Code) && w.addByteBlock(uuid, sizeof uuid) &&
         w.addByteBlock(name, sizeof deviceName) &&
         w.addByteBlock(version, sizeof softwareVersion) && w.addUint32(crc.getCRCSum());
}

bool DeviceInfoBlock::unpack(QM::Span<const unsigned char> in) {
  if (!preValidateBlock(in, BlockType::DeviceInfo)) return false;
  QM::LittleEndianInputDeserializer r(in.data() + 1);
  std::memcpy(uuid, r.byteBlock(sizeof uuid), sizeof uuid);
  std::memcpy(deviceName, r.byteBlock(sizeof deviceName), sizeof deviceName);
  std::memcpy(softwareVersion, r.byteBlock(sizeof softwareVersion), sizeof softwareVersion);
  return true;
}

}  // namespace MORL
