#include "app/CommandLine.h"

#include <gtest/gtest.h>

#include <iostream>
#include <string>
#include <vector>

namespace {

/// Stands for the help, whose exact text README.md's `varnock --help` shows (ShownSessions).
const std::string kHelp = "Options:\n";

std::string invalid(const std::string& value, const std::string& option) {
  return "the argument ('" + value + "') for option '--" + option + "' is invalid";
}

struct Case {
  std::vector<std::string> args;
  std::string settings;  ///< switches by short letter ("-" when off), -M -T -r; "" when it ends
  std::string out = "";
  std::string error = "";  ///< after "Exception: " on standard error
};

const Case kCases[] = {
    {{}, "----- 5 5 1000"},
    {{"-M", "10", "-T", "3", "-r", "500"}, "----- 10 3 500"},
    {{"--mdns-wait=0", "--morl-wait", "65535", "-r0"}, "----- 0 65535 0"},
    {{"stray", "-j", "-m"}, "-m-j- 5 5 1000"},
    {{"-t", "-v"}, "v-t-- 5 5 1000"},
    {{"--json", "--all", "--verbose"}, "v--ja 5 5 1000"},
    {{"--mdns", "--morl", "-a"}, "-mt-a 5 5 1000"},
    {{"--version", "-j", "-M", "3"}, "", "Varnock CLI, current version\n"},
    {{"-h", "-v"}, "", kHelp},
    {{"--version", "--help"}, "", kHelp},
    {{"-x"}, "", kHelp, "unrecognised option '-x'"},
    {{"-M", "-1"}, "", kHelp, invalid("-1", "mdns-wait")},
    {{"--morl-wait=+5"}, "", kHelp, invalid("+5", "morl-wait")},
    {{"-T", "65536"}, "", kHelp, invalid("65536", "morl-wait")},
    {{"-r", " 7"}, "", kHelp, invalid(" 7", "request-timeout")},
    {{"-j", "-M"}, "", kHelp, "the required argument for option '--mdns-wait' is missing"},
    {{"--json=yes"}, "", kHelp, "option '--json' does not take any arguments"},
};

}  // namespace

TEST(CommandLine, ArgumentsGiveTheSettingsOrTheExactHelpVersionOrErrorText) {
  std::string help;
  for (const Case& c : kCases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    std::vector<char*> argv{const_cast<char*>("varnock")};
    for (const auto& a : c.args) argv.push_back(const_cast<char*>(a.c_str()));
    bool on[5] = {};  // as main sets them
    unsigned short value[3] = {5, 5, 1000};
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    bool goOn = handleCommandLine(static_cast<int>(argv.size()), argv.data(), on[0], on[1], on[2],
                                  on[3], on[4], value[0], value[1], value[2]);
    std::cout.flush();
    std::string out = testing::internal::GetCapturedStdout();
    std::string err = testing::internal::GetCapturedStderr();
    std::string settings;
    for (int i = 0; goOn && i < 5; ++i) settings += on[i] ? "vmtja"[i] : '-';
    for (int i = 0; goOn && i < 3; ++i) settings += " " + std::to_string(value[i]);
    EXPECT_EQ(settings, c.settings);
    if (c.out == kHelp && help.empty()) help = out;  // the first: "-h"
    EXPECT_EQ(out, c.out == kHelp ? help : c.out);
    EXPECT_EQ(out.substr(0, c.out.size()), c.out);
    EXPECT_EQ(err, c.error.empty() ? "" : "Exception: " + c.error);
  }
}
