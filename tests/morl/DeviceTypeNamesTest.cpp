#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <sstream>

#include "morl/ControllerInfo.h"

// The device-type names are written once in C++ (the product), once in Lua (the dissector) and
// once in shell (the lab); the man pages name them too. All must name each type as the product.

namespace {

std::string readSource(const std::string& path) {
  std::stringstream text;
  text << std::ifstream(VARNOCK_SOURCE_DIR "/" + path).rdbuf();
  return text.str();
}

/// The first group of each match of `pattern` in `text`, in order.
std::vector<std::string> matches(const std::string& text, const std::string& pattern) {
  std::vector<std::string> found;
  const std::regex re(pattern);
  for (std::sregex_iterator m(text.begin(), text.end(), re), end; m != end; ++m)
    found.push_back((*m)[1]);
  return found;
}

/// The part of `text` from `from` up to the next `to`.
std::string between(const std::string& text, const std::string& from, const std::string& to) {
  const size_t start = text.find(from);
  return start == std::string::npos ? "" : text.substr(start, text.find(to, start) - start);
}

}  // namespace

TEST(DeviceTypeNames, DissectorLabAndManPagesNameEachTypeAsTheProduct) {
  std::vector<std::string> names;
  for (unsigned char type = 0; deviceTypeName(type) != "uknown"; ++type)
    names.push_back(deviceTypeName(type));
  ASSERT_EQ(names.size(), 5u);
  const std::string lua = readSource("wireshark/morl.lua");
  EXPECT_EQ(matches(between(lua, "local device_types", "}"), R"re(\] = "(\w+)")re"), names);
  EXPECT_EQ(matches(lua, R"re(device_types\[service\] or "(\w+)")re"),
            std::vector<std::string>{"uknown"});
  const auto lab = matches(readSource("lab/lan/lib.sh"), R"re(\ndevice_types=\(([^)]*)\))re");
  ASSERT_EQ(lab.size(), 1u);
  EXPECT_EQ(matches(lab[0] + " ", R"re((\w+) )re"), names);
  const auto finder = readSource("packaging/man/varnock.1.in");
  EXPECT_EQ(matches(between(finder, "names its device type:", "\nor\n"), R"re(\n\.BR (\w+) ,)re"),
            names);
  EXPECT_EQ(matches(readSource("packaging/man/varnock-device.1.in"), R"re(\b\d\n\.BR (\w+) ,)re"),
            names);
}
