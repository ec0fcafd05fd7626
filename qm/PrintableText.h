#pragma once

#include <string>
#include <string_view>

/// `text` with every byte that is not part of a printable UTF-8 character (C0 controls, DEL,
/// the C1 controls U+0080 to U+009F, bytes of no valid UTF-8 sequence) replaced by '?', one
/// for one, so that field widths stay; bytes listed in `keep` pass as they are.
std::string printableText(std::string_view text, std::string_view keep = {});

/// True when standard output is a terminal; asked once per process.
bool stdoutIsTerminal();
