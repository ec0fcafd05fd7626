#include "app/ResultPrinter.h"

#include <gtest/gtest.h>

#include <sstream>

// What a LAN run cannot show: addresses of odd shapes and overlong fields.
TEST(ResultPrinter, ListsOnlyWholeDottedIPv4AddressesAndWidensLongFields) {
  const std::string n(31, 'n'), v(21, 'v');
  const std::vector<Entry> records{
      {"", "NoAddress", "1", "t"},           {"1.2.3.4", n, v, "t"},
      {"1.2.3.4.5", "Five", "1", "t"},       {"10.0.0.1x", "Suffix", "1", "t"},
      {"192.168.1.20:80", "Port", "1", "t"}, {"192.168.1.5", "", "", "x"},
      {"999.1.1.1", "Odd", "", "t"},         {"[fe80", "Six", "1", "t"},
      {"fe80::1", "Six", "1", "t"},          {"x10.0.0.1", "Prefix", "1", "t"},
  };
  const std::string wide = "        1.2.3.4: " + n + v + "\n";
  const std::string odd = "      999.1.1.1:                            Odd                    \n";
  auto print = [&records](bool json, bool all) {
    std::ostringstream out;
    printResult(out, records, json, all);
    return out.str();
  };
  EXPECT_EQ(print(false, false), wide + odd);
  EXPECT_EQ(print(false, true), wide + "    192.168.1.5: \n" + odd);
  EXPECT_EQ(print(true, false),
            "{\n\t\"devices\" : \n\t[\n\t\t{\n\t\t\t\"device_type\" : \"t\",\n\t\t\t\"ip\" : "
            "\"1.2.3.4\",\n" +
                ("\t\t\t\"name\" : \"" + n + "\",\n\t\t\t\"version\" : \"" + v + "\"\n\t\t},\n") +
                "\t\t{\n\t\t\t\"device_type\" : \"t\",\n\t\t\t\"ip\" : \"999.1.1.1\",\n"
                "\t\t\t\"name\" : \"Odd\",\n\t\t\t\"version\" : \"\"\n\t\t}\n\t]\n}\n\n");
}
