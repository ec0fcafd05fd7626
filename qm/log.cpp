#include "qm/log.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "qm/PrintableText.h"

namespace {
std::atomic<bool> logging{false};
std::mutex m;
}  // namespace

void logEnable(bool on) { logging.store(on); }

void logd(const char* format, ...) {
  if (!logging.load()) return;
  std::lock_guard<std::mutex> lock(m);
  va_list args;
  va_start(args, format);
  if (stdoutIsTerminal()) {
    va_list sizing;
    va_copy(sizing, args);
    const int size = std::vsnprintf(nullptr, 0, format, sizing);
    va_end(sizing);
    std::string line(size > 0 ? static_cast<size_t>(size) : 0, '\0');
    if (size > 0) std::vsnprintf(line.data(), line.size() + 1, format, args);
    // The format's text before its first conversion is the program's own (it may hold a line
    // end); what follows may carry bytes from the network.
    const size_t own = std::min(std::strcspn(format, "%"), line.size());
    std::fwrite(line.data(), 1, own, stdout);
    const std::string shown = printableText(std::string_view(line).substr(own));
    std::fwrite(shown.data(), 1, shown.size(), stdout);
  } else {
    std::vprintf(format, args);
  }
  va_end(args);
  std::fputc('\n', stdout);
}
