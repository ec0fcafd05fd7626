#pragma once

#include <string>

/// One found device. Ordered and compared by `ip` text alone, so that sorting
/// puts 10.0.0.10 before 10.0.0.9 and std::unique keeps one record per address.
struct Entry {
  std::string ip;
  std::string name;
  std::string version;
  std::string device_type;
};

bool operator<(const Entry& a, const Entry& b);
bool operator==(const Entry& a, const Entry& b);
