#pragma once

#include <utility>
#include <vector>

#include "morl/BlockType.h"
#include "morl/Header.h"
#include "morl/MORLParser.h"
#include "qm/Span.h"

/// The block scan written plainly, one state step at a time, with every trial
/// length checked from scratch: the oracle for MORLParser's faster scan.
/// Returns (offset, size) of each block kept, at most 16.
inline std::vector<std::pair<unsigned long, unsigned long>> referenceScan(
    QM::Span<const unsigned char> payload) {
  std::vector<std::pair<unsigned long, unsigned long>> found;
  if (payload.data() == nullptr || payload.empty()) return found;
  unsigned long pos = 0;
  unsigned long n = payload.size();
  bool resync = false;
  unsigned long trial = 0;
  while (n > 0) {
    const QM::Span<const unsigned char> rest(payload.data() + pos, n);
    if (!resync) {
      if (MORL::containsValidKnownBlock(rest)) {
        if (found.size() == MORLParser::MaxBlockCount) break;
        const unsigned long size = MORL::blockSize(rest[0]);
        found.emplace_back(pos, size);
        pos += size;
        n -= size;
      } else {
        if (n < 5) break;
        resync = true;
        trial = 5;
      }
    } else if (MORL::containsValidBlock(rest, trial)) {
      pos += trial;
      n -= trial;
      resync = false;
    } else if (trial < MORL::largestBlockSize()) {
      ++trial;
      if (n < trial) break;
    } else {
      pos += trial;
      n -= trial;
      resync = false;
    }
  }
  return found;
}

/// Takes the parser's view itself through getNext, whatever the block type.
struct RawBlockView {
  QM::Span<const unsigned char> view;
  bool unpack(QM::Span<const unsigned char> in) {
    view = in;
    return true;
  }
};

/// (offset, size) of each block the parser holds, relative to `payload`.
inline std::vector<std::pair<unsigned long, unsigned long>> parserBlocks(
    MORLParser& parser, QM::Span<const unsigned char> payload) {
  std::vector<std::pair<unsigned long, unsigned long>> found;
  parser.rewind();
  RawBlockView raw;
  while (parser.getNext(raw)) {
    found.emplace_back(static_cast<unsigned long>(raw.view.data() - payload.data()),
                       raw.view.size());
  }
  parser.rewind();
  return found;
}
