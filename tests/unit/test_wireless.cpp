/*
 * The wireless network handlers against an in-memory device: add and
 * delete queue their reply before their first change, the setters queue
 * theirs before the apply step; their operation-mode gate: a station-mode
 * radio refuses every change before any write, and an unset operation mode
 * does not.
 */
#include <gtest/gtest.h>

#include "client/handlers.h"
#include "fake_uci.h"
#include "test_support.h"
#include "util/radios.h"

using namespace kctest;

namespace {

const char kApply[] = "/usr/sbin/kapri_util.lua cloud_action_apply";
const char kNonAp[] = "This method is not supported in Non-AP operation mode.";

/* Index of the first recorded command starting with prefix, or -1. */
int firstCommand(const FakeUci &dev, const std::string &prefix)
{
    for (size_t i = 0; i < dev.commands.size(); i++)
        if (dev.commands[i].compare(0, prefix.size(), prefix) == 0)
            return (int)i;
    return -1;
}

/* Every command that changes something (uci set, the script's
 * rm_wifi_config, setVlan and apply) ran with the reply already queued. */
void expectReplyBeforeChanges(const FakeUci &dev)
{
    int changes = 0;
    for (size_t i = 0; i < dev.commands.size(); i++) {
        const std::string &c = dev.commands[i];
        if (c.compare(0, 8, "uci set ") == 0 ||
            c.compare(0, 25, "/usr/sbin/kapri_util.lua ") == 0) {
            changes++;
            EXPECT_EQ(1, dev.repliesQueued[i]) << c;
        }
    }
    EXPECT_GT(changes, 0);
}

const char kAddBoth[] =
    "{\"jsonrpc\":\"2.0\",\"id\":\"a\",\"method\":\"vekAddNetwork\",\"params\":{"
    "\"deviceId\":\"x\",\"interface\":\"BOTH\",\"ssid\":\"Pair\",\"security\":\"WPA2-PSK\","
    "\"password\":\"pairpass1\",\"broadcastEnabled\":true}}";

} // namespace

TEST(AddNetwork, TheReplyIsQueuedBeforeTheFirstChange)
{
    DualBand radios;
    FakeUci dev;
    seed(dev);
    std::vector<std::string> replies = handle(vekAddNetworkHandler, kAddBoth);
    ASSERT_EQ(std::vector<std::string>{success("a")}, replies);
    expectReplyBeforeChanges(dev);
    EXPECT_EQ(kApply, dev.commands.back());
    EXPECT_EQ("0,1,2", dev.get("wireless.wifi0.wlanlist"));
    EXPECT_EQ("0,1", dev.get("wireless.wifi1.wlanlist"));
    EXPECT_EQ("w0_index0:w1_index0,w0_index1,w0_index2:w1_index1",
              dev.get("wireless.wifi0.network_profile"));
    EXPECT_EQ("Pair", dev.get("wireless.w0_index2.ssid"));
    EXPECT_EQ("Pair", dev.get("wireless.w1_index1.ssid"));
    EXPECT_EQ("0", dev.get("wireless.w1_index1.hidden"));
}

TEST(AddNetwork, AFreeSlotZeroIsListedButGetsNoOptions)
{
    DualBand radios;
    FakeUci dev;
    seed(dev);
    dev.uci["wireless.wifi1.wlanlist"] = "1";
    dev.uci["wireless.wifi1.enlist"] = "1";
    std::vector<std::string> replies = handle(vekAddNetworkHandler, kAddBoth);
    ASSERT_EQ(std::vector<std::string>{success("a")}, replies);
    EXPECT_EQ("1,0", dev.get("wireless.wifi1.wlanlist"));
    EXPECT_EQ("w0_index0:w1_index0,w0_index1,w0_index2:w1_index0",
              dev.get("wireless.wifi0.network_profile"));
    EXPECT_TRUE(dev.commandsStartingWith("uci set wireless.w1_index0.").empty());
    EXPECT_EQ("Pair", dev.get("wireless.w0_index2.ssid"));
}

TEST(DeleteNetwork, TheReplyIsQueuedBeforeTheFirstChange)
{
    DualBand radios;
    FakeUci dev;
    seed(dev);
    dev.uci["wireless.wifi0.network_profile"] = "w0_index0:w1_index0,w0_index1:w1_index3";
    dev.uci["wireless.wifi1.wlanlist"] = "0,3";
    dev.uci["wireless.wifi1.enlist"] = "1,0";
    std::vector<std::string> replies = handle(
        vekDeleteNetworkHandler,
        "{\"jsonrpc\":\"2.0\",\"id\":\"d\",\"method\":\"vekDeleteNetwork\",\"params\":{"
        "\"deviceId\":\"x\",\"networkIndex\":1}}");
    ASSERT_EQ(std::vector<std::string>{success("d")}, replies);
    expectReplyBeforeChanges(dev);
    EXPECT_EQ((std::vector<std::string>{
                  "/usr/sbin/kapri_util.lua rm_wifi_config w0_index1",
                  "/usr/sbin/kapri_util.lua rm_wifi_config w1_index3",
              }),
              dev.commandsStartingWith("/usr/sbin/kapri_util.lua rm_wifi_config"));
    EXPECT_EQ("/usr/sbin/kapri_util.lua setVlan", dev.commands[dev.commands.size() - 2]);
    EXPECT_EQ(kApply, dev.commands.back());
    EXPECT_EQ("w0_index0:w1_index0", dev.get("wireless.wifi0.network_profile"));
    EXPECT_EQ("0", dev.get("wireless.wifi0.wlanlist"));
    EXPECT_EQ("1", dev.get("wireless.wifi0.enlist"));
    EXPECT_EQ("0", dev.get("wireless.wifi1.wlanlist"));
    EXPECT_EQ("1", dev.get("wireless.wifi1.enlist"));
}

TEST(SetNetworkConfig, TheReplyIsQueuedBeforeTheApplyStep)
{
    DualBand radios;
    FakeUci dev;
    seed(dev);
    std::vector<std::string> replies = handle(
        vekSetNetworkConfigHandler,
        "{\"jsonrpc\":\"2.0\",\"id\":\"s\",\"method\":\"vekSetNetworkConfig\",\"params\":{"
        "\"deviceId\":\"x\",\"networkIndex\":1,\"ssid\":\"Office\",\"enabled\":false,"
        "\"security\":\"OPEN\"}}");
    ASSERT_EQ(std::vector<std::string>{success("s")}, replies);
    ASSERT_EQ(kApply, dev.commands.back());
    EXPECT_EQ(1, dev.repliesQueued.back());
    int firstSet = firstCommand(dev, "uci set ");
    ASSERT_GE(firstSet, 0);
    // the reply follows the last change
    for (size_t i = 0; i + 1 < dev.commands.size(); i++)
        EXPECT_EQ(0, dev.repliesQueued[i]) << dev.commands[i];
    EXPECT_EQ("1,0", dev.get("wireless.wifi0.enlist"));
    EXPECT_EQ("0", dev.get("wireless.w0_index1.WLANEnable"));
}

TEST(SetNetworkConfig, MissingEnableListsEndItWithAnErrorAfterTheFirstWrites)
{
    DualBand radios;
    FakeUci dev;
    seed(dev);
    dev.uci.erase("wireless.wifi0.enlist");
    std::vector<std::string> replies = handle(
        vekSetNetworkConfigHandler,
        "{\"jsonrpc\":\"2.0\",\"id\":\"m\",\"method\":\"vekSetNetworkConfig\",\"params\":{"
        "\"deviceId\":\"x\",\"networkIndex\":1,\"ssid\":\"Office\",\"enabled\":true,"
        "\"security\":\"OPEN\"}}");
    ASSERT_EQ(std::vector<std::string>{refusal("m", "")}, replies);
    // ssid, VLAN and enable stay staged; nothing is applied
    EXPECT_EQ("Office", dev.get("wireless.w0_index1.ssid"));
    EXPECT_EQ("1", dev.get("wireless.w0_index1.WLANEnable"));
    EXPECT_EQ(-1, firstCommand(dev, kApply));
    EXPECT_EQ(-1, firstCommand(dev, "uci set wireless.w0_index1.hidden"));
}

TEST(WirelessOpModeGate, AStationRadioZeroRefusesEveryChangeBeforeAnyWrite)
{
    DualBand radios;
    FakeUci dev;
    seed(dev);
    dev.uci["wireless.wifi0.opmode"] = "sta";
    struct Case {
        void (*handler)(const cJSON *);
        const char *params;
    } cases[] = {
        {vekSetNetworkConfigHandler,
         "\"networkIndex\":1,\"ssid\":\"n\",\"security\":\"OPEN\""},
        {vekAddNetworkHandler, "\"interface\":\"2.4GHz\",\"ssid\":\"n\",\"security\":\"OPEN\""},
        {vekAddNetworkHandler, "\"interface\":\"5GHz\",\"ssid\":\"n\",\"security\":\"OPEN\""},
        {vekDeleteNetworkHandler, "\"networkIndex\":1"},
    };
    for (const Case &c : cases) {
        dev.clearRecord();
        std::vector<std::string> replies = handle(
            c.handler, std::string("{\"jsonrpc\":\"2.0\",\"id\":\"o\",\"method\":\"m\","
                                   "\"params\":{\"deviceId\":\"x\",") +
                           c.params + "}}");
        EXPECT_EQ(std::vector<std::string>{refusal("o", kNonAp)}, replies) << c.params;
        EXPECT_TRUE(dev.sets().empty()) << c.params;
    }
}

TEST(WirelessOpModeGate, AnUnsetModeDoesNotRefuse)
{
    DualBand radios;
    FakeUci dev;
    seed(dev);
    dev.uci.erase("wireless.wifi0.opmode");
    dev.uci.erase("wireless.wifi1.opmode");
    std::vector<std::string> replies = handle(
        vekSetNetworkConfigHandler,
        "{\"jsonrpc\":\"2.0\",\"id\":\"u\",\"method\":\"vekSetNetworkConfig\",\"params\":{"
        "\"deviceId\":\"x\",\"networkIndex\":1,\"ssid\":\"n\",\"security\":\"OPEN\"}}");
    EXPECT_EQ(std::vector<std::string>{success("u")}, replies);
    replies = handle(vekAddNetworkHandler,
                     "{\"jsonrpc\":\"2.0\",\"id\":\"v\",\"method\":\"vekAddNetwork\",\"params\":{"
                     "\"deviceId\":\"x\",\"interface\":\"5GHz\",\"ssid\":\"n\","
                     "\"security\":\"OPEN\"}}");
    EXPECT_EQ(std::vector<std::string>{success("v")}, replies);
}
