#include "qm/PrintableText.h"

#include <unistd.h>

namespace {

/// Length of the printable UTF-8 character at the start of `s`, or 0.
size_t printableLength(std::string_view s) {
  const auto byte = [&s](size_t i) { return i < s.size() ? static_cast<unsigned char>(s[i]) : 0; };
  const unsigned char lead = byte(0);
  if (lead >= 0x20 && lead < 0x7F) return 1;
  // The range of the second byte excludes overlong forms, surrogates and code points past
  // U+10FFFF; C2 80 to C2 9F are the C1 controls.
  unsigned char low = 0x80, high = 0xBF;
  size_t length = 0;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
    if (lead == 0xC2) low = 0xA0;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) low = 0xA0;
    if (lead == 0xED) high = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;
  } else {
    return 0;
  }
  if (byte(1) < low || byte(1) > high) return 0;
  for (size_t i = 2; i < length; ++i)
    if (byte(i) < 0x80 || byte(i) > 0xBF) return 0;
  return length;
}

}  // namespace

std::string printableText(std::string_view text, std::string_view keep) {
  std::string shown;
  shown.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    const size_t length = printableLength(text.substr(i));
    if (length == 0) {
      shown += keep.find(text[i]) == std::string_view::npos ? '?' : text[i];
      ++i;
    } else {
      shown.append(text, i, length);
      i += length;
    }
  }
  return shown;
}

bool stdoutIsTerminal() {
  static const bool terminal = isatty(STDOUT_FILENO) == 1;
  return terminal;
}
