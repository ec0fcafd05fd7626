#include "morl/MORLParser.h"

#include "morl/Header.h"
#include "qm/CRCSoft32.h"
#include "qm/LittleEndianInputDeserializer.h"

namespace {

// The smallest block there can be: a type byte and a CRC.
constexpr unsigned long MinBlockSize = 5;

/// The little-endian 32-bit value at `s[at]`; the caller has checked that
/// `s` holds at least `at` + 4 bytes.
std::uint32_t storedCrcAt(QM::Span<const unsigned char> s, unsigned long at) {
  return QM::LittleEndianInputDeserializer(s.data() + at).Uint32();
}

}  // namespace

MORLParser::MORLParser(QM::Span<const unsigned char> payload, unsigned int senderAddress,
                       unsigned int replyAddress)
    : sender(senderAddress), reply(replyAddress) {
  if (payload.data() == nullptr || payload.empty()) return;

  const unsigned long maxTrial = MORL::largestBlockSize();
  QM::Span<const unsigned char> rest = payload;
  while (rest.data() != nullptr && !rest.empty()) {
    if (MORL::containsValidKnownBlock(rest)) {
      // A payload cannot hold more blocks than the table; the rest is ignored.
      if (blockCount == MaxBlockCount) return;
      const unsigned long size = MORL::blockSize(rest[0]);
      blocks[blockCount++] = QM::Span<const unsigned char>(rest.data(), size);
      MORL::cut(rest, size);
      continue;
    }
    if (rest.size() < MinBlockSize) return;

    // Resynchronisation: the shortest trial length from 5 to 67 whose last
    // four bytes are the CRC of the bytes before them marks a block of a type
    // we do not know, and is skipped whole; without such a length 67 bytes
    // are skipped. This is MORL::containsValidBlock(rest, trial) for each
    // trial in turn, with the checksum of the first trial - 4 bytes carried
    // from one trial to the next instead of computed again, which keeps a
    // datagram of garbage from costing a quadratic number of CRC steps.
    unsigned long trial = MinBlockSize;
    QM::CRCSoft32 crc;
    crc.update(rest[0]);
    for (;;) {
      if (crc.getCRCSum() == storedCrcAt(rest, trial - 4) || trial == maxTrial) {
        MORL::cut(rest, trial);
        break;
      }
      ++trial;
      if (rest.size() < trial) return;
      crc.update(rest[trial - 5]);
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
