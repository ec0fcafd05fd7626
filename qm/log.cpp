#include "qm/log.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <mutex>

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
  std::vprintf(format, args);
  va_end(args);
  std::fputc('\n', stdout);
}
