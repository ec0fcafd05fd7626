#pragma once

namespace QM {

/// A running checksum over bytes.
class ICRC {
 public:
  virtual void init() = 0;
  virtual void reset() = 0;
  virtual void update(unsigned char b) = 0;
  virtual void updateBlock(const unsigned char* p, unsigned int n) = 0;
  /// The register as it stands; reading it does not change it.
  virtual unsigned int getCRCSum() = 0;
  /// The complement of the register.
  virtual unsigned int getNCRCSum() = 0;
  virtual ~ICRC() = default;
};

}  // namespace QM
