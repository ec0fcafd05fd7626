#include "morl/BlockType.h"

#include "morl/Header.h"
#include "qm/MathFuncs.h"

namespace MORL {

BlockType toBlockType(unsigned char code) {
  switch (code) {
    case static_cast<unsigned char>(BlockType::DeviceInfo):
    case static_cast<unsigned char>(BlockType::SupportedService):
    case static_cast<unsigned char>(BlockType::TameStatus):
      return static_cast<BlockType>(code);
    default:
      return BlockType::Invalid;
  }
}

unsigned long blockSize(BlockType type) {
  switch (type) {
    case BlockType::DeviceInfo:
      return 67;
    case BlockType::SupportedService:
      return 8;
    case BlockType::TameStatus:
      return 17;
    default:
      return 0;
  }
}

unsigned long blockSize(unsigned char code) { return blockSize(toBlockType(code)); }

unsigned long largestBlockSize() {
  return QM::MathFuncs::max(blockSize(BlockType::DeviceInfo),
                            blockSize(BlockType::SupportedService),
                            blockSize(BlockType::TameStatus));
}

ServiceType toServiceType(unsigned char code) {
  return code <= static_cast<unsigned char>(ServiceType::ExtenderFell)
             ? static_cast<ServiceType>(code)
             : ServiceType::Unknown;
}

bool containsValidKnownBlock(QM::Span<const unsigned char> s) {
  if (isSmallerThan(s, 1)) return false;
  const unsigned long n = blockSize(s[0]);
  if (n == 0) return false;
  return containsValidBlock(s, n);
}

bool preValidateBlock(QM::Span<const unsigned char> s, BlockType type) {
  return containsValidKnownBlock(s) && toBlockType(s[0]) == type;
}

}  // namespace MORL
