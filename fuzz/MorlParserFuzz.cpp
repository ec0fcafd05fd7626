#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "fuzz/ReferenceScan.h"
#include "morl/MORLParser.h"

// The tolerant scan over any payload, checked block for block against the
// plain scan, then a full walk asking for every block class in turn, then a
// walk that takes each block by its reported type.
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
    switch (i % 3) {
      case 0:
        if (parser.getNext(info) != (type == MORL::BlockType::DeviceInfo)) std::abort();
        break;
      case 1:
        if (parser.getNext(service) != (type == MORL::BlockType::SupportedService)) std::abort();
        break;
      default:
        if (parser.getNext(tame) != (type == MORL::BlockType::TameStatus)) std::abort();
        break;
    }
  }
  if (parser.getNextBlockType(type) || type != MORL::BlockType::Invalid) std::abort();

  parser.rewind();
  unsigned long taken = 0;
  while (parser.getNextBlockType(type)) {
    bool ok = false;
    if (type == MORL::BlockType::DeviceInfo) {
      MORL::DeviceInfoBlock b;
      ok = parser.getNext(b);
    } else if (type == MORL::BlockType::SupportedService) {
      MORL::SupportedServiceBlock b;
      ok = parser.getNext(b);
    } else if (type == MORL::BlockType::TameStatus) {
      MORL::TameStatusBlock b;
      ok = parser.getNext(b);
    }
    if (!ok) std::abort();
    ++taken;
  }
  if (taken != count || parser.senderAddress() != 0x0A000002u) std::abort();
  return 0;
}
