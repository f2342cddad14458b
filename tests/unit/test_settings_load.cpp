/*
 * The agent's own settings loaded at start-up, and what the maintenance
 * timer's checks then do with them: the time-sync period from
 * "ts_autoUpdate" and the remote-access timeout from
 * "remote_access_timeout", each missing option with its own meaning.
 *
 * No device command runs: the in-memory device of fake_uci.h answers.
 */
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "client/timer.h"
#include "fake_uci.h"
#include "util/debug.h"
#include "util/settings.h"

using namespace kctest;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

const char kSyncName[] = "korvatCloud.korvatCloud.ts_autoUpdate";
const char kTimeout[] = "korvatCloud.korvatCloud.remote_access_timeout";

class SettingsLoad : public testing::Test {
protected:
    void SetUp() override
    {
        savedBase_ = g_timeSyncBase;
        savedPeriod_ = g_timeSyncPeriod;
        savedTimeout_ = g_remoteAccessTimeout;
        savedDebug_ = g_debugFlag;
        g_debugFlag = 0;
        /* what an earlier load or request may have left */
        g_timeSyncBase = 77;
        g_timeSyncPeriod = 5;
        g_remoteAccessTimeout = 600;
    }
    void TearDown() override
    {
        g_timeSyncBase = savedBase_;
        g_timeSyncPeriod = savedPeriod_;
        g_remoteAccessTimeout = savedTimeout_;
        g_debugFlag = savedDebug_;
    }

    /* Loads the settings from the device; the line it prints. */
    std::string load()
    {
        CaptureStdout();
        load_settings_to_globals();
        return GetCapturedStdout();
    }

    /* Ticks 1 .. last through the time-sync check; each command with its
     * tick. */
    std::vector<std::pair<int, std::string>> syncTicks(int last)
    {
        std::vector<std::pair<int, std::string>> seen;
        for (int tick = 1; tick <= last; tick++) {
            device.clearRecord();
            timeSyncCheck(tick);
            for (const std::string &c : device.commands)
                seen.emplace_back(tick, c);
        }
        return seen;
    }

    FakeUci device;
    int savedBase_ = 0;
    int savedPeriod_ = 0;
    int savedTimeout_ = 0;
    int savedDebug_ = 0;
};

} // namespace

TEST_F(SettingsLoad, ReadsTheSyncNameThenTheTimeout)
{
    device.uci[kSyncName] = "1_HOUR";
    device.uci[kTimeout] = "120";
    EXPECT_EQ("Load uci configurations to global variables...\n", load());
    EXPECT_EQ((std::vector<std::string>{
                  "uci get korvatCloud.korvatCloud.ts_autoUpdate | tr -d '\\n'",
                  "uci get korvatCloud.korvatCloud.remote_access_timeout | tr -d '\\n'"}),
              device.commands);
    EXPECT_EQ(0, g_timeSyncBase);
    EXPECT_EQ(3600, g_timeSyncPeriod);
    EXPECT_EQ(120, g_remoteAccessTimeout.load());
}

TEST_F(SettingsLoad, AnHourlySyncRunsAtEveryFullHourCountedFromStart)
{
    device.uci[kSyncName] = "1_HOUR";
    load();
    EXPECT_EQ((std::vector<std::pair<int, std::string>>{{3600, "luci-reload ntpclient"},
                                                        {7200, "luci-reload ntpclient"}}),
              syncTicks(7300));
}

TEST_F(SettingsLoad, NoneAnUnknownOrAMissingNameNeverSyncs)
{
    for (const char *name : {"NONE", "2_HOURS", "1_hour", ""}) {
        device.uci[kSyncName] = name;
        load();
        EXPECT_TRUE(syncTicks(7300).empty()) << name;
    }
    device.uci.erase(kSyncName);
    load();
    EXPECT_EQ(-1, g_timeSyncPeriod);
    EXPECT_TRUE(syncTicks(7300).empty());
}

TEST_F(SettingsLoad, OpenAccessExpiresByTheLoadedTimeout)
{
    device.uci[kTimeout] = "120";
    device.uci["upnpc.http.enable"] = "1";
    load();
    device.clearRecord();
    remoteAccessExpiryCheck();
    EXPECT_EQ((std::vector<std::string>{
                  "uci get upnpc.http.enable | tr -d '\\n'",
                  "/usr/bin/lua /usr/sbin/session_timeout.lua 120 | tr -d '\\n'"}),
              device.commands);
}

TEST_F(SettingsLoad, WithoutTheTimeoutNothingExpires)
{
    device.uci["upnpc.http.enable"] = "1";
    for (const char *value : {"<missing>", "", "0", "abc", "-1"}) {
        if (std::string(value) == "<missing>")
            device.uci.erase(kTimeout);
        else
            device.uci[kTimeout] = value;
        load();
        EXPECT_LE(g_remoteAccessTimeout.load(), 0) << value;
        device.clearRecord();
        remoteAccessExpiryCheck();
        EXPECT_TRUE(device.commands.empty()) << value;
    }
}
