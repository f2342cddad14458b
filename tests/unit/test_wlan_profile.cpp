/*
 * The wireless network helpers against an in-memory UCI store: free slots,
 * adding and removing list entries and profile entries (the substring
 * rule included), enable flags, the brother of a paired network, the
 * security writes, the pass-phrase and RADIUS rules, the SSID length, the
 * operation-mode checks and the buffer limits that cut long lists.
 */
#include <gtest/gtest.h>

#include "fake_uci.h"
#include "test_support.h"
#include "util/radios.h"
#include "util/wlan_profile.h"

using namespace kctest;

namespace {

std::string take(char *text)
{
    std::string s = text != nullptr ? text : "<null>";
    free(text);
    return s;
}

/* Keeps g_support5G as the test found it. */
struct Radio5G {
    explicit Radio5G(int present) : saved(g_support5G.load()) { g_support5G = present; }
    ~Radio5G() { g_support5G = saved; }
    int saved;
};

} // namespace

/* ---- appendToString ---- */

TEST(AppendToString, JoinsBothTextsWithoutNewlines)
{
    EXPECT_EQ("0,1,3", take(appendToString("0,1\n", ",3\n", 256)));
    EXPECT_EQ("ab", take(appendToString("\na\n", "\nb", 256)));
    EXPECT_EQ(",1", take(appendToString(nullptr, ",1", 256)));
    EXPECT_EQ("x", take(appendToString("x", nullptr, 256)));
}

TEST(AppendToString, TheResultIsCutToItsSize)
{
    std::string a(250, 'a');
    std::string out = take(appendToString(a.c_str(), ",w0_index3", 256));
    EXPECT_EQ(255u, out.size());
    EXPECT_EQ(a + ",w0_i", out);
    EXPECT_EQ("abc", take(appendToString("ab", "cd", 4)));
}

/* ---- getFreeWlanIndex ---- */

TEST(FreeWlanIndex, AllEightUsedGivesNone)
{
    FakeUci dev;
    dev.uci["wireless.wifi0.wlanlist"] = "0,1,2,3,4,5,6,7";
    EXPECT_EQ(-1, getFreeWlanIndex(0));
    EXPECT_EQ(std::vector<std::string>{"uci get wireless.wifi0.wlanlist | tr -d '\\n'"},
              dev.commands);
}

TEST(FreeWlanIndex, TheLowestGapIsTaken)
{
    FakeUci dev;
    dev.uci["wireless.wifi1.wlanlist"] = "0,2";
    EXPECT_EQ(1, getFreeWlanIndex(1));
    dev.uci["wireless.wifi1.wlanlist"] = "1, 0, 3";
    EXPECT_EQ(2, getFreeWlanIndex(1));
    dev.uci["wireless.wifi1.wlanlist"] = "0,1,2,3,4,5,6";
    EXPECT_EQ(7, getFreeWlanIndex(1));
}

TEST(FreeWlanIndex, AnEmptyOrMissingListGivesSlotZero)
{
    FakeUci dev;
    EXPECT_EQ(0, getFreeWlanIndex(0));
    dev.uci["wireless.wifi0.wlanlist"] = "";
    EXPECT_EQ(0, getFreeWlanIndex(0));
}

TEST(FreeWlanIndex, ReadsLongListsUpTo16384Bytes)
{
    FakeUci dev;
    // 300 blanks before the entries: a 256-byte read would see none of them
    dev.uci["wireless.wifi0.wlanlist"] = std::string(300, ' ') + "0,1";
    EXPECT_EQ(2, getFreeWlanIndex(0));
}

/* ---- addWlanIndex / addNetworkProfile ---- */

TEST(AddWlanIndex, AppendsTheSlotAndAnEnabledFlag)
{
    FakeUci dev;
    dev.uci["wireless.wifi0.wlanlist"] = "0,1";
    dev.uci["wireless.wifi0.enlist"] = "1,1";
    addWlanIndex(0, 3);
    EXPECT_EQ("0,1,3", dev.get("wireless.wifi0.wlanlist"));
    EXPECT_EQ("1,1,1", dev.get("wireless.wifi0.enlist"));
    EXPECT_EQ((std::vector<std::string>{
                  "uci get wireless.wifi0.wlanlist | tr -d '\\n'",
                  "uci set wireless.wifi0.wlanlist=\"0,1,3\"",
                  "uci get wireless.wifi0.enlist | tr -d '\\n'",
                  "uci set wireless.wifi0.enlist=\"1,1,1\"",
              }),
              dev.commands);
}

TEST(AddWlanIndex, AnEmptyListGetsALeadingComma)
{
    FakeUci dev;
    addWlanIndex(1, 0);
    EXPECT_EQ(",0", dev.get("wireless.wifi1.wlanlist"));
    EXPECT_EQ(",1", dev.get("wireless.wifi1.enlist"));
}

TEST(AddWlanIndex, TheRebuiltListIsCutTo255Characters)
{
    FakeUci dev;
    std::string longList(254, '0');
    dev.uci["wireless.wifi0.wlanlist"] = longList;
    dev.uci["wireless.wifi0.enlist"] = "1";
    addWlanIndex(0, 5);
    EXPECT_EQ(longList + ",", dev.get("wireless.wifi0.wlanlist"));
}

TEST(AddNetworkProfile, OneRadioOrBoth)
{
    FakeUci dev;
    dev.uci["wireless.wifi0.wlanlist"] = "0,1";
    dev.uci["wireless.wifi0.enlist"] = "1,1";
    dev.uci["wireless.wifi1.wlanlist"] = "0,1";
    dev.uci["wireless.wifi1.enlist"] = "1,0";
    dev.uci["wireless.wifi0.network_profile"] = "w0_index0:w1_index0,w0_index1,w1_index1";

    EXPECT_EQ(0, addNetworkProfile(0, 2, -1));
    EXPECT_EQ("0,1,2", dev.get("wireless.wifi0.wlanlist"));
    EXPECT_EQ("0,1", dev.get("wireless.wifi1.wlanlist"));
    EXPECT_EQ("w0_index0:w1_index0,w0_index1,w1_index1,w0_index2",
              dev.get("wireless.wifi0.network_profile"));

    EXPECT_EQ(0, addNetworkProfile(1, -1, 4));
    EXPECT_EQ("0,1,4", dev.get("wireless.wifi1.wlanlist"));
    EXPECT_EQ("1,0,1", dev.get("wireless.wifi1.enlist"));
    EXPECT_EQ("0,1,2", dev.get("wireless.wifi0.wlanlist"));
    EXPECT_EQ("w0_index0:w1_index0,w0_index1,w1_index1,w0_index2,w1_index4",
              dev.get("wireless.wifi0.network_profile"));

    EXPECT_EQ(0, addNetworkProfile(2, 3, 2));
    EXPECT_EQ("0,1,2,3", dev.get("wireless.wifi0.wlanlist"));
    EXPECT_EQ("1,1,1,1", dev.get("wireless.wifi0.enlist"));
    EXPECT_EQ("0,1,4,2", dev.get("wireless.wifi1.wlanlist"));
    EXPECT_EQ("1,0,1,1", dev.get("wireless.wifi1.enlist"));
    EXPECT_EQ("w0_index0:w1_index0,w0_index1,w1_index1,w0_index2,w1_index4,"
              "w0_index3:w1_index2",
              dev.get("wireless.wifi0.network_profile"));
}

TEST(AddNetworkProfile, AnyOtherModeAddsAPair)
{
    FakeUci dev;
    dev.uci["wireless.wifi0.network_profile"] = "w0_index0";
    addNetworkProfile(7, 5, 6);
    EXPECT_EQ("w0_index0,w0_index5:w1_index6", dev.get("wireless.wifi0.network_profile"));
    EXPECT_EQ(",5", dev.get("wireless.wifi0.wlanlist"));
    EXPECT_EQ(",6", dev.get("wireless.wifi1.wlanlist"));
}

/* ---- removeNetworkProfile / removeWlanIndex / removeNetwork ---- */

TEST(RemoveNetworkProfile, EveryEntryHoldingTheTextGoes)
{
    FakeUci dev;
    dev.uci["wireless.wifi0.network_profile"] = "w0_index0:w1_index0,w0_index2:w1_index4,w1_index3";
    EXPECT_EQ(0, removeNetworkProfile("w0_index2"));
    // a substring test: the whole pair is dropped
    EXPECT_EQ("w0_index0:w1_index0,w1_index3", dev.get("wireless.wifi0.network_profile"));
    EXPECT_EQ(0, removeNetworkProfile("w1_index3"));
    EXPECT_EQ("w0_index0:w1_index0", dev.get("wireless.wifi0.network_profile"));
    // nothing matching: written back as it is
    EXPECT_EQ(0, removeNetworkProfile("w0_index7"));
    EXPECT_EQ("w0_index0:w1_index0", dev.get("wireless.wifi0.network_profile"));
    EXPECT_EQ(3u, dev.sets().size());
}

TEST(RemoveNetworkProfile, ReadsOnly256Bytes)
{
    FakeUci dev;
    std::string filler(240, 'A');
    dev.uci["wireless.wifi0.network_profile"] = "w0_index5," + filler + ",w0_index6";
    removeNetworkProfile("w0_index5");
    // the first 256 bytes: "w0_index5," (10), the filler (240), "," and "w0_in"
    EXPECT_EQ(filler + ",w0_in", dev.get("wireless.wifi0.network_profile"));
}

TEST(RemoveWlanIndex, DropsTheSlotAndTheFlagAtItsPosition)
{
    FakeUci dev;
    dev.uci["wireless.wifi0.wlanlist"] = "0,1,3";
    dev.uci["wireless.wifi0.enlist"] = "1,0,1";
    EXPECT_EQ(0, removeWlanIndex(0, 1));
    EXPECT_EQ("0,3", dev.get("wireless.wifi0.wlanlist"));
    EXPECT_EQ("1,1", dev.get("wireless.wifi0.enlist"));

    dev.uci["wireless.wifi1.wlanlist"] = "0,2,5";
    dev.uci["wireless.wifi1.enlist"] = "1,1,0";
    EXPECT_EQ(0, removeWlanIndex(1, 5));
    EXPECT_EQ("0,2", dev.get("wireless.wifi1.wlanlist"));
    EXPECT_EQ("1,1", dev.get("wireless.wifi1.enlist"));
}

TEST(RemoveWlanIndex, ASlotNotListedWritesNothing)
{
    FakeUci dev;
    dev.uci["wireless.wifi0.wlanlist"] = "0,1,3";
    dev.uci["wireless.wifi0.enlist"] = "1,0,1";
    EXPECT_EQ(-1, removeWlanIndex(0, 2));
    EXPECT_TRUE(dev.sets().empty());
    EXPECT_EQ(std::vector<std::string>{"uci get wireless.wifi0.wlanlist | tr -d '\\n'"},
              dev.commands);
}

TEST(RemoveNetwork, ARadioZeroNetwork)
{
    FakeUci dev;
    dev.uci["wireless.wifi0.network_profile"] = "w0_index0:w1_index0,w0_index3,w1_index1";
    dev.uci["wireless.wifi0.wlanlist"] = "0,3";
    dev.uci["wireless.wifi0.enlist"] = "1,0";
    EXPECT_EQ(0, removeNetwork("w0_index3"));
    EXPECT_EQ("w0_index0:w1_index0,w1_index1", dev.get("wireless.wifi0.network_profile"));
    EXPECT_EQ("0", dev.get("wireless.wifi0.wlanlist"));
    EXPECT_EQ("1", dev.get("wireless.wifi0.enlist"));
}

TEST(RemoveNetwork, HalfOfAPairDropsThePairFromTheProfileOnly)
{
    FakeUci dev;
    dev.uci["wireless.wifi0.network_profile"] = "w0_index0:w1_index0,w0_index2:w1_index4";
    dev.uci["wireless.wifi0.wlanlist"] = "0,2";
    dev.uci["wireless.wifi0.enlist"] = "1,1";
    dev.uci["wireless.wifi1.wlanlist"] = "0,4";
    dev.uci["wireless.wifi1.enlist"] = "1,1";
    EXPECT_EQ(0, removeNetwork("w0_index2"));
    EXPECT_EQ("w0_index0:w1_index0", dev.get("wireless.wifi0.network_profile"));
    EXPECT_EQ("0", dev.get("wireless.wifi0.wlanlist"));
    // the other radio's lists are the brother's own removal
    EXPECT_EQ("0,4", dev.get("wireless.wifi1.wlanlist"));
}

TEST(RemoveNetwork, MissingOrForeignNames)
{
    FakeUci dev;
    EXPECT_EQ(-1, removeNetwork(nullptr));
    EXPECT_EQ(0, removeNetwork("w2_index1"));
    EXPECT_EQ(0, removeNetwork("w0"));
    EXPECT_TRUE(dev.commands.empty());
}

/* ---- setEnlistFlag ---- */

TEST(SetEnlistFlag, TheFlagAtTheSlotsPositionIsSet)
{
    FakeUci dev;
    EXPECT_EQ(1, setEnlistFlag("1,1,1", "0,3,5", "w0_index3", 0, "wireless.wifi0.enlist"));
    EXPECT_EQ("1,0,1", dev.get("wireless.wifi0.enlist"));
    EXPECT_EQ(1, setEnlistFlag("0, 0, 0", "0, 3, 5", "w1_index5", 1, "wireless.wifi1.enlist"));
    EXPECT_EQ("0, 0, 1", dev.get("wireless.wifi1.enlist"));
}

TEST(SetEnlistFlag, AnUnlistedSlotWritesTheEnlistBackUnchanged)
{
    FakeUci dev;
    EXPECT_EQ(1, setEnlistFlag("1,0\n", "0,3", "w0_index6", 1, "wireless.wifi0.enlist"));
    EXPECT_EQ("1,0", dev.get("wireless.wifi0.enlist"));
}

TEST(SetEnlistFlag, MissingListsWriteNothing)
{
    FakeUci dev;
    EXPECT_EQ(-1, setEnlistFlag(nullptr, "0,1", "w0_index1", 1, "wireless.wifi0.enlist"));
    EXPECT_EQ(-1, setEnlistFlag("1,1", nullptr, "w0_index1", 1, "wireless.wifi0.enlist"));
    EXPECT_EQ(-1, setEnlistFlag("", "0,1", "w0_index1", 1, "wireless.wifi0.enlist"));
    EXPECT_EQ(-1, setEnlistFlag("1,1", "", "w0_index1", 1, "wireless.wifi0.enlist"));
    EXPECT_TRUE(dev.commands.empty());
}

/* ---- getBrotherIndex ---- */

TEST(BrotherIndex, TheOtherHalfOfThePair)
{
    char profile[] = "w0_index0:w1_index0,w0_index2:w1_index5";
    EXPECT_EQ("w1_index5", take(getBrotherIndex("w0_index2", profile)));
    char again[] = "w0_index0:w1_index0,w0_index2:w1_index5\n";
    EXPECT_EQ("w0_index2", take(getBrotherIndex("w1_index5", again)));
    char first[] = "w0_index0:w1_index0,w0_index2:w1_index5";
    EXPECT_EQ("w1_index0", take(getBrotherIndex("w0_index0", first)));
}

TEST(BrotherIndex, NoneForAnUnpairedOrUnknownNetwork)
{
    char profile[] = "w0_index0:w1_index0,w0_index2:w1_index5";
    EXPECT_EQ(nullptr, getBrotherIndex("w0_index1", profile));
    char single[] = "w0_index0:w1_index0,w0_index1,w1_index2";
    EXPECT_EQ(nullptr, getBrotherIndex("w0_index1", single));
    char empty[] = "";
    EXPECT_EQ(nullptr, getBrotherIndex("w0_index1", empty));
    EXPECT_EQ(nullptr, getBrotherIndex("w0_index1", nullptr));
}

/* ---- setWifiSecurity ---- */

TEST(WifiSecurity, PreSharedKeyModesWriteTheKey)
{
    FakeUci dev;
    setWifiSecurity("w0_index1", "psk2 aes", "secret12", "srv", 1812, "s");
    setWifiSecurity("w1_index1", "psk-mixed tkip+aes", "secret34", nullptr, WLAN_ABSENT_PORT,
                    nullptr);
    EXPECT_EQ((std::vector<std::string>{
                  "uci set wireless.w0_index1.encryption=\"psk2 aes\"",
                  "uci set wireless.w0_index1.key=\"secret12\"",
                  "uci set wireless.w1_index1.encryption=\"psk-mixed tkip+aes\"",
                  "uci set wireless.w1_index1.key=\"secret34\"",
              }),
              dev.commands);
}

TEST(WifiSecurity, RadiusModesWriteServerPortAndSecret)
{
    FakeUci dev;
    setWifiSecurity("w0_index2", "wpa2 aes", "ignored1", "10.0.0.5", 1812, "radsecret");
    setWifiSecurity("w0_index3", "wpa-mixed tkip+aes", nullptr, "10.0.0.6", WLAN_ABSENT_PORT,
                    "other");
    EXPECT_EQ((std::vector<std::string>{
                  "uci set wireless.w0_index2.encryption=\"wpa2 aes\"",
                  "uci set wireless.w0_index2.server=\"10.0.0.5\"",
                  "uci set wireless.w0_index2.port=1812",
                  "uci set wireless.w0_index2.WLANWpaRadiusSrvSecret=\"radsecret\"",
                  "uci set wireless.w0_index3.encryption=\"wpa-mixed tkip+aes\"",
                  "uci set wireless.w0_index3.server=\"10.0.0.6\"",
                  "uci set wireless.w0_index3.WLANWpaRadiusSrvSecret=\"other\"",
              }),
              dev.commands);
}

TEST(WifiSecurity, OpenWritesOnlyTheEncryption)
{
    FakeUci dev;
    dev.uci["wireless.w0_index4.key"] = "oldkey12";
    setWifiSecurity("w0_index4", "none", "newkey12", "srv", 1, "sec");
    EXPECT_EQ(std::vector<std::string>{"uci set wireless.w0_index4.encryption=\"none\""},
              dev.commands);
    EXPECT_EQ("oldkey12", dev.get("wireless.w0_index4.key"));
}

TEST(WifiSecurity, AKeyReachesUciLiterally)
{
    FakeUci dev;
    setWifiSecurity("w0_index1", "psk2 aes", "a\"b$c`d\\e", nullptr, WLAN_ABSENT_PORT, nullptr);
    EXPECT_EQ("a\"b$c`d\\e", dev.get("wireless.w0_index1.key"));
}

/* ---- checks ---- */

TEST(Ssid, OneToThirtyTwoBytes)
{
    EXPECT_EQ(0, isValidSsid(nullptr));
    EXPECT_EQ(0, isValidSsid(""));
    EXPECT_EQ(1, isValidSsid("a"));
    EXPECT_EQ(1, isValidSsid(std::string(32, 'x').c_str()));
    EXPECT_EQ(0, isValidSsid(std::string(33, 'x').c_str()));
    // bytes, not characters: 16 two-byte characters are 32 bytes
    std::string umlauts;
    for (int i = 0; i < 16; i++)
        umlauts += "\xc3\xa4";
    EXPECT_EQ(1, isValidSsid(umlauts.c_str()));
    EXPECT_EQ(0, isValidSsid((umlauts + "a").c_str()));
}

TEST(Passphrase, EightToSixtyFourBytesAndSixtyFourOnlyHexadecimal)
{
    EXPECT_EQ(0, isValidPassphrase(nullptr));
    EXPECT_EQ(0, isValidPassphrase("1234567"));
    EXPECT_EQ(1, isValidPassphrase("12345678"));
    std::string hex64;
    for (int i = 0; i < 64; i++)
        hex64.push_back("0123456789abcdefABCDEF"[i % 22]);
    EXPECT_EQ(1, isValidPassphrase(hex64.c_str()));
    std::string withG = hex64;
    withG[10] = 'g';
    EXPECT_EQ(0, isValidPassphrase(withG.c_str()));
    // 63 bytes may hold anything
    EXPECT_EQ(1, isValidPassphrase(withG.substr(0, 63).c_str()));
    EXPECT_EQ(1, isValidPassphrase(std::string(63, '"').c_str()));
    EXPECT_EQ(0, isValidPassphrase((hex64 + "0").c_str()));
}

TEST(Radius, ServerThenSecretThenPort)
{
    EXPECT_EQ(RADIUS_OK, checkRadiusSettings("srv", "s", WLAN_ABSENT_PORT));
    EXPECT_EQ(RADIUS_OK, checkRadiusSettings("srv", std::string(64, 's').c_str(), 1));
    EXPECT_EQ(RADIUS_OK, checkRadiusSettings("srv", "s", 65535));
    EXPECT_EQ(RADIUS_NO_SERVER, checkRadiusSettings(nullptr, "s", 1812));
    EXPECT_EQ(RADIUS_NO_SERVER, checkRadiusSettings(nullptr, nullptr, 0));
    EXPECT_EQ(RADIUS_BAD_SECRET, checkRadiusSettings("srv", nullptr, 1812));
    EXPECT_EQ(RADIUS_BAD_SECRET, checkRadiusSettings("srv", "", 1812));
    EXPECT_EQ(RADIUS_BAD_SECRET, checkRadiusSettings("srv", std::string(65, 's').c_str(), 1812));
    EXPECT_EQ(RADIUS_BAD_SECRET, checkRadiusSettings("srv", "", 0));
    EXPECT_EQ(RADIUS_BAD_PORT, checkRadiusSettings("srv", "s", 0));
    EXPECT_EQ(RADIUS_BAD_PORT, checkRadiusSettings("srv", "s", 65536));
    EXPECT_EQ(RADIUS_BAD_PORT, checkRadiusSettings("srv", "s", -1));
}

TEST(SecurityNames, RequestNamesAndUciValues)
{
    EXPECT_STREQ("psk2 aes", wifiSecurityUciValue("WPA2-PSK"));
    EXPECT_STREQ("psk-mixed tkip+aes", wifiSecurityUciValue("WPA-PSK MIXED"));
    EXPECT_STREQ("none", wifiSecurityUciValue("OPEN"));
    EXPECT_STREQ("wpa2 aes", wifiSecurityUciValue("WPA2"));
    EXPECT_STREQ("wpa-mixed tkip+aes", wifiSecurityUciValue("WPA MIXED"));
    for (const char *uci : {"psk2 aes", "psk-mixed tkip+aes", "none", "wpa2 aes",
                            "wpa-mixed tkip+aes"})
        EXPECT_STREQ(uci, wifiSecurityUciValue(uci));
    EXPECT_EQ(nullptr, wifiSecurityUciValue("wpa2-psk"));
    EXPECT_EQ(nullptr, wifiSecurityUciValue("WEP"));
    EXPECT_EQ(nullptr, wifiSecurityUciValue(""));
    EXPECT_EQ(nullptr, wifiSecurityUciValue(nullptr));
    EXPECT_EQ(1, isPskSecurityName("WPA2-PSK"));
    EXPECT_EQ(1, isPskSecurityName("WPA-PSK MIXED"));
    EXPECT_EQ(0, isPskSecurityName("psk2 aes"));
    EXPECT_EQ(1, isRadiusSecurityName("WPA2"));
    EXPECT_EQ(1, isRadiusSecurityName("WPA MIXED"));
    EXPECT_EQ(0, isRadiusSecurityName("wpa2 aes"));
    EXPECT_EQ(1, isPskEncryption("psk-mixed tkip+aes"));
    EXPECT_EQ(0, isPskEncryption("WPA2-PSK"));
    EXPECT_EQ(1, isRadiusEncryption("wpa-mixed tkip+aes"));
    EXPECT_EQ(0, isRadiusEncryption("none"));
}

/* ---- the operation-mode checks ---- */

TEST(ApOpModeCheck, StaIsNotAnAccessPointUnsetIs)
{
    FakeUci dev;
    EXPECT_EQ(1, isApOpMode(0)); // unset
    dev.uci["wireless.wifi0.opmode"] = "";
    EXPECT_EQ(1, isApOpMode(0));
    dev.uci["wireless.wifi0.opmode"] = "ap";
    EXPECT_EQ(1, isApOpMode(0));
    dev.uci["wireless.wifi0.opmode"] = "sta";
    EXPECT_EQ(0, isApOpMode(0));
    dev.uci["wireless.wifi1.opmode"] = "wds";
    EXPECT_EQ(0, isApOpMode(1));
    EXPECT_EQ((std::vector<std::string>{
                  "uci get wireless.wifi0.opmode | tr -d '\\n'",
                  "uci get wireless.wifi0.opmode | tr -d '\\n'",
                  "uci get wireless.wifi0.opmode | tr -d '\\n'",
                  "uci get wireless.wifi0.opmode | tr -d '\\n'",
                  "uci get wireless.wifi1.opmode | tr -d '\\n'",
              }),
              dev.commands);
    dev.clearRecord();
    EXPECT_EQ(1, isApOpMode(2));
    EXPECT_EQ(1, isApOpMode(-1));
    EXPECT_TRUE(dev.commands.empty());
}

TEST(ApOpModeCheck, ByNetworkIndex)
{
    FakeUci dev;
    dev.uci["wireless.wifi0.opmode"] = "sta";
    dev.uci["wireless.wifi1.opmode"] = "ap";
    EXPECT_EQ(0, isApOpModeForIndex(0));
    EXPECT_EQ(0, isApOpModeForIndex(49));
    EXPECT_EQ(1, isApOpModeForIndex(50));
    EXPECT_EQ(1, isApOpModeForIndex(57));
    dev.clearRecord();
    EXPECT_EQ(1, isApOpModeForIndex(-1));
    EXPECT_TRUE(dev.commands.empty());
}

TEST(ApOpModeCheck, TheGateLooksAtRadioOneOnlyWithA5GHzRadio)
{
    FakeUci dev;
    dev.uci["wireless.wifi1.opmode"] = "sta";
    {
        Radio5G none(0);
        EXPECT_EQ(1, isApOpModeAllowed());
    }
    {
        Radio5G present(1);
        EXPECT_EQ(0, isApOpModeAllowed());
        dev.uci["wireless.wifi1.opmode"] = "ap";
        EXPECT_EQ(1, isApOpModeAllowed());
        dev.uci["wireless.wifi0.opmode"] = "sta";
        EXPECT_EQ(0, isApOpModeAllowed());
    }
}

/* ---- network indexes ---- */

TEST(NetworkIndex, RadioZeroSlotsAndRadioOneWhenPresent)
{
    Radio5G present(1);
    for (int i : {0, 7, 50, 57})
        EXPECT_EQ(1, isValidNetworkIndex(i)) << i;
    for (int i : {-1, 8, 49, 58, 100})
        EXPECT_EQ(0, isValidNetworkIndex(i)) << i;
    g_support5G = 0;
    EXPECT_EQ(0, isValidNetworkIndex(50));
    EXPECT_EQ(0, isValidNetworkIndex(57));
    EXPECT_EQ(1, isValidNetworkIndex(3));
}

TEST(NetworkIndex, SectionNames)
{
    char name[32];
    wlanSectionName(0, name, sizeof name);
    EXPECT_STREQ("w0_index0", name);
    wlanSectionName(7, name, sizeof name);
    EXPECT_STREQ("w0_index7", name);
    wlanSectionName(50, name, sizeof name);
    EXPECT_STREQ("w1_index0", name);
    wlanSectionName(53, name, sizeof name);
    EXPECT_STREQ("w1_index3", name);
    EXPECT_EQ(0, wlanRadioOfIndex(7));
    EXPECT_EQ(1, wlanRadioOfIndex(50));
}
