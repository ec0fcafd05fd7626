#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "morl/Header.h"

// Header::unpack over any bytes; whatever it accepts must pack back to the
// same 34 bytes.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  MORL::Header header;
  if (!header.unpack(QM::Span<const unsigned char>(data, size))) return 0;
  if (header.type > MORL::Header::Whistle) std::abort();
  unsigned char again[MORL::Header::PackedSize];
  if (!header.pack(QM::Span<unsigned char>(again, sizeof again))) std::abort();
  if (std::memcmp(again, data, sizeof again) != 0) std::abort();
  return 0;
}
