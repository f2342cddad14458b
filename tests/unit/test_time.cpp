/*
 * The time family's check of the maintenance timer: the synchronisation
 * with the time server (timeSyncCheck) tick by tick, against a recorded
 * shell (no device command runs).
 */
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "client/timer.h"
#include "recorded_shell.h"
#include "util/debug.h"
#include "util/settings.h"

namespace {

kctest::RecordedShell *s_device = nullptr;

/* Ticks 1 .. last through timeSyncCheck; each command with its tick. */
std::vector<std::pair<int, std::string>> runTicks(int last)
{
    std::vector<std::pair<int, std::string>> seen;
    for (int tick = 1; tick <= last; tick++) {
        s_device->clearRecord();
        timeSyncCheck(tick);
        for (const std::string &c : s_device->commands)
            seen.emplace_back(tick, c);
    }
    return seen;
}

class TimeZoneSync : public ::testing::Test {
protected:
    void SetUp() override
    {
        s_device = &device_;
        savedBase_ = g_timeSyncBase;
        savedPeriod_ = g_timeSyncPeriod;
        g_timeSyncBase = 0;
    }
    void TearDown() override
    {
        g_timeSyncBase = savedBase_;
        g_timeSyncPeriod = savedPeriod_;
        g_debugFlag = 0;
        s_device = nullptr;
    }
    int savedBase_ = 0;
    int savedPeriod_ = 0;

private:
    kctest::RecordedShell device_;
};

} // namespace

TEST_F(TimeZoneSync, HourlyReloadsAtEveryFullHour)
{
    g_timeSyncPeriod = frequency_name_to_seconds("1_HOUR");
    g_debugFlag = 0;
    auto seen = runTicks(7300);
    EXPECT_EQ((std::vector<std::pair<int, std::string>>{{3600, "luci-reload ntpclient"},
                                                        {7200, "luci-reload ntpclient"}}),
              seen);
}

TEST_F(TimeZoneSync, InDebugModeTheTimeIsNotedFirst)
{
    g_timeSyncPeriod = frequency_name_to_seconds("1_HOUR");
    g_debugFlag = 1;
    auto seen = runTicks(3600);
    EXPECT_EQ((std::vector<std::pair<int, std::string>>{{3600, "date >> /tmp/ts_autoupdate"},
                                                        {3600, "luci-reload ntpclient"}}),
              seen);
}

TEST_F(TimeZoneSync, CountedFromTheBase)
{
    g_timeSyncPeriod = frequency_name_to_seconds("1_HOUR");
    g_timeSyncBase = 100;
    auto seen = runTicks(7300);
    EXPECT_EQ((std::vector<std::pair<int, std::string>>{{100, "luci-reload ntpclient"},
                                                        {3700, "luci-reload ntpclient"},
                                                        {7300, "luci-reload ntpclient"}}),
              seen);
}

TEST_F(TimeZoneSync, NeverWithNoneOrAnUnknownName)
{
    g_debugFlag = 1;
    for (const char *name : {"NONE", "2_HOURS", "", "1_hour"}) {
        g_timeSyncPeriod = frequency_name_to_seconds(name);
        EXPECT_TRUE(runTicks(7300).empty()) << name;
    }
    g_timeSyncPeriod = frequency_name_to_seconds(nullptr);
    EXPECT_TRUE(runTicks(7300).empty());
}
