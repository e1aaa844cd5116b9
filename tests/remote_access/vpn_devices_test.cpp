#include "remote_access/vpn_devices.h"

#include <gtest/gtest.h>

#include <string>

#include "helpers.h"

namespace {

std::string parsed(const std::string &output) {
    return print(vpn_devices_parse(output));
}

TEST(vpn_devices, tokens_are_taken_three_at_a_time) {
    const std::string first =
        R"({"ipAddress":"10.0.0.2","connectionTime":{"count":"5","format":"min"}})";
    const std::string second =
        R"({"ipAddress":"10.0.0.3","connectionTime":{"count":"1","format":"h"}})";
    EXPECT_EQ(parsed("5;min;10.0.0.2"), "[" + first + "]");
    EXPECT_EQ(parsed("5;min;10.0.0.2;1;h;10.0.0.3;7"), "[" + first + "," + second + "]");
    EXPECT_EQ(parsed(";5;;min;10.0.0.2;;;1;h;10.0.0.3;"), "[" + first + "," + second + "]");
    EXPECT_EQ(parsed("5;min;10.0.0.2;\n"), "[" + first + "]");
    EXPECT_EQ(parsed("5;min;10\n"),
              R"([{"ipAddress":"10\n","connectionTime":{"count":"5","format":"min"}}])");
    for (const char *incomplete : {"", "\n", ";;;", "5", "5;min", "5;min;"}) {
        EXPECT_EQ(parsed(incomplete), "[]") << incomplete;
    }
}

}  // namespace
