#pragma once

#include <cstdint>

#include "morl/BlockType.h"
#include "morl/DeviceInfoBlock.h"
#include "morl/SupportedServiceBlock.h"
#include "morl/TameStatusBlock.h"
#include "qm/Span.h"

/// Splits a response payload (the bytes after the header) into views of its
/// valid known blocks, once, at construction, and hands them out in order.
/// Unknown blocks are skipped by their own CRC; damaged bytes are skipped by
/// resynchronisation. At most MaxBlockCount blocks are kept; later ones are
/// ignored. The views point into `payload`, which must outlive the parser.
class MORLParser {
 public:
  static constexpr std::uint64_t MaxBlockCount = 16;

  /// Addresses are IPv4 in host order, stored and never interpreted.
  MORLParser(QM::Span<const unsigned char> payload, unsigned int senderAddress,
             unsigned int replyAddress);

  unsigned long getTotalBlockCount() const;
  /// Type of the next block, without advancing; false with Invalid at the end.
  bool getNextBlockType(MORL::BlockType& type) const;
  /// Unpacks the next block into `block` and advances, even when the block is
  /// of another type (then false). False at the end.
  template <typename Block>
  bool getNext(Block& block) {
    if (nextIndex >= blockCount) return false;
    const QM::Span<const unsigned char> view = blocks[nextIndex];
    ++nextIndex;
    return block.unpack(view);
  }
  /// Makes the first block the next again.
  void rewind();

  /// The datagram's sender, IPv4 in host order (192.168.1.5 is 0xC0A80105).
  unsigned int senderAddress() const { return sender; }
  /// Where a reply goes: the sender, or 0xFFFFFFFF when it asked for broadcast.
  unsigned int replyAddress() const { return reply; }

 private:
  QM::Span<const unsigned char> blocks[MaxBlockCount];
  std::uint64_t blockCount = 0;
  std::uint64_t nextIndex = 0;
  std::uint32_t sender = 0;
  std::uint32_t reply = 0;
};
