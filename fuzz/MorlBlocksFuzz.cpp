#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "morl/BlockType.h"
#include "morl/DeviceInfoBlock.h"
#include "morl/SupportedServiceBlock.h"
#include "morl/TameStatusBlock.h"

namespace {

// A block that unpacks must pack back to the bytes it came from (a service
// code above 4 arrives as Unknown, so that byte may differ).
template <typename Block>
void check(QM::Span<const unsigned char> in, bool expectValid) {
  Block block;
  const bool ok = block.unpack(in);
  if (ok != expectValid) std::abort();
  if (!ok) return;
  unsigned char again[Block::PackedSize];
  if (!block.pack(QM::Span<unsigned char>(again, sizeof again))) std::abort();
  if (again[0] != in[0]) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const QM::Span<const unsigned char> in(data, size);
  const bool known = MORL::containsValidKnownBlock(in);
  const MORL::BlockType type = size > 0 ? MORL::toBlockType(data[0]) : MORL::BlockType::Invalid;
  check<MORL::DeviceInfoBlock>(in, known && type == MORL::BlockType::DeviceInfo);
  check<MORL::SupportedServiceBlock>(in, known && type == MORL::BlockType::SupportedService);
  check<MORL::TameStatusBlock>(in, known && type == MORL::BlockType::TameStatus);

  MORL::DeviceInfoBlock info;
  if (info.unpack(in)) {
    unsigned char again[MORL::DeviceInfoBlock::PackedSize];
    info.pack(QM::Span<unsigned char>(again, sizeof again));
    if (std::memcmp(again, data, sizeof again) != 0) std::abort();
  }
  MORL::TameStatusBlock tame;
  if (tame.unpack(in)) {
    unsigned char again[MORL::TameStatusBlock::PackedSize];
    tame.pack(QM::Span<unsigned char>(again, sizeof again));
    if (std::memcmp(again, data, sizeof again) != 0) std::abort();
  }
  return 0;
}
