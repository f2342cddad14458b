// Mask validation and the same-network check through the utility script.
#include <gtest/gtest.h>

#include "test_support.h"
#include "util/ip_network.h"
#include "util/shell.h"

using namespace kctest;

TEST(SubnetValidation, ContiguousPrefixesOfFiveToThirtyOneBits)
{
    EXPECT_EQ(1, checkSubnetValidation("255.255.255.0"));
    EXPECT_EQ(1, checkSubnetValidation("248.0.0.0"));        // 5 ones
    EXPECT_EQ(1, checkSubnetValidation("255.255.255.254"));  // 31 ones
    EXPECT_EQ(1, checkSubnetValidation("255.255.128.0"));
    EXPECT_EQ(0, checkSubnetValidation("255.0.255.0"));      // a one after a zero
    EXPECT_EQ(0, checkSubnetValidation("240.0.0.0"));        // 4 ones
    EXPECT_EQ(0, checkSubnetValidation("255.255.255.255"));  // 32 ones
    EXPECT_EQ(0, checkSubnetValidation("0.0.0.0"));
    EXPECT_EQ(0, checkSubnetValidation("255.255.255.1"));
    EXPECT_EQ(0, checkSubnetValidation(""));
    EXPECT_EQ(0, checkSubnetValidation(nullptr));
}

TEST(SameNetwork, TheUtilityScriptsAnswersAreComparedByteForByte)
{
    FakeTools tools;
    // a stand-in for the utility script: the network id is the address
    // with its last number dropped, and records every call
    std::string script = tools.dir().file("bin/kapri_util.lua");
    tools.tool("kapri_util.lua",
               "printf '%s|' \"$@\" >> '" + tools.dir().file("calls.log") + "'\n"
               "echo >> '" + tools.dir().file("calls.log") + "'\n"
               "echo \"${2%.*}/$3\"");
    // the agent runs the script by its absolute device path: point a
    // backend at the stand-in instead
    static std::string s_script;
    s_script = script;
    struct Redirect {
        static FILE *open(const char *cmd, const char *mode)
        {
            std::string c = cmd;
            const std::string device = "/usr/sbin/kapri_util.lua";
            if (c.compare(0, device.size(), device) == 0)
                c = s_script + c.substr(device.size());
            return popen(c.c_str(), mode);
        }
        static int close(FILE *f) { return pclose(f); }
        static int run(const char *cmd) { return system(cmd); }
    };
    const ShellBackend backend = {Redirect::open, Redirect::close, Redirect::run};
    setShellBackend(&backend);
    EXPECT_EQ(1, bothIpInSameNetwork("192.168.1.20", "192.168.1.1", "255.255.255.0"));
    EXPECT_EQ(0, bothIpInSameNetwork("192.168.1.20", "10.0.0.1", "255.255.255.0"));
    // the mask reaches the script too (its answer here carries it)
    EXPECT_EQ(1, bothIpInSameNetwork("192.168.1.20", "192.168.1.1", "255.255.0.0"));
    // text from a request reaches the script as one literal word
    bothIpInSameNetwork("1.2.3.4; touch x", "1.2.3.4", "255.0.0.0");
    setShellBackend(nullptr);
    EXPECT_EQ("getNetwordId|192.168.1.20|255.255.255.0|\n"
              "getNetwordId|192.168.1.1|255.255.255.0|\n"
              "getNetwordId|192.168.1.20|255.255.255.0|\n"
              "getNetwordId|10.0.0.1|255.255.255.0|\n"
              "getNetwordId|192.168.1.20|255.255.0.0|\n"
              "getNetwordId|192.168.1.1|255.255.0.0|\n"
              "getNetwordId|1.2.3.4; touch x|255.0.0.0|\n"
              "getNetwordId|1.2.3.4|255.0.0.0|\n",
              tools.calls());
    EXPECT_FALSE(tools.dir().exists("x"));
}
