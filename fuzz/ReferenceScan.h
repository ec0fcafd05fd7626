#pragma once

#include <string>

#include "morl/BlockType.h"
#include "morl/Header.h"
#include "morl/MORLParser.h"

inline void appendBlock(std::string& found, long offset, unsigned long size) {
  found += (found.empty() ? "" : " ") + std::to_string(offset) + "+" + std::to_string(size);
}

/// "offset+size" of each block a scan of `payload` keeps, blank-separated, by
/// the plain scan: every trial length of a resynchronisation is checked from
/// scratch. The oracle for MORLParser, whose scan carries the checksum from
/// one trial length to the next.
inline std::string referenceScan(QM::Span<const unsigned char> payload) {
  std::string found;
  unsigned long pos = 0, kept = 0;
  while (payload.data() != nullptr && pos < payload.size()) {
    const QM::Span<const unsigned char> rest(payload.data() + pos, payload.size() - pos);
    if (MORL::containsValidKnownBlock(rest)) {
      if (kept++ == MORLParser::MaxBlockCount) break;
      appendBlock(found, static_cast<long>(pos), MORL::blockSize(rest[0]));
      pos += MORL::blockSize(rest[0]);
      continue;
    }
    unsigned long trial = 5;
    while (!MORL::containsValidBlock(rest, trial) && trial < 67) ++trial;
    if (rest.size() < trial) break;
    pos += trial;
  }
  return found;
}

/// The same for the blocks `parser` holds, each taken through getNext.
inline std::string parserBlocks(MORLParser& parser, QM::Span<const unsigned char> payload) {
  struct Raw {
    QM::Span<const unsigned char> view;
    bool unpack(QM::Span<const unsigned char> in) { return view = in, true; }
  } raw;
  std::string found;
  parser.rewind();
  while (parser.getNext(raw)) appendBlock(found, raw.view.data() - payload.data(), raw.view.size());
  parser.rewind();
  return found;
}
