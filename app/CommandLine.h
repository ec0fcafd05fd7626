#pragma once

/// Parses the arguments into the settings. Returns false when the process is to
/// end now: help or version was printed, or the arguments were rejected (the
/// library's message on standard error, the help text on standard output).
bool handleCommandLine(int argc, char** argv, bool& verbose, bool& mdnsOnly, bool& morlOnly,
                       bool& json, bool& all, unsigned short& mdnsWait, unsigned short& morlWait,
                       unsigned short& requestTimeout);
