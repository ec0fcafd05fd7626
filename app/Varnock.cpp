#include "app/Varnock.h"

#include "app/CommandLine.h"
#include "qm/log.h"

int runVarnock(int argc, char** argv) {
  bool verbose = false;
  bool mdnsOnly = false;
  bool morlOnly = false;
  bool json = false;
  bool all = false;
  unsigned short mdnsWait = 5;
  unsigned short morlWait = 5;
  unsigned short requestTimeout = 1000;
  if (!handleCommandLine(argc, argv, verbose, mdnsOnly, morlOnly, json, all, mdnsWait, morlWait,
                         requestTimeout))
    return 0;
  logEnable(verbose);
  return 0;
}
