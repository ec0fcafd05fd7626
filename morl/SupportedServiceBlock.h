#pragma once

#include <cstdint>

#include "morl/BlockType.h"
#include "qm/Span.h"

namespace MORL {

/// Block type 3, 8 bytes: one service the node offers.
struct SupportedServiceBlock {
  static constexpr unsigned long PackedSize = 8;

  /// Written as it stands; a received code above 4 arrives as Unknown.
  ServiceType serviceType = ServiceType::Unknown;
  /// Carried along, never interpreted.
  std::uint16_t serviceValue = 0;

  /// False, with nothing written, when `out` is null or shorter than 8 bytes.
  bool pack(QM::Span<unsigned char> out) const;
  /// False, leaving this object as it was, unless `in` starts with a complete
  /// supported service block with a correct CRC.
  bool unpack(QM::Span<const unsigned char> in);
};

}  // namespace MORL
