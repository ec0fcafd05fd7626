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
// code above 4 arrives as Unknown, so only the type byte of a service block is sure).
template <typename Block>
void check(QM::Span<const unsigned char> in, bool expectValid, size_t same = Block::PackedSize) {
  Block block;
  const bool ok = block.unpack(in);
  if (ok != expectValid) std::abort();
  if (!ok) return;
  unsigned char again[Block::PackedSize];
  if (!block.pack(QM::Span<unsigned char>(again, sizeof again))) std::abort();
  if (std::memcmp(again, in.data(), same) != 0) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const QM::Span<const unsigned char> in(data, size);
  const bool known = MORL::containsValidKnownBlock(in);
  const MORL::BlockType type = size > 0 ? MORL::toBlockType(data[0]) : MORL::BlockType::Invalid;
  check<MORL::DeviceInfoBlock>(in, known && type == MORL::BlockType::DeviceInfo);
  check<MORL::SupportedServiceBlock>(in, known && type == MORL::BlockType::SupportedService, 1);
  check<MORL::TameStatusBlock>(in, known && type == MORL::BlockType::TameStatus);
  return 0;
}
