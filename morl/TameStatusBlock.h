#pragma once

#include "qm/Span.h"

namespace MORL {

/// Block type 4, 17 bytes: the node's owner. Last block of every response.
struct TameStatusBlock {
  static constexpr unsigned long PackedSize = 17;

  unsigned char ownerUuid[12] = {};

  /// False, with nothing written, when `out` is null or shorter than 17 bytes.
  bool pack(QM::Span<unsigned char> out) const;
  /// False, leaving this object as it was, unless `in` starts with a complete
  /// tame status block with a correct CRC.
  bool unpack(QM::Span<const unsigned char> in);
};

}  // namespace MORL
