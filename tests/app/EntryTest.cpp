#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "qm/Entry.h"

namespace {
std::vector<std::string> ips(const std::vector<Entry>& v) {
  std::vector<std::string> out;
  for (const auto& e : v) out.push_back(e.ip);
  return out;
}
}  // namespace

TEST(Entry, SortsByAddressTextNotNumerically) {
  std::vector<Entry> v{{"10.0.0.9", "", "", ""},
                       {"10.0.0.10", "", "", ""},
                       {"", "x", "", ""},
                       {"10.0.0.1", "", "", ""},
                       {"9.0.0.1", "", "", ""}};
  std::sort(v.begin(), v.end());
  EXPECT_EQ(ips(v), (std::vector<std::string>{"", "10.0.0.1", "10.0.0.10", "10.0.0.9", "9.0.0.1"}));
}

TEST(Entry, EqualityLooksAtAddressAlone) {
  Entry a{"10.0.0.1", "A", "1", "x"};
  Entry b{"10.0.0.1", "B", "2", "y"};
  EXPECT_TRUE(a == b);
  EXPECT_FALSE(a < b);
  EXPECT_FALSE(b < a);
  EXPECT_FALSE(a == (Entry{"10.0.0.10", "A", "1", "x"}));
  EXPECT_TRUE((Entry{}) == (Entry{"", "n", "v", "t"}));
}

TEST(Entry, UniqueKeepsOneRecordPerAddress) {
  std::vector<Entry> v{{"10.0.0.1", "A", "", ""},
                       {"", "", "", ""},
                       {"10.0.0.1", "B", "", ""},
                       {"", "z", "", ""},
                       {"10.0.0.2", "", "", ""}};
  std::sort(v.begin(), v.end());
  v.erase(std::unique(v.begin(), v.end()), v.end());
  EXPECT_EQ(ips(v), (std::vector<std::string>{"", "10.0.0.1", "10.0.0.2"}));
}
