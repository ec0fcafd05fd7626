#pragma once

#include <memory>
#include <thread>
#include <vector>

#include "qm/Entry.h"

/// Runs the mDNS and the MORL discovery each on a thread of its own and merges
/// what they found. Must neither move nor be destroyed before Join() has returned.
class IPCollector {
 public:
  /// Both waits in seconds.
  IPCollector(unsigned short mdnsWait, unsigned short morlWait);

  void RunMDNS();
  void RunMORL();
  /// Waits for every discovery that was started.
  void Join();
  /// mDNS and MORL records together, sorted by address text, one per address.
  std::vector<Entry> GetAllEntriesCollected();

 private:
  void mdnsDiscover();
  void morlDiscover();

  std::unique_ptr<std::thread> mdnsThread;
  std::unique_ptr<std::thread> morlThread;
  std::vector<Entry> mdnsEntries;
  std::vector<Entry> morlEntries;
  unsigned short mdnsWait;
  unsigned short morlWait;
};
