#include "app/Varnock.h"

#include <iostream>

#include "app/CommandLine.h"
#include "app/IPCollector.h"
#include "app/ResultPrinter.h"
#include "http/HostnameGetter.h"
#include "qm/PrintableText.h"
#include "qm/log.h"

int runVarnock(int argc, char** argv) {
  bool verbose = false;
  bool mdnsOnly = false;
  bool morlOnly = false;
  bool json = false;
  bool all = false;
  unsigned short mdnsWait = 5;
  unsigned short morlWait = 5;
  // Accepted for compatibility; the HTTP deadlines are fixed.
  unsigned short requestTimeout = 1000;
  if (!handleCommandLine(argc, argv, verbose, mdnsOnly, morlOnly, json, all, mdnsWait, morlWait,
                         requestTimeout))
    return 0;
  logEnable(verbose);

  IPCollector collector(mdnsWait, morlWait);
  // Each switch suppresses the other method: with both, nothing runs.
  if (!morlOnly) collector.RunMDNS();
  if (!mdnsOnly) collector.RunMORL();
  collector.Join();
  std::vector<Entry> entries = collector.GetAllEntriesCollected();

  HostnameGetter::gather(entries);
  logd("Result:");
  printResult(std::cout, entries, json, all, stdoutIsTerminal());
  return 0;
}
