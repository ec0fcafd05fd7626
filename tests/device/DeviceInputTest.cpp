#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "device/CommandLine.h"
#include "device/SiteFile.h"

namespace {

using Args = std::vector<std::string>;
const std::string kHelp = "Try 'varnock-device --help' for more information.\n";

struct Row {
  Args args;         ///< "SITE" stands for the site file's path
  std::string site;  ///< its contents; none when empty
  std::string err;   ///< "SITE" stands for its path
};

std::string replaced(std::string text, const std::string& path) {
  for (size_t at; (at = text.find("SITE")) != std::string::npos;) text.replace(at, 4, path);
  return text;
}

Startup configureWith(Args args, const std::string& site, const std::string& path, std::string& out,
                      std::string& err) {
  if (!site.empty()) std::ofstream(path) << site;
  args.insert(args.begin(), "varnock-device");
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back((a = replaced(a, path)).data());
  std::ostringstream o, e;
  Startup startup = configure(static_cast<int>(argv.size()), argv.data(), o, e);
  out = o.str();
  err = e.str();
  std::remove(path.c_str());
  return startup;
}

std::string siteOf(const std::string& devices) { return R"({"devices": [)" + devices + "]}"; }

/// Address, name, version, type, HTTP port and delay, and the methods it runs.
std::string fields(const DeviceConfig& d) {
  return addressText(d.address) + " " + d.name + " " + d.softwareVersion + " " + deviceTypeOf(d) +
         " :" + std::to_string(d.httpPort) + " +" + std::to_string(d.httpDelayMs) + "ms" +
         (d.morl ? " morl" : "") + (d.http ? " http" : "") + (d.mdns ? " mdns" : "");
}

std::string repeated(const std::string& text, size_t times) {
  std::string out;
  while (times-- > 0) out += text;
  return out;
}

}  // namespace

// Every rejected input: the exact message on standard error, one line for a
// site file, status 2, and no device to run. 127.0.0.1 is an address of
// every host, 192.0.2.1 of none.
TEST(DeviceInput, EveryBadInputIsOneLineAndStatusTwo) {
  const std::string lo = R"({"address": "127.0.0.1")";
  // clang-format off
  const std::vector<Row> rows{
      {{"--http-delay", "-5"}, "", "--http-delay must be 0-600000 (milliseconds): -5\n" + kHelp},
      {{"--morl-delay", "600001"}, "", "--morl-delay must be 0-600000 (milliseconds): 600001\n" + kHelp},
      {{"--service", "300:1"}, "", "--service type must be 0-255: 300:1\n" + kHelp},
      {{"--service", "1:65536"}, "", "--service value must be 0-65535: 1:65536\n" + kHelp},
      {{"--service", "1"}, "", "--service needs TYPE:VALUE: 1\n" + kHelp},
      {{"--http-port", "0"}, "", "--http-port must be 1-65535: 0\n" + kHelp},
      {{"--http-status", "99"}, "", "--http-status must be 100-999: 99\n" + kHelp},
      {{"--uuid", "0g"}, "", "--uuid needs 24 hex digits: 0g\n" + kHelp},
      {{"--name", std::string(31, 'n')}, "", "--name is longer than 30 characters: " + std::string(31, 'n') + "\n" + kHelp},
      {{"--no-service", "--service", "1:1"}, "", "--no-service and --service exclude each other\n" + kHelp},
      {{"--address", "192.0.2.1"}, "", "--address is not an address of this host: 192.0.2.1\n" + kHelp},
      {{"--address", "10.0.0"}, "", "--address must be an IPv4 address: 10.0.0\n" + kHelp},
      {{"--http-delay"}, "", "the required argument for option '--http-delay' is missing\n" + kHelp},
      {{"--colour", "red"}, "", "unrecognised option '--colour'\n" + kHelp},
      {{"Pallor-Main"}, "", "unexpected argument 'Pallor-Main'\n" + kHelp},
      {{"--name", "A\x1b]0;X\x07"}, "", "--name holds a control character: A\\x1b]0;X\\x07\n" + kHelp},
      {{"--site", "SITE", "--name", "A"}, siteOf(lo + "}"), "--site takes no other device option: --name\n" + kHelp},
      {{"--site", "SITE"}, "", "SITE: cannot be read: No such file or directory\n"},
      {{"--site", "/proc/sys/vm/compact_memory"}, "", "/proc/sys/vm/compact_memory: cannot be read: Permission denied\n"},
      {{"--site", "/"}, "", "/: cannot be read: Is a directory\n"},
      {{"--site", "/dev/zero"}, "", "/dev/zero: is a character device, not a regular file\n"},
      {{"--site", "SITE.fifo"}, "", "SITE.fifo: is a FIFO, not a regular file\n"},
      {{"--site", "SITE"}, std::string(kMaxSiteBytes + 1, ' '), "SITE: is larger than 4194304 bytes, the most a site file may hold\n"},
      {{"--site", "SITE"}, repeated("[", 1001) + repeated("]", 1001), "SITE: JSON values nest more than 16 levels deep\n"},
      {{"--site", "SITE"}, siteOf(lo + "} // one\n"), "SITE: line 1, column 39: Comments are not JSON.\n"},
      {{"--site", "SITE"}, siteOf(lo + "},"), "SITE: line 1, column 39: Syntax error: value, object or array expected.\n"},
      {{"--site", "SITE"}, siteOf(lo + R"(, "http-port": 80.0})"), "SITE: devices[0] (127.0.0.1): http-port must be an integer\n"},
      {{"--site", "SITE"}, siteOf(lo + R"(, "name": "A\u0000B"})"), "SITE: devices[0] (127.0.0.1): name holds a NUL byte: A\\x00B\n"},
      {{"--site", "SITE"}, siteOf(lo + R"(, "name": "A\u001b[31m"})"), "SITE: devices[0] (127.0.0.1): name holds a control character: A\\x1b[31m\n"},
      {{"--site", "SITE"}, siteOf(lo + R"(, "software-version": "1\u0085"})"), "SITE: devices[0] (127.0.0.1): software-version is not printable UTF-8: 1\\xc2\\x85\n"},
      {{"--site", "SITE"}, siteOf(lo + ", \"name\": \"A\xff\xfe\"}"), "SITE: devices[0] (127.0.0.1): name is not printable UTF-8: A\\xff\\xfe\n"},
      {{"--site", "SITE"}, siteOf(lo + R"(, "owner": ")" + std::string(50000, 'f') + "\"}"), "SITE: devices[0] (127.0.0.1): owner needs 24 hex digits: ffffffffffffffffffffffffffffffff... (50000 bytes)\n"},
      {{"--site", "SITE"}, siteOf(lo + R"(}, {"address": "192.0.2.1"}, {"colour": 1})"), "SITE: devices[1] (192.0.2.1): address is not an address of this host\n"},
      {{"--site", "SITE"}, "[]", "SITE: must hold a JSON object\n"},
      {{"--site", "SITE"}, R"({"devices": []})", "SITE: devices must be a non-empty array\n"},
      {{"--site", "SITE"}, R"({"devices": [], "colour": 1})", "SITE: colour is not a field\n"},
      {{"--site", "SITE"}, R"({"defaults": {"http-port": 0}, "devices": [{}]})", "SITE: defaults: http-port must be 1-65535: 0\n"},
      {{"--site", "SITE"}, siteOf(lo + R"(}, {"name": "B"})"), "SITE: devices[1]: address is missing\n"},
      {{"--site", "SITE"}, siteOf(lo + "}, " + lo + "}"), "SITE: devices[1] (127.0.0.1): address is that of devices[0] too\n"},
      {{"--site", "SITE"}, siteOf(R"({"http-delay": -5, "address": "127.0.0.1"})"), "SITE: devices[0] (127.0.0.1): http-delay must be 0-600000 (milliseconds): -5\n"},
      {{"--site", "SITE"}, siteOf(lo + R"(, "http-port": "80"})"), "SITE: devices[0] (127.0.0.1): http-port must be an integer\n"},
      {{"--site", "SITE"}, siteOf(lo + R"(, "services": ["2:1", "300:1"]})"), "SITE: devices[0] (127.0.0.1): services type must be 0-255: 300:1\n"},
      {{"--site", "SITE"}, siteOf(lo + R"(, "services": "2:1"})"), "SITE: devices[0] (127.0.0.1): services must be an array of \"TYPE:VALUE\" strings\n"},
      {{"--site", "SITE"}, siteOf(lo + R"(, "morl": "no"})"), "SITE: devices[0] (127.0.0.1): morl must be true or false\n"},
      {{"--site", "SITE"}, siteOf(lo + R"(, "colour": 1})"), "SITE: devices[0] (127.0.0.1): colour is not a field\n"},
      {{"--site", "SITE"}, siteOf(lo + R"(, "name": "A", "name": "B"})"), "SITE: line 1, column 52: Duplicate key: 'name'\n"},
  };
  // clang-format on
  const std::string path = testing::TempDir() + "site-" + std::to_string(getpid()) + ".json";
  ASSERT_EQ(mkfifo((path + ".fifo").c_str(), 0600), 0);
  for (const Row& row : rows) {
    std::string out, err;
    const Startup startup = configureWith(row.args, row.site, path, out, err);
    const std::string context = row.args.back() + " " + row.site.substr(0, 100);
    EXPECT_EQ(err, replaced("varnock-device: " + row.err, path)) << context;
    EXPECT_EQ(startup.status, 2) << context;
    EXPECT_EQ(out, "") << context;
    EXPECT_TRUE(startup.devices.empty()) << context;
  }
  std::remove((path + ".fifo").c_str());
}

// A site file's fields and defaults reach each device; a device without HTTP
// announces nothing by mDNS. Plain options give the documented defaults.
TEST(DeviceInput, SiteFileAndDefaultsGiveEachDeviceItsFields) {
  const std::string site = R"({"defaults": {"software-version": "2.0", "morl": false},
    "devices": [{"address": "127.0.0.1", "uuid": "0102030405060708090a0b0c", "name": "A",
                 "services": ["0:7", "4:1"], "http-port": 8080, "http-delay": 5},
                {"address": "10.0.0.2", "services": [], "http": false, "morl": true}]})";
  std::vector<DeviceConfig> devices;
  ASSERT_EQ(parseSite("good.json", site, {0x7F000001, 0x0A000002}, 1, devices), "");
  ASSERT_EQ(devices.size(), 2u);
  EXPECT_EQ(fields(devices[0]), "127.0.0.1 A 2.0 extender_fell :8080 +5ms http mdns");
  EXPECT_EQ(fields(devices[1]), "10.0.0.2 varnock-device 2.0  :80 +0ms morl");
  EXPECT_EQ(uuidText(devices[0].uuid), "0102030405060708090a0b0c");
  EXPECT_NE(uuidText(devices[1].uuid), uuidText(devices[0].uuid));

  std::string out, err;
  const Startup startup = configureWith({}, "", "", out, err);
  EXPECT_EQ(startup.status, -1);
  ASSERT_EQ(startup.devices.size(), 1u);
  EXPECT_EQ(fields(startup.devices[0]),
            "0.0.0.0 varnock-device 1.0.0 pallor_module :80 +0ms morl http mdns");
}
