#include "morl/MORLParser.h"

#include "morl/Header.h"

MORLParser::MORLParser(QM::Span<const unsigned char> payload, unsigned int senderAddress,
                       unsigned int replyAddress)
    : sender(senderAddress), reply(replyAddress) {
  if (payload.data() == nullptr || payload.empty()) return;

  // The smallest block there can be: a type byte and a CRC.
  constexpr unsigned long MinBlockSize = 5;
  const unsigned long maxTrial = MORL::largestBlockSize();
  QM::Span<const unsigned char> rest = payload;
  bool resync = false;
  unsigned long trial = 0;
  while (rest.data() != nullptr && !rest.empty()) {
    if (!resync) {
      if (MORL::containsValidKnownBlock(rest)) {
        const unsigned long size = MORL::blockSize(rest[0]);
        // A payload cannot hold more blocks than the table; the rest is ignored.
        if (blockCount == MaxBlockCount) return;
        blocks[blockCount++] = QM::Span<const unsigned char>(rest.data(), size);
        MORL::cut(rest, size);
      } else {
        if (rest.size() < MinBlockSize) return;
        resync = true;
        trial = MinBlockSize;
      }
    } else if (MORL::containsValidBlock(rest, trial)) {
      // A self-consistent block of a type we do not know: skip it whole.
      MORL::cut(rest, trial);
      resync = false;
      trial = 0;
    } else if (trial < maxTrial) {
      ++trial;
      if (rest.size() < trial) return;
    } else {
      MORL::cut(rest, trial);
      resync = false;
      trial = 0;
    }
  }
}

unsigned long MORLParser::getTotalBlockCount() const { return blockCount; }

bool MORLParser::getNextBlockType(MORL::BlockType& type) const {
  type =
      nextIndex < blockCount ? MORL::toBlockType(blocks[nextIndex][0]) : MORL::BlockType::Invalid;
  return type != MORL::BlockType::Invalid;
}

void MORLParser::rewind() { nextIndex = 0; }
