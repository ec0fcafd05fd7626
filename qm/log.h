#pragma once

/// Switches the debug log on or off; off from process start.
void logEnable(bool on);

/// Writes one printf-formatted line (the "\n" is added here) to standard
/// output when the log is on; does not format anything when it is off.
/// Safe from any thread: each line is written whole.
void logd(const char* format, ...) __attribute__((format(printf, 1, 2)));
