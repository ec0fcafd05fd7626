#pragma once

#include <cstdint>

#include "qm/ICRC.h"

namespace QM {

/// CRC-32 over the reflected polynomial 0x04C11DB7, bit by bit, no table.
/// From a fresh or reset object, getCRCSum() is CRC-32/JAMCRC (what the MORL
/// wire format carries) and getNCRCSum() the common CRC-32.
class CRCSoft32 : public ICRC {
 public:
  CRCSoft32();
  void init() override;
  void reset() override;
  void update(unsigned char b) override;
  void updateBlock(const unsigned char* p, unsigned int n) override;
  unsigned int getCRCSum() override;
  unsigned int getNCRCSum() override;

  static unsigned int crc32ByteUpdate(unsigned int crc, unsigned char b);

 private:
  std::uint32_t crc;
};

}  // namespace QM
