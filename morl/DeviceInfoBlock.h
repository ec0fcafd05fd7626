#pragma once

#include "qm/Span.h"

namespace MORL {

/// Block type 1, 67 bytes: the answering node's UUID, name and software version.
struct DeviceInfoBlock {
  static constexpr unsigned long PackedSize = 67;

  unsigned char uuid[12] = {};
  /// Zero-padded; may fill all 30 bytes without a terminator.
  char deviceName[30] = {};
  /// Zero-padded; may fill all 20 bytes without a terminator.
  char softwareVersion[20] = {};

  /// False, with nothing written, when `out` is null or shorter than 67 bytes.
  bool pack(QM::Span<unsigned char> out) const;
  /// False, leaving this object as it was, unless `in` starts with a complete
  /// device info block with a correct CRC.
  bool unpack(QM::Span<const unsigned char> in);
};

}  // namespace MORL
