#pragma once

#include <ostream>
#include <vector>

#include "qm/Entry.h"

/// Writes the records that have a dotted IPv4 address (and, unless `all`, a
/// name and a device type) in list order: aligned text lines, or one JSON
/// document with a "devices" array. For a `terminal`, bytes that are not printable show as '?'.
void printResult(std::ostream& out, const std::vector<Entry>& entries, bool json, bool all,
                 bool terminal = false);
