#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <iomanip>

#include "VarnockOnLan.h"

// The real varnock on a simulated LAN; each run checked whole: status, output and error.

namespace {

std::string json(const std::string& type, const std::string& ip, const std::string& name,
                 const std::string& version) {
  return "\t\t{\n\t\t\t\"device_type\" : \"" + type + "\",\n\t\t\t\"ip\" : \"" + ip +
         "\",\n\t\t\t\"name\" : \"" + name + "\",\n\t\t\t\"version\" : \"" + version + "\"\n\t\t}";
}
std::string jsonList(const std::string& records) {
  return "{\n\t\"devices\" : \n\t[\n" + records + "\n\t]\n}\n\n";
}

const std::string p10 = "      10.0.0.10:                      Pallor-10               1.0.0\n",
                  w11 = "      10.0.0.11:                         Web-11                 3.2\n",
                  h20 = "      10.0.0.20:                        Http-20                 0.9\n",
                  o200 = "     10.0.0.200:                        Odd-200               1.0.0\n",
                  d9 = "       10.0.0.9:                         Dorn-9               1.0.0\n";

/// varnock's standard output, run in the finder, written to a pseudo-terminal (line ends not
/// translated) or a pipe.
std::string output(Lan& lan, bool terminal, const Args& args) {
  std::string command = "stty -opost; exec " + kBin + "/app/varnock";
  for (const std::string& a : args) command += " " + a;
  const Lan::Result r =
      terminal ? lan.run("finder", {"script", "-qec", command, "/dev/null"}) : varnock(lan, args);
  EXPECT_EQ(r.status, 0) << terminal;
  return r.out;
}

}  // namespace

// One device of every kind (mDNS from avahi, not the devices): .7 MORL only without service, so
// untyped and asked over HTTP (refused); .9 .10 MORL only, typed; .11 MORL and mDNS, its HTTP
// answer unlike its MORL one: the merge keeps the mDNS record (first), untyped, so it is asked; .20
// mDNS and HTTP only, .22 too but its reply is declared text/plain; .200 MORL with service type 7
// ("uknown"): never asked, though HTTP would rename it; the widest address of the LAN, listed by
// its text.
TEST(VarnockLan, EachRunPrintsExactlyWhatItsMethodsFind) {
  VARNOCK_REQUIRE_LAN();
  Lan lan({7, 9, 10, 11, 20, 22, 200});
  ASSERT_TRUE(lan.ok());
  const std::string web11 = R"({"data":{"name":"Web-11","version":"3.2","device_type":"x"}})";
  const std::pair<int, Args> devices[] = {
      {7, {"--name", "Ctrl", "--software-version", "", "--no-http", "--no-service"}},
      {9, {"--name", "Dorn-9", "--service", "0:1", "--no-http"}},
      {10, {"--name", "Pallor-10", "--service", "2:1", "--no-http"}},
      {11, {"--name", "Both-11", "--service", "3:1", "--http-body", web11, "--no-mdns"}},
      {20,
       {"--name", "Http-20", "--software-version", "0.9", "--service", "4:1", "--no-morl",
        "--no-mdns"}},
      {22, {"--no-morl", "--http-content-type", "text/plain", "--no-mdns"}},
      {200,
       {"--name", "Odd-200", "--service", "7:1", "--http-body", R"({"data":{"name":"A"}})",
        "--no-mdns"}},
  };
  for (const auto& [host, args] : devices) ASSERT_GT(startDevice(lan, Lan::device(host), args), 0);
  for (int host : {11, 20, 22})
    ASSERT_GT(lan.startMdnsResponder(Lan::device(host), "device-" + std::to_string(host)), 0);

  struct Run {
    Args args;
    std::string out;
    bool defaultWaits = false;
  } runs[] = {
      // The mDNS reply over IPv6 leaves only a fragment of the address: asked, never printed.
      // The two searches run side by side, so with the default waits the run ends after
      // about 5 seconds, not 10. The request timeout changes nothing. Run first, so that the
      // devices' first contact with the finder (ARP) falls within the wide default waits.
      {{"-v", "-r", "1"},
       "Local IPv4 address: 0.0.0.0\nLocal IPv6 address: ::\nmDNS socket count: 2, querying...\n"
       "Reading mDNS replies\nSockets closed\n"
       "--- --- ---\nData from 10.0.0.7\n2 blocks\n--- --- ---\nData from 10.0.0.9\n3 blocks\n"
       "--- --- ---\nData from 10.0.0.10\n3 blocks\n--- --- ---\nData from 10.0.0.11\n3 blocks\n"
       "--- --- ---\nData from 10.0.0.200\n3 blocks\nRequesting 10.0.0.7/api/v1/info\n"
       "Connect err 10.0.0.7/api/v1/info: Connection refused\nRequesting 10.0.0.11/api/v1/info\n"
       "Requesting 10.0.0.20/api/v1/info\nResponse 10.0.0.20/api/v1/info: 200, {\"data\":{\"name\""
       ":\"Http-20\",\"version\":\"0.9\",\"device_type\":\"extender_fell\"}}\n"
       "Requesting 10.0.0.22/api/v1/info\nResponse 10.0.0.22/api/v1/info: 404, \n"
       "Requesting [fe80/api/v1/info\nError when opening socket to [fe80: Invalid argument\n"
       "Response 10.0.0.11/api/v1/info: 200, " +
           web11 + "\nResult:\n" + p10 + w11 + h20 + o200 + d9,
       true},
      {{"--json", "-M", "1", "-T", "1"},
       jsonList(json("pallor_module", "10.0.0.10", "Pallor-10", "1.0.0") + ",\n" +
                json("x", "10.0.0.11", "Web-11", "3.2") + ",\n" +
                json("extender_fell", "10.0.0.20", "Http-20", "0.9") + ",\n" +
                json("uknown", "10.0.0.200", "Odd-200", "1.0.0") + ",\n" +
                json("extender_dorn", "10.0.0.9", "Dorn-9", "1.0.0"))},
      {{"--mdns", "-M", "1", "-a"}, w11 + h20 + "      10.0.0.22: \n"},
      {{"--morl", "-T", "1", "-a"},
       p10 + "      10.0.0.11:                        Both-11               1.0.0\n" + o200 +
           "       10.0.0.7:                           Ctrl                    \n" + d9},
      // Both switches: no discovery and no request, so the log holds only the result line.
      {{"--mdns", "--morl", "-v", "-a"}, "Result:\n"},
      {{"-m", "-t", "-j"}, "{\n\t\"devices\" : []\n}\n\n"},
  };
  for (const Run& run : runs) {
    auto start = std::chrono::steady_clock::now();
    auto r = varnock(lan, run.args);
    std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(r.status, 0) << run.args[0];
    EXPECT_EQ(sortedLog(r.out), sortedLog(run.out)) << run.args[0] << "\n" << r.out;
    EXPECT_EQ(r.err, "") << run.args[0];
    if (run.defaultWaits) {
      EXPECT_TRUE(took.count() >= 5.0 && took.count() < 9.0) << took.count();
    }
  }
}

// Hostile names and versions by MORL (.10 .11 .12) and by HTTP (.20, whose reply also carries a
// CR): a terminal gets '?' for each byte that is no printable UTF-8, a pipe every byte as sent.
TEST(VarnockLan, TerminalShowsUnprintableNetworkBytesAsQuestionMarksAndPipeGetsThemAsSent) {
  VARNOCK_REQUIRE_LAN();
  Lan lan({10, 11, 12, 20});
  ASSERT_TRUE(lan.ok());
  struct Device {
    int host;
    std::string name, version, shownName, shownVersion, jsonName, jsonVersion;
  } const devices[] = {
      {10, "\x1b]0;PWNED\x07\x1b[31m", "1.0", "?]0;PWNED??[31m", "1.0",
       "\\u001b]0;PWNED\\u0007\\u001b[31m", "1.0"},
      {11, "Küche", "\xc2\x9bH", "Küche", "??H", "K\\u00fcche", "\\u009bH"},
      {12, "bad\xff\x7fok", "\xe2\x82", "bad??ok", "??", "bad\\ufffd\x7fok", "\\ufffd\\ufffd"},
      {20, "Web\x1b[2J\xc2\x9b\xff", "\xf0\x9f\x98\x80", "Web?[2J???", "\xf0\x9f\x98\x80",
       "Web\\u001b[2J\\u009b\\ufffd", "\\ud83d\\ude00"},
  };
  auto body = [](const std::string& cr, const std::string& name, const std::string& version) {
    return "{\"data\":" + cr + "{\"name\":\"" + name + "\",\"version\":\"" + version +
           "\",\"device_type\":\"x\"}}";
  };
  const Device& web = devices[3];
  ASSERT_GT(startDevice(lan, "d20", {"--name", "Web", "--no-service", "--no-http"}), 0);
  ASSERT_GT(lan.spawn("d20",
                      {"python3", Lan::script("hosts/bad-http.py"), "body", "60",
                       body("\r", web.name, web.version)},
                      lan.scratchFile("http.log")),
            0);
  ASSERT_TRUE(Lan::waitForText(lan.scratchFile("http.log"), "ready\n"));
  for (int i = 0; i < 3; ++i) {
    const Device& d = devices[i];
    const std::string log = lan.scratchFile("hostile" + std::to_string(i));
    lan.spawn(Lan::device(d.host),
              {kBin + "/lab/varnock-hostile", "answer", d.name, d.version, "60"}, log);
    ASSERT_TRUE(Lan::waitForText(log, "ready\n"));
  }
  for (bool terminal : {true, false}) {
    std::string log, text, json;
    for (const Device& d : devices) {
      const std::string ip = lan.ip(d.host);
      const std::string& name = terminal ? d.shownName : d.name;
      const std::string& version = terminal ? d.shownVersion : d.version;
      log += "--- --- ---\nData from " + ip + (d.host == 20 ? "\n2 blocks\n" : "\n3 blocks\n");
      std::ostringstream line;
      line << std::setw(15) << ip << ": " << std::setw(30) << name << std::setw(20) << version;
      text += line.str() + "\n";
      json += std::string(json.empty() ? "" : ",\n") +
              ::json(d.host == 20 ? "x" : "pallor_module", ip, d.jsonName, d.jsonVersion);
    }
    log += "Requesting 10.0.0.20/api/v1/info\nResponse 10.0.0.20/api/v1/info: 200, " +
           (terminal ? body("?", web.shownName, web.shownVersion)
                     : body("\r", web.name, web.version)) +
           "\nResult:\n";
    // The JSON writer escapes all but DEL.
    if (terminal) std::replace(json.begin(), json.end(), '\x7f', '?');
    EXPECT_EQ(sortedLog(output(lan, terminal, {"-t", "-T", "1", "-v"})), sortedLog(log + text))
        << terminal;
    EXPECT_EQ(output(lan, terminal, {"-t", "-T", "1", "-j"}), jsonList(json)) << terminal;
  }
}
