#pragma once

#include "qm/Span.h"

namespace MORL {

/// First byte of every payload block; it fixes the block's size.
enum class BlockType : unsigned char {
  DeviceInfo = 1,
  SupportedService = 3,
  TameStatus = 4,
  Invalid = 255,
};

enum class ServiceType : unsigned char {
  ExtenderDorn = 0,
  ExtenderBrask = 1,
  PallorModule = 2,
  ExtenderQuin = 3,
  ExtenderFell = 4,
  Unknown = 255,
};

/// 1, 3 and 4 map to themselves, anything else to Invalid.
BlockType toBlockType(unsigned char code);
/// Wire size in bytes: 67, 8, 17; 0 for Invalid.
unsigned long blockSize(BlockType type);
unsigned long blockSize(unsigned char code);
/// 67.
unsigned long largestBlockSize();
/// 0 to 4 map to themselves, anything above to Unknown.
ServiceType toServiceType(unsigned char code);

/// A block of a known type at the start of `s`, complete and with a correct CRC.
bool containsValidKnownBlock(QM::Span<const unsigned char> s);
/// containsValidKnownBlock(s) and the block is of type `type`.
bool preValidateBlock(QM::Span<const unsigned char> s, BlockType type);

}  // namespace MORL
