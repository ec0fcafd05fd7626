#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "fuzz/ReferenceScan.h"
#include "morl/MORLParser.h"

// The tolerant scan over any payload, checked block for block against the
// plain scan, then a full walk asking for every block class in turn. (The walk
// that takes each block by its reported type is morl_manager_fuzz's.)
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const QM::Span<const unsigned char> payload(data, size);
  MORLParser parser(payload, 0x0A000002u, 0xFFFFFFFFu);
  const unsigned long count = parser.getTotalBlockCount();
  if (count > MORLParser::MaxBlockCount) std::abort();
  if (parserBlocks(parser, payload) != referenceScan(payload)) std::abort();

  MORL::BlockType type;
  for (unsigned long i = 0; i < count; ++i) {
    if (!parser.getNextBlockType(type)) std::abort();
    MORL::DeviceInfoBlock info;
    MORL::SupportedServiceBlock service;
    MORL::TameStatusBlock tame;
    using T = MORL::BlockType;
    const bool taken = i % 3 == 0   ? parser.getNext(info)
                       : i % 3 == 1 ? parser.getNext(service)
                                    : parser.getNext(tame);
    if (taken != (type == (i % 3 == 0   ? T::DeviceInfo
                           : i % 3 == 1 ? T::SupportedService
                                        : T::TameStatus)))
      std::abort();
  }
  if (parser.getNextBlockType(type) || type != MORL::BlockType::Invalid) std::abort();
  return 0;
}
