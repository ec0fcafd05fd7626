#include "app/IPCollector.h"

#include <algorithm>
#include <functional>
#include <iostream>

#include "mdns/MDNSDiscovery.h"
#include "morl/MORL_Discover.h"

IPCollector::IPCollector(unsigned short mdnsWait, unsigned short morlWait)
    : mdnsWait(mdnsWait), morlWait(morlWait) {}

void IPCollector::RunMDNS() {
  mdnsThread.reset(new std::thread(std::bind(&IPCollector::mdnsDiscover, this)));
}

void IPCollector::RunMORL() {
  morlThread.reset(new std::thread(std::bind(&IPCollector::morlDiscover, this)));
}

void IPCollector::Join() {
  if (mdnsThread && mdnsThread->joinable()) mdnsThread->join();
  if (morlThread && morlThread->joinable()) morlThread->join();
}

std::vector<Entry> IPCollector::GetAllEntriesCollected() {
  std::vector<Entry> all;
  all.reserve(mdnsEntries.size() + morlEntries.size());
  all.insert(all.end(), mdnsEntries.begin(), mdnsEntries.end());
  all.insert(all.end(), morlEntries.begin(), morlEntries.end());
  std::sort(all.begin(), all.end());
  all.erase(std::unique(all.begin(), all.end()), all.end());
  return all;
}

void IPCollector::mdnsDiscover() {
  MDNS_Discover discovery;
  if (!discovery.discover(mdnsWait)) {
    // No line end: the text is written exactly as it stands.
    std::cerr << "Error: mDNS discovery failed!";
    return;
  }
  mdnsEntries = MDNS_Discover::entries;
}

void IPCollector::morlDiscover() {
  MORL_Discover discovery;
  if (!discovery.discover(morlWait)) {
    std::cerr << "Error: MORL discovery failed!";
    return;
  }
  morlEntries = discovery.entries;
}
