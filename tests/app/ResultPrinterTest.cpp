#include "app/ResultPrinter.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {
std::string print(const std::vector<Entry>& entries, bool json, bool all) {
  std::ostringstream out;
  printResult(out, entries, json, all);
  return out.str();
}

const std::vector<Entry> kMixed{
    {"", "NoAddress", "1", "pallor_module"},
    {"10.0.0.7", "Ctrl", "", ""},
    {"192.168.1.10", "Module", "2.0.1", "pallor_module"},
    {"192.168.1.5", "", "", "x"},
    {"192.168.1.9", "Dorn", "1.0", "extender_dorn"},
    {"999.1.1.1", "Odd", "v", "t"},
    {"[fe80", "Six", "1", "t"},
    {"fe80::1", "Six", "1", "t"},
    {"192.168.1.20:80", "Port", "1", "t"},
    {"10.0.0.8", "NoType", "1", ""},
};
}  // namespace

TEST(ResultText, PrintsOnlyNamedTypedIPv4RecordsInListOrder) {
  EXPECT_EQ(print(kMixed, false, false),
            "   192.168.1.10:                         Module               2.0.1\n"
            "    192.168.1.9:                           Dorn                 1.0\n"
            "      999.1.1.1:                            Odd                   v\n");
}

TEST(ResultText, AllPrintsEveryIPv4RecordAndNamelessOnesBare) {
  EXPECT_EQ(print(kMixed, false, true),
            "       10.0.0.7:                           Ctrl                    \n"
            "   192.168.1.10:                         Module               2.0.1\n"
            "    192.168.1.5: \n"
            "    192.168.1.9:                           Dorn                 1.0\n"
            "      999.1.1.1:                            Odd                   v\n"
            "       10.0.0.8:                         NoType                   1\n");
}

TEST(ResultText, LongFieldsWidenTheLine) {
  EXPECT_EQ(print({{"1.2.3.4", std::string(31, 'n'), std::string(21, 'v'), "t"}}, false, false),
            "        1.2.3.4: " + std::string(31, 'n') + std::string(21, 'v') + "\n");
}

TEST(ResultText, NothingPassingPrintsNothing) {
  EXPECT_EQ(print({}, false, false), "");
  EXPECT_EQ(print({{"fe80::1", "A", "1", "t"}, {"", "B", "1", "t"}}, false, true), "");
}

TEST(ResultJson, MembersInKeyOrderAndATrailingEmptyLine) {
  EXPECT_EQ(print({{"192.168.1.9", "Dorn", "1.0", "extender_dorn"}}, true, false),
            "{\n"
            "\t\"devices\" : \n"
            "\t[\n"
            "\t\t{\n"
            "\t\t\t\"device_type\" : \"extender_dorn\",\n"
            "\t\t\t\"ip\" : \"192.168.1.9\",\n"
            "\t\t\t\"name\" : \"Dorn\",\n"
            "\t\t\t\"version\" : \"1.0\"\n"
            "\t\t}\n"
            "\t]\n"
            "}\n"
            "\n");
}

TEST(ResultJson, EmptyResultIsAnEmptyDevicesArray) {
  EXPECT_EQ(print({}, true, false), "{\n\t\"devices\" : []\n}\n\n");
  EXPECT_EQ(print({{"10.0.0.7", "Ctrl", "", ""}}, true, false), "{\n\t\"devices\" : []\n}\n\n");
}

TEST(ResultJson, AllKeepsEmptyFieldsAsEmptyStrings) {
  std::string out = print({{"10.0.0.7", "", "", ""}, {"[fe80", "", "", ""}}, true, true);
  EXPECT_EQ(out,
            "{\n\t\"devices\" : \n\t[\n\t\t{\n\t\t\t\"device_type\" : \"\",\n"
            "\t\t\t\"ip\" : \"10.0.0.7\",\n\t\t\t\"name\" : \"\",\n"
            "\t\t\t\"version\" : \"\"\n\t\t}\n\t]\n}\n\n");
}
