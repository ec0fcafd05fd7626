#include "app/CommandLine.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "qm/log.h"

namespace {

struct Settings {
  bool verbose = false, mdnsOnly = false, morlOnly = false, json = false, all = false;
  unsigned short mdnsWait = 5, morlWait = 5, requestTimeout = 1000;
  bool operator==(const Settings& o) const {
    return verbose == o.verbose && mdnsOnly == o.mdnsOnly && morlOnly == o.morlOnly &&
           json == o.json && all == o.all && mdnsWait == o.mdnsWait && morlWait == o.morlWait &&
           requestTimeout == o.requestTimeout;
  }
};

struct Parsed {
  bool goOn;
  Settings s;
  std::string out;
  std::string err;
};

Parsed parse(std::vector<std::string> args) {
  args.insert(args.begin(), "varnock");
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  Parsed p{};
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  p.goOn = handleCommandLine(static_cast<int>(args.size()), argv.data(), p.s.verbose, p.s.mdnsOnly,
                             p.s.morlOnly, p.s.json, p.s.all, p.s.mdnsWait, p.s.morlWait,
                             p.s.requestTimeout);
  std::cout.flush();
  std::cerr.flush();
  p.out = testing::internal::GetCapturedStdout();
  p.err = testing::internal::GetCapturedStderr();
  return p;
}

const std::string& helpText() {
  static const std::string text = parse({"--help"}).out;
  return text;
}

Settings with(void (*f)(Settings&)) {
  Settings s;
  f(s);
  return s;
}

}  // namespace

TEST(CommandLine, AcceptedArgumentsSetTheSettingsAndPrintNothing) {
  struct Case {
    std::vector<std::string> args;
    Settings expected;
  } cases[] = {
      {{}, Settings{}},
      {{"-M", "10", "-T", "3", "-r", "500"}, with([](Settings& s) {
         s.mdnsWait = 10;
         s.morlWait = 3;
         s.requestTimeout = 500;
       })},
      {{"--mdns-wait=0", "--morl-wait", "65535", "-r0"}, with([](Settings& s) {
         s.mdnsWait = 0;
         s.morlWait = 65535;
         s.requestTimeout = 0;
       })},
      {{"-j", "-a"}, with([](Settings& s) { s.json = s.all = true; })},
      {{"--json", "--all", "--verbose"},
       with([](Settings& s) { s.json = s.all = s.verbose = true; })},
      {{"--mdns", "--morl"}, with([](Settings& s) { s.mdnsOnly = s.morlOnly = true; })},
      {{"-m"}, with([](Settings& s) { s.mdnsOnly = true; })},
      {{"-t", "-v"}, with([](Settings& s) { s.morlOnly = s.verbose = true; })},
      {{"stray", "-j"}, with([](Settings& s) { s.json = true; })},
  };
  for (const auto& c : cases) {
    Parsed p = parse(c.args);
    std::string joined;
    for (const auto& a : c.args) joined += a + " ";
    EXPECT_TRUE(p.goOn) << joined;
    EXPECT_TRUE(p.s == c.expected) << joined;
    EXPECT_EQ(p.out, "") << joined;
    EXPECT_EQ(p.err, "") << joined;
  }
}

TEST(CommandLine, HelpListsEveryOptionWithItsDefault) {
  const std::string& help = helpText();
  ASSERT_EQ(help.rfind("Options:\n", 0), 0u) << help;
  ASSERT_GE(help.size(), 2u);
  EXPECT_EQ(help.substr(help.size() - 2), "\n\n");
  const char* lines[][2] = {
      {"-h [ --help ]", "Print help message"},
      {"--version", "Print version"},
      {"-j [ --json ]", "Print result in JSON"},
      {"-a [ --all ]", "Print all found addresses"},
      {"-m [ --mdns ]", "mDNS only"},
      {"-t [ --morl ]", "MORL only"},
      {"-v [ --verbose ]", "Print log messages"},
      {"-M [ --mdns-wait ] arg (=5)", "mDNS max silence time [seconds]"},
      {"-T [ --morl-wait ] arg (=5)", "MORL response await time [seconds]"},
      {"-r [ --request-timeout ] arg (=1000)", "GET request timeout [milliseconds]"},
  };
  size_t last = 0;
  for (const auto& l : lines) {
    size_t at = help.find(std::string("  ") + l[0]);
    ASSERT_NE(at, std::string::npos) << l[0] << "\n" << help;
    EXPECT_GT(at, last) << "options out of order at " << l[0];
    size_t eol = help.find('\n', at);
    EXPECT_NE(help.substr(at, eol - at).find(l[1]), std::string::npos) << l[0];
    last = at;
  }
  EXPECT_EQ(help.find("--version ]"), std::string::npos) << "version has no short form";
}

TEST(CommandLine, HelpAndVersionEndTheRun) {
  struct Case {
    std::vector<std::string> args;
    std::string out;
  } cases[] = {
      {{"--version"}, "Varnock CLI, current version\n"},
      {{"--help"}, helpText()},
      {{"-h", "-v"}, helpText()},
      {{"--help", "--version"}, helpText()},
      {{"--version", "-h"}, helpText()},
      {{"--version", "-j", "-M", "3"}, "Varnock CLI, current version\n"},
  };
  for (const auto& c : cases) {
    Parsed p = parse(c.args);
    EXPECT_FALSE(p.goOn) << c.args[0];
    EXPECT_EQ(p.out, c.out) << c.args[0];
    EXPECT_EQ(p.err, "") << c.args[0];
  }
}

TEST(CommandLine, RejectedArgumentsReportTheErrorAndPrintHelp) {
  struct Case {
    std::vector<std::string> args;
    std::string message;
  } cases[] = {
      {{"--frobnicate"}, "unrecognised option '--frobnicate'"},
      {{"-x"}, "unrecognised option '-x'"},
      {{"-M", "70000"}, "the argument ('70000') for option '--mdns-wait' is invalid"},
      {{"-T", "x"}, "the argument ('x') for option '--morl-wait' is invalid"},
      {{"-r", "1e3"}, "the argument ('1e3') for option '--request-timeout' is invalid"},
      {{"-M", "-1"}, "the argument ('-1') for option '--mdns-wait' is invalid"},
      {{"--morl-wait=+5"}, "the argument ('+5') for option '--morl-wait' is invalid"},
      {{"-r", " 7"}, "the argument (' 7') for option '--request-timeout' is invalid"},
      {{"-T", "65536"}, "the argument ('65536') for option '--morl-wait' is invalid"},
      {{"-j", "-M"}, "the required argument for option '--mdns-wait' is missing"},
      {{"--json=yes"}, "option '--json' does not take any arguments"},
  };
  for (const auto& c : cases) {
    Parsed p = parse(c.args);
    EXPECT_FALSE(p.goOn) << c.args[0];
    EXPECT_EQ(p.err, "Exception: " + c.message) << c.args[0];
    EXPECT_EQ(p.out, helpText()) << c.args[0];
  }
}

TEST(Log, PrintsOneLinePerCallOnlyWhenEnabled) {
  testing::internal::CaptureStdout();
  logd("%zu blocks", static_cast<size_t>(3));
  logEnable(true);
  logd("%zu blocks", static_cast<size_t>(4));
  logd("--- --- ---\nData from %s", "10.0.0.9");
  logEnable(false);
  logd("hidden %d", 1);
  std::fflush(stdout);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "4 blocks\n--- --- ---\nData from 10.0.0.9\n");
}
