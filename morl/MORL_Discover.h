#pragma once

#include <mutex>
#include <vector>

#include "morl/IReceive.h"
#include "morl/MORLManager.h"
#include "qm/Entry.h"

/// One MORL discovery run: binds UDP port 4792, broadcasts one Discovery
/// request, collects the responses for a number of seconds and keeps one
/// record per answering address. While the run is on, it answers other
/// nodes' requests with the finder's fixed identity.
class MORL_Discover : public IReceive {
 public:
  MORL_Discover() = default;
  MORL_Discover(const MORL_Discover&) = delete;
  MORL_Discover& operator=(const MORL_Discover&) = delete;

  /// Runs the whole discovery on the calling thread, waiting `seconds` whole
  /// seconds (none with 0). On any failure (port taken, no thread) writes the
  /// error text and a line end to standard error and returns false.
  bool discover(unsigned int seconds);
  /// A datagram from the UDP server, handed to the manager.
  void receive(unsigned char* data, unsigned long length, unsigned int address) override;

  MORLManager manager;
  /// Records of the run, sorted by address text, one per address; read after
  /// discover has returned.
  std::vector<Entry> entries;

 private:
  // The manager and `entries` are used by the I/O thread and the calling
  // thread of a run.
  std::mutex runMutex;
};
