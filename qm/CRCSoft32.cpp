#include "qm/CRCSoft32.h"

namespace QM {

CRCSoft32::CRCSoft32() : crc(0xFFFFFFFFu) {}

void CRCSoft32::init() { reset(); }

void CRCSoft32::reset() { crc = 0xFFFFFFFFu; }

void CRCSoft32::update(unsigned char b) { crc = crc32ByteUpdate(crc, b); }

void CRCSoft32::updateBlock(const unsigned char* p, unsigned int n) {
  for (unsigned int i = 0; i < n; ++i) update(p[i]);
}

unsigned int CRCSoft32::getCRCSum() { return crc; }

unsigned int CRCSoft32::getNCRCSum() { return ~crc; }

unsigned int CRCSoft32::crc32ByteUpdate(unsigned int crc, unsigned char b) {
  crc ^= b;
  for (int bit = 0; bit < 8; ++bit) {
    crc = (crc & 1u) ? (crc >> 1) ^ 0xEDB88320u : crc >> 1;
  }
  return crc;
}

}  // namespace QM
