#include "http/HostnameGetter.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "RequireLan.h"
#include "qm/log.h"

namespace {

const std::string kFullBody =
    R"({"data":{"name":"A","version":"1.2","device_type":"x","other":1}})";

Entry discovered(const std::string& ip, const std::string& type = "unknown") {
  return Entry{ip, "old", "0.9", type};
}

void expectFields(const Entry& e, const std::string& name, const std::string& version,
                  const std::string& type) {
  EXPECT_EQ(e.name, name) << e.ip;
  EXPECT_EQ(e.version, version) << e.ip;
  EXPECT_EQ(e.device_type, type) << e.ip;
}

std::vector<std::string> sortedLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  std::sort(lines.begin(), lines.end());
  return lines;
}

// Runs gather with the debug log on and returns what it logged.
std::string gatherLogged(std::vector<Entry>& entries) {
  testing::internal::CaptureStdout();
  logEnable(true);
  HostnameGetter::gather(entries);
  logEnable(false);
  std::fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

std::string slurp(const std::string& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

// --- The reply body alone -------------------------------------------------

struct BodyCase {
  const char* label;
  const char* body;
  bool written;
  const char* name;
  const char* version;
  const char* type;
};

void PrintTo(const BodyCase& c, std::ostream* os) { *os << c.body; }

std::string caseLabel(const testing::TestParamInfo<BodyCase>& info) { return info.param.label; }

class InfoReply : public testing::TestWithParam<BodyCase> {};

TEST_P(InfoReply, WritesTheThreeFieldsOrNothing) {
  const BodyCase& c = GetParam();
  Entry e = discovered("10.0.0.2");
  EXPECT_EQ(HostnameGetter::applyInfo(c.body, e), c.written) << c.body;
  EXPECT_EQ(e.ip, "10.0.0.2");
  if (c.written) {
    expectFields(e, c.name, c.version, c.type);
  } else {
    expectFields(e, "old", "0.9", "unknown");
  }
}

// A device that answers is the authority on its own data: what it leaves out
// becomes empty.
INSTANTIATE_TEST_SUITE_P(
    Written, InfoReply,
    testing::Values(BodyCase{"FullDataKeepsOnlyTheThreeKeys",
                             R"({"data":{"name":"A","version":"1.2","device_type":"x","other":1}})",
                             true, "A", "1.2", "x"},
                    BodyCase{"OnlyName", R"({"data":{"name":"A"}})", true, "A", "", ""},
                    BodyCase{"NullMemberIsEmpty", R"({"data":{"name":null,"version":"2"}})", true,
                             "", "2", ""},
                    BodyCase{"KeysOutsideDataAreIgnored",
                             R"({"name":"A","version":"1","device_type":"x"})", true, "", "", ""},
                    BodyCase{"EmptyObject", R"({})", true, "", "", ""},
                    BodyCase{"NullData", R"({"data":null})", true, "", "", ""},
                    BodyCase{"NullRoot", "null", true, "", "", ""},
                    // "data" or the root without members to read counts as no "data"
                    BodyCase{"DataArray", R"({"data":[{"name":"A"}]})", true, "", "", ""},
                    BodyCase{"DataNumber", R"({"data":5})", true, "", "", ""},
                    BodyCase{"DataString", R"({"data":"A"})", true, "", "", ""},
                    BodyCase{"DataBoolean", R"({"data":true})", true, "", "", ""},
                    BodyCase{"RootArray", R"([{"data":{"name":"A"}}])", true, "", "", ""},
                    BodyCase{"RootNumber", "5", true, "", "", ""},
                    BodyCase{"RootString", R"("A")", true, "", "", ""},
                    BodyCase{"NumbersAndBooleansAsText",
                             R"({"data":{"name":7,"version":1.5,"device_type":true}})", true, "7",
                             "1.5", "true"},
                    BodyCase{"EscapesDecoded",
                             R"({"data":{"name":"A\u00e9","version":"","device_type":"x y"}})",
                             true, "A\xc3\xa9", "", "x y"},
                    BodyCase{"LenientReaderDefaults", R"(  {"data":{"name":"A",}}  trailing)", true,
                             "A", "", ""}),
    caseLabel);

INSTANTIATE_TEST_SUITE_P(
    Unchanged, InfoReply,
    testing::Values(
        BodyCase{"EmptyBody", "", false, "", "", ""}, BodyCase{"OpenBrace", "{", false, "", "", ""},
        BodyCase{"NotJson", "not json", false, "", "", ""},
        BodyCase{"Unterminated", R"({"data":{"name":"A"})", false, "", "", ""},
        // a member without a text form: nothing is written, not even the others
        BodyCase{"NameObject", R"({"data":{"name":{"first":"A"}}})", false, "", "", ""},
        BodyCase{"VersionArray", R"({"data":{"name":"A","version":[1,2]}})", false, "", "", ""},
        BodyCase{"TypeEmptyObject", R"({"data":{"name":"A","version":"1","device_type":{}}})",
                 false, "", "", ""}),
    caseLabel);

TEST(InfoReply, NestingDeeperThanTheReaderAllowsIsRejectedNotThrown) {
  Entry e = discovered("10.0.0.2");
  const std::string deep = "{\"data\":" + std::string(5000, '[') + std::string(5000, ']') + "}";
  EXPECT_FALSE(HostnameGetter::applyInfo(deep, e));
  expectFields(e, "old", "0.9", "unknown");
}

// --- gather without a network --------------------------------------------

TEST(Gather, EmptyListAsksNothing) {
  std::vector<Entry> none;
  EXPECT_EQ(gatherLogged(none), "");
  EXPECT_TRUE(none.empty());
}

TEST(Gather, AddressWithBracketsOrPortIsNotOpened) {
  std::vector<Entry> entries{discovered("[fe80::1]:80"), discovered("[fe80", ""),
                             discovered("10.0.0.300")};
  std::string log = gatherLogged(entries);
  EXPECT_EQ(sortedLines(log),
            sortedLines("Requesting [fe80::1]:80/api/v1/info\n"
                        "Error when opening socket to [fe80::1]:80: Invalid argument\n"
                        "Requesting [fe80/api/v1/info\n"
                        "Error when opening socket to [fe80: Invalid argument\n"
                        "Requesting 10.0.0.300/api/v1/info\n"
                        "Error when opening socket to 10.0.0.300: Invalid argument\n"));
  expectFields(entries[0], "old", "0.9", "unknown");
  expectFields(entries[1], "old", "0.9", "");
  expectFields(entries[2], "old", "0.9", "unknown");
}

// --- gather against devices on the simulated LAN ---------------------------

class GatherLan : public testing::Test {
 protected:
  void SetUp() override { VARNOCK_REQUIRE_LAN(); }

  void makeLan(std::vector<int> hosts) {
    lan_ = std::make_unique<Lan>(hosts);
    ASSERT_TRUE(lan_->ok());
    char dir[] = "/tmp/varnock-http.XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    dir_ = dir;
  }

  void TearDown() override {
    lan_.reset();
    if (!dir_.empty()) std::system(("rm -rf " + dir_).c_str());
  }

  std::string recordPath(int host) const { return dir_ + "/requests-" + std::to_string(host); }

  // Starts the info server on a device, recording what it receives.
  void serve(int host, std::vector<std::string> args = {}) {
    std::vector<std::string> argv{"/usr/bin/python3", VARNOCK_HTTP_TEST_DIR "/info_server.py",
                                  "--record", recordPath(host)};
    argv.insert(argv.end(), args.begin(), args.end());
    ASSERT_GT(lan_->spawn(Lan::device(host), argv, dir_ + "/server-" + std::to_string(host)), 0);
  }
  void awaitServers(std::initializer_list<int> hosts) {
    for (int host : hosts) ASSERT_TRUE(lan_->waitForPort(Lan::device(host), "tcp", 80));
  }

  std::vector<Json::Value> requestsTo(int host) const {
    std::vector<Json::Value> requests;
    std::istringstream in(slurp(recordPath(host)));
    Json::CharReaderBuilder builder;
    for (std::string line; std::getline(in, line);) {
      Json::Value v;
      std::istringstream l(line);
      EXPECT_TRUE(Json::parseFromStream(builder, l, &v, nullptr)) << line;
      requests.push_back(v);
    }
    return requests;
  }

  std::string gatherInFinder(std::vector<Entry>& entries) {
    EXPECT_TRUE(lan_->enter("finder"));
    return gatherLogged(entries);
  }

  std::string ip(int host) const { return lan_->ip(host); }

  std::unique_ptr<Lan> lan_;
  std::string dir_;
};

TEST_F(GatherLan, JsonReplyFillsRecordAndRequestIsExactlyGetWithHostAndClose) {
  makeLan({2});
  serve(2);
  awaitServers({2});
  std::vector<Entry> entries{discovered(ip(2))};
  std::string log = gatherInFinder(entries);

  expectFields(entries[0], "A", "1.2", "x");
  EXPECT_EQ(log,
            "Requesting 10.0.0.2/api/v1/info\n"
            "Response 10.0.0.2/api/v1/info: 200, " +
                kFullBody + "\n");
  auto requests = requestsTo(2);
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0]["method"].asString(), "GET");
  EXPECT_EQ(requests[0]["target"].asString(), "/api/v1/info");
  EXPECT_EQ(requests[0]["version"].asString(), "HTTP/1.1");
  Json::Value headers(Json::arrayValue);
  headers.append(Json::Value(Json::arrayValue));
  headers[0].append("Host");
  headers[0].append("10.0.0.2");
  headers.append(Json::Value(Json::arrayValue));
  headers[1].append("Connection");
  headers[1].append("close");
  EXPECT_EQ(requests[0]["headers"], headers) << requests[0].toStyledString();
  EXPECT_EQ(requests[0]["body"].asString(), "");
}

TEST_F(GatherLan, AsksOnlyRecordsWithEmptyOrExactlyUnknownType) {
  makeLan({2, 3, 4, 5, 6});
  for (int host : {2, 3, 4, 5, 6})
    serve(host, {"--body", R"({"data":{"name":"n)" + std::to_string(host) +
                               R"(","version":"v","device_type":"t"}})"});
  awaitServers({2, 3, 4, 5, 6});

  std::vector<Entry> known{discovered(ip(2), "Unknown"), discovered(ip(3), "unknown "),
                           discovered(ip(4), "pallor_module")};
  EXPECT_EQ(gatherInFinder(known), "");
  for (const Entry& e : known) EXPECT_EQ(e.name, "old");

  std::vector<Entry> mixed{discovered(ip(2), "Unknown"), discovered(ip(3), "unknown "),
                           discovered(ip(4), "pallor_module"), discovered(ip(5), ""),
                           discovered(ip(6), "unknown")};
  std::string log = gatherLogged(mixed);
  EXPECT_EQ(sortedLines(log),
            sortedLines("Requesting 10.0.0.5/api/v1/info\n"
                        "Requesting 10.0.0.6/api/v1/info\n"
                        "Response 10.0.0.5/api/v1/info: 200, "
                        R"({"data":{"name":"n5","version":"v","device_type":"t"}})"
                        "\n"
                        "Response 10.0.0.6/api/v1/info: 200, "
                        R"({"data":{"name":"n6","version":"v","device_type":"t"}})"
                        "\n"));
  ASSERT_EQ(mixed.size(), 5u);
  const char* ips[] = {"10.0.0.2", "10.0.0.3", "10.0.0.4", "10.0.0.5", "10.0.0.6"};
  for (int i = 0; i < 5; ++i) EXPECT_EQ(mixed[i].ip, ips[i]);
  expectFields(mixed[0], "old", "0.9", "Unknown");
  expectFields(mixed[1], "old", "0.9", "unknown ");
  expectFields(mixed[2], "old", "0.9", "pallor_module");
  expectFields(mixed[3], "n5", "v", "t");
  expectFields(mixed[4], "n6", "v", "t");
  for (int host : {2, 3, 4}) EXPECT_TRUE(requestsTo(host).empty()) << host;
  for (int host : {5, 6}) EXPECT_EQ(requestsTo(host).size(), 1u) << host;
}

TEST_F(GatherLan, EachKindOfReplyHasItsOwnOutcome) {
  makeLan({2, 3, 4, 5, 6, 7});
  serve(2, {"--content-type", "text/plain"});
  serve(3, {"--status", "500", "--body", R"({"error":"busy"})"});
  serve(4, {"--body", R"({"data":{"name":"A"}})"});
  serve(5, {"--body", R"({"data":["A","1.2","x"]})"});
  // Any header value that mentions json will do, not only Content-Type.
  serve(6, {"--content-type", "application/vnd.maker+json; charset=utf-8"});
  awaitServers({2, 3, 4, 5, 6});
  // Host 7 has no server: its connection is refused.
  std::vector<Entry> entries{discovered(ip(2)), discovered(ip(3)),     discovered(ip(4)),
                             discovered(ip(5)), discovered(ip(6), ""), discovered(ip(7))};
  std::string log = gatherInFinder(entries);

  expectFields(entries[0], "old", "0.9", "unknown");
  expectFields(entries[1], "old", "0.9", "unknown");
  expectFields(entries[2], "A", "", "");
  expectFields(entries[3], "", "", "");
  expectFields(entries[4], "A", "1.2", "x");
  expectFields(entries[5], "old", "0.9", "unknown");
  EXPECT_EQ(sortedLines(log),
            sortedLines("Requesting 10.0.0.2/api/v1/info\n"
                        "Requesting 10.0.0.3/api/v1/info\n"
                        "Requesting 10.0.0.4/api/v1/info\n"
                        "Requesting 10.0.0.5/api/v1/info\n"
                        "Requesting 10.0.0.6/api/v1/info\n"
                        "Requesting 10.0.0.7/api/v1/info\n"
                        "Response 10.0.0.2/api/v1/info: 404, \n"
                        "Response 10.0.0.3/api/v1/info: 500, {\"error\":\"busy\"}\n"
                        "Response 10.0.0.4/api/v1/info: 200, {\"data\":{\"name\":\"A\"}}\n"
                        "Response 10.0.0.5/api/v1/info: 200, {\"data\":[\"A\",\"1.2\",\"x\"]}\n"
                        "Response 10.0.0.6/api/v1/info: 200, " +
                        kFullBody +
                        "\n"
                        "Connect err 10.0.0.7/api/v1/info: Connection refused\n"));
}

TEST_F(GatherLan, SlowSilentServerIsGivenUpAfterFiveSecondsOfReading) {
  makeLan({2});
  serve(2, {"--silent"});
  awaitServers({2});
  std::vector<Entry> entries{discovered(ip(2))};
  auto start = std::chrono::steady_clock::now();
  std::string log = gatherInFinder(entries);
  auto took = std::chrono::steady_clock::now() - start;

  EXPECT_EQ(log,
            "Requesting 10.0.0.2/api/v1/info\n"
            "Read err 10.0.0.2/api/v1/info: The socket was closed due to a timeout\n");
  expectFields(entries[0], "old", "0.9", "unknown");
  EXPECT_EQ(requestsTo(2).size(), 1u);
  EXPECT_GE(took, std::chrono::milliseconds(4900));
  EXPECT_LT(took, std::chrono::milliseconds(8000));
}

}  // namespace
