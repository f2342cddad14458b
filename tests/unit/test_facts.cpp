/*
 * System facts: the pure formatting steps (uptime, firmware cut, load
 * average, CPU figure, compact timestamp, 32-bit memory bytes) and the
 * getters themselves run against fake device tools and files; the CPU
 * figure from two /proc/stat samples read through a recorded shell.
 */
#include <cstdio>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "recorded_shell.h"
#include "test_support.h"
#include "util/text.h"
#include "util/facts.h"
#include "util/settings.h"

using namespace kctest;

namespace {

std::string take(char *text)
{
    std::string s = text != nullptr ? text : "<null>";
    free_text(text);
    return s;
}

/* Fake tools with a "cat" that serves files from the temporary tree. */
class FakeDevice : public FakeTools {
public:
    FakeDevice()
    {
        tool("cat", "f='" + dir().file("files") + "'\"$1\"\n[ -f \"$f\" ] && exec /bin/cat \"$f\"\nexit 1");
    }
    void file(const std::string &path, const std::string &text) const
    {
        dir().write("files" + path, text);
    }
};

} // namespace

TEST(Uptime, DaysAreShownFromOneDayOn)
{
    EXPECT_EQ("1d 01:01:01", take(format_uptime(90061)));
    EXPECT_EQ("1d 00:00:00", take(format_uptime(86400)));
    EXPECT_EQ("23:59:59", take(format_uptime(86399)));
    EXPECT_EQ("00:59:59", take(format_uptime(3599)));
    EXPECT_EQ("00:00:00", take(format_uptime(0)));
    EXPECT_EQ("365d 00:00:01", take(format_uptime(365L * 86400 + 1)));
}

TEST(Uptime, ResultFitsTwentyBytes)
{
    // The largest uptime a long holds: 24855 days on the 32-bit target,
    // far more (cut to 19 characters) on a 64-bit host.
    std::string text = take(format_uptime(std::numeric_limits<long>::max()));
    EXPECT_LE(text.size(), 19u);
    if (sizeof(long) == 4) {
        EXPECT_EQ("24855d 03:14:07", text);
    }
}

TEST(Uptime, GetterReadsWholeSeconds)
{
    FakeDevice device;
    device.file("/proc/uptime", "90061.57 170000.12\n");
    EXPECT_EQ("1d 01:01:01", take(get_uptime_text()));
    device.file("/proc/uptime", "3599.99 1.00\n");
    EXPECT_EQ("00:59:59", take(get_uptime_text()));
}

TEST(Uptime, EmptyOutputReadsAsZero)
{
    FakeDevice device; // no /proc/uptime: cat fails, nothing comes back
    EXPECT_EQ("00:00:00", take(get_uptime_text()));
}

TEST(Firmware, CutBeforeTheNthDot)
{
    EXPECT_EQ("2.0.1", take(cut_firmware_version("2.0.1.7", 3)));
    EXPECT_EQ("1.2.3", take(cut_firmware_version("1.2.3.4.5", 3)));
    EXPECT_EQ("1.2", take(cut_firmware_version("1.2", 3)));
    EXPECT_EQ("1.2.3", take(cut_firmware_version("1.2.3", 3)));
    EXPECT_EQ("1", take(cut_firmware_version("1.2.3", 1)));
}

TEST(Firmware, GetterCutsAtDashBlankAndThirdDot)
{
    FakeDevice device;
    device.file("/etc/version", "2.0.1.7-rc1 build\n");
    EXPECT_EQ("2.0.1", take(get_firmware_version(3)));
    device.file("/etc/version", "3.1.4 (Jan 1 2020)\n");
    EXPECT_EQ("3.1.4", take(get_firmware_version(3)));
}

TEST(Firmware, NothingReadIsUnknown)
{
    FakeDevice device;
    EXPECT_EQ("UnKnown", take(get_firmware_version(3)));
}

TEST(Model, UpperCasedAndMarkedInBetaMode)
{
    FakeDevice device;
    device.file("/etc/mDNSResponder.conf", "other line\n \"VK310\" _http._tcp 80\n");
    g_betaMode = 0;
    EXPECT_EQ("VK310", take(get_model_name()));
    g_betaMode = 1;
    EXPECT_EQ("VK310-BETA", take(get_model_name()));
    g_betaMode = 0;
    device.file("/etc/mDNSResponder.conf", " \"VK310ac\" _http._tcp 80\n");
    EXPECT_EQ("VK310AC", take(get_model_name()));
}

TEST(Model, ModelTextIsCappedAtTwentyCharacters)
{
    FakeDevice device;
    device.file("/etc/mDNSResponder.conf", " \"VK" + std::string(30, 'x') + "\"\n");
    EXPECT_EQ("VK" + std::string(18, 'X'), take(get_model_name()));
}

TEST(LoadAverage, OneMinuteLoadAsPercent)
{
    EXPECT_EQ("25.0%", take(format_load_average("0.25")));
    EXPECT_EQ("0.0%", take(format_load_average("0.00")));
    EXPECT_EQ("150.0%", take(format_load_average("1.50")));
    EXPECT_EQ("0.0%", take(format_load_average("")));
    // An eight-byte result: a huge load is cut, never overflows.
    EXPECT_EQ("10000.0", take(format_load_average("100.0")));
}

TEST(LoadAverage, GetterReadsTheFirstFigure)
{
    FakeDevice device;
    device.file("/proc/loadavg", "0.25 0.10 0.05 1/80 1234\n");
    EXPECT_EQ("25.0%", take(get_load_average_text()));
}

TEST(CpuUsage, FigureAbove100IsCapped)
{
    EXPECT_EQ(100, cpu_figure_to_percent("101.5"));
    EXPECT_EQ(100, cpu_figure_to_percent("100"));
    EXPECT_EQ(42, cpu_figure_to_percent("42.9"));
    EXPECT_EQ(0, cpu_figure_to_percent(""));
    EXPECT_EQ(0, cpu_figure_to_percent("ERROR"));
}

TEST(CpuUsage, KeptFigureIsUsedWithoutRunningTop)
{
    FakeTools tools(false);
    tools.recorder("top");
    int saved = g_cpuUsage;
    g_cpuUsage = 37;
    EXPECT_EQ(37, get_cpu_usage());
    g_cpuUsage = 0;
    EXPECT_EQ(0, get_cpu_usage());
    g_cpuUsage = 100;
    EXPECT_EQ(100, get_cpu_usage());
    g_cpuUsage = saved;
    EXPECT_EQ("", tools.calls());
}

TEST(CpuUsage, TopFigureAbove100GivesHundred)
{
    FakeTools tools;
    tools.tool("top", "echo 'Mem: 1000K used'\n"
                      "echo 'CPU:  60.5% usr  41.0% sys   0.0% nic   0.0% idle   0.0% io   0.0% irq   0.0% sirq'");
    int saved = g_cpuUsage;
    g_cpuUsage = -1;
    EXPECT_EQ(100, get_cpu_usage());
    tools.tool("top", "echo 'CPU:  10.0% usr  5.5% sys   1.0% nic  80.0% idle   2.0% io   1.0% irq   0.5% sirq'");
    EXPECT_EQ(20, get_cpu_usage());
    g_cpuUsage = saved;
}

TEST(CpuUsage, BusyShareBetweenTwoSamples)
{
    // 25 of 100 ticks idle: 75 percent busy
    EXPECT_EQ(75, cpu_usage_between(1000, 5000, 1025, 5100));
    EXPECT_EQ(0, cpu_usage_between(1000, 5000, 1100, 5100));
    EXPECT_EQ(100, cpu_usage_between(1000, 5000, 1000, 5100));
    // no time between the samples
    EXPECT_EQ(0, cpu_usage_between(1000, 5000, 1000, 5000));
}

TEST(CpuUsage, SampledFromProcStatThroughTheShell)
{
    // two /proc/stat samples, each read by two commands: the idle command
    // prints field 5, the total command the sum of 2..10
    const std::vector<std::string> stat = {"cpu  100 0 100 800 0 0 0 0 0",
                                           "cpu  160 0 130 810 0 0 0 0 0"};
    RecordedShell shell;
    shell.answer = [&](const std::string &cmd, std::string *output) {
        const std::string &sample = stat.at((shell.commands.size() - 1) / 2);
        unsigned long f[10] = {0};
        sscanf(sample.c_str(), "cpu %lu %lu %lu %lu %lu %lu %lu %lu %lu", &f[1], &f[2], &f[3],
               &f[4], &f[5], &f[6], &f[7], &f[8], &f[9]);
        unsigned long value = 0;
        if (cmd.find("idle=($5)") != std::string::npos)
            value = f[4];
        else
            for (int i = 1; i <= 9; i++)
                value += f[i];
        *output = std::to_string(value) + "\n";
        return true;
    };
    calculateCPUUsage();
    calculateCPUUsage();
    // 100 ticks passed, 10 of them idle
    EXPECT_EQ(90, g_cpuUsage.load());
    EXPECT_EQ(90, get_cpu_usage()); // kept figure: no command runs
    EXPECT_EQ(4u, shell.commands.size());
}

TEST(CompactTimestamp, DigitsOfTheDateAndTimeToTheMinute)
{
    EXPECT_EQ("202001311305", take(compact_timestamp("2020-01-31T13:05:00+01:00")));
    EXPECT_EQ("202001311305", take(compact_timestamp("2020/01/31 13:05:00")));
    EXPECT_EQ("", take(compact_timestamp("ab")));
    EXPECT_EQ("", take(compact_timestamp("")));
}

TEST(MemoryBytes, KilobytesShiftedIn32Bits)
{
    EXPECT_EQ(409600u, kilobytes_text_to_bytes("400"));
    EXPECT_EQ(0u, kilobytes_text_to_bytes(""));
    EXPECT_EQ(0u, kilobytes_text_to_bytes(nullptr));
    EXPECT_EQ(4294966272u, kilobytes_text_to_bytes("4194303"));
    // 4 GiB of kilobytes wraps to 0 in a 32-bit byte count.
    EXPECT_EQ(0u, kilobytes_text_to_bytes("4194304"));
    EXPECT_EQ(1024u, kilobytes_text_to_bytes("4194305"));
}

TEST(Memory, GettersReadFree)
{
    FakeTools tools;
    tools.tool("free", "echo '              total         used         free       shared      buffers'\n"
                       "echo 'Mem:         126000        94208        31792            0         4000'");
    EXPECT_EQ("31792 KB", take(get_free_memory_text()));
    EXPECT_EQ("94208 KB", take(get_used_memory_text()));
    EXPECT_EQ(31792u << 10, get_free_memory_bytes());
    EXPECT_EQ(94208u << 10, get_used_memory_bytes());
}

TEST(Memory, NoOutputIsZeroBytes)
{
    FakeTools tools(false);
    EXPECT_EQ(0u, get_free_memory_bytes());
    EXPECT_EQ(0u, get_used_memory_bytes());
}

TEST(LanAddress, AddressOfTheBridge)
{
    FakeTools tools;
    tools.tool("ifconfig",
               "[ \"$1\" = br-lan ] || exit 1\n"
               "echo 'br-lan    Link encap:Ethernet  HWaddr 00:11:22:33:44:55'\n"
               "echo '          inet addr:192.168.10.1  Bcast:192.168.10.255  Mask:255.255.255.0'\n"
               "echo '          UP BROADCAST RUNNING MULTICAST  MTU:1500  Metric:1'");
    EXPECT_EQ("192.168.10.1", take(get_lan_ip_address()));
}

TEST(Dates, IsoTimestampGetsAColonInItsOffset)
{
    FakeTools tools;
    tools.tool("date", "case \"$1\" in\n"
                       "  *%z*) echo 2020-01-31T13:05:00+0100 ;;\n"
                       "  *T*) echo 2020-01-31T13:05:00 ;;\n"
                       "  *) echo '2020/01/31 13:05:00' ;;\n"
                       "esac");
    EXPECT_EQ("2020-01-31T13:05:00+01:00", take(get_iso_timestamp(1)));
    EXPECT_EQ("2020-01-31T13:05:00", take(get_iso_timestamp(0)));
    EXPECT_STREQ("2020/01/31 13:05:00", get_current_date());
}

TEST(Dates, CurrentDateIsEmptyWithoutOutput)
{
    FakeTools tools(false);
    EXPECT_STREQ("", get_current_date());
}

TEST(SystemLed, ReadsTheLedOption)
{
    FakeTools tools;
    tools.recorder("uci", "1\\n");
    EXPECT_EQ("1", take(get_system_led_state()));
    EXPECT_EQ("get|led.led.SystemLED|\n", tools.calls());
}

TEST(UpdateFrequency, NamesToSeconds)
{
    EXPECT_EQ(0, frequency_name_to_seconds("NONE"));
    EXPECT_EQ(3600, frequency_name_to_seconds("1_HOUR"));
    EXPECT_EQ(2592000, frequency_name_to_seconds("30_DAYS"));
    EXPECT_EQ(-1, frequency_name_to_seconds("1_hour"));
    EXPECT_EQ(-1, frequency_name_to_seconds(nullptr));
}
