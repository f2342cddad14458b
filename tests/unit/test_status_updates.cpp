// Pieces of the periodic status update: the memory alarm's quotient (64-bit
// arithmetic), the radio objects from "WifiInfo", and the CPU figure from
// two /proc/stat samples.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "json/accessors.h"
#include "client/script_answers.h"
#include "client/status_updates.h"
#include "test_support.h"
#include "util/shell.h"
#include "util/facts.h"

TEST(MemoryAlarm, QuotientOfUsedOverAllKilobytes)
{
    // 920 MB used of 1000 MB: 9200 (alarm from 9001 on)
    EXPECT_EQ(9200, memory_alarm_quotient(920000u * 1024, 80000u * 1024));
    // exactly 90.00 percent: 9000, no alarm
    EXPECT_EQ(9000, memory_alarm_quotient(900000u * 1024, 100000u * 1024));
    // the product used kilobytes x 10000 is far beyond 32 bits here
    EXPECT_EQ(5000, memory_alarm_quotient(2000000u * 1024, 2000000u * 1024));
    EXPECT_EQ(0, memory_alarm_quotient(0, 0));
    EXPECT_EQ(10000, memory_alarm_quotient(4096, 1023)); // free below 1 KB reads 0
}

static std::string radios(const char *wifiInfo, int *result)
{
    cJSON *container = jsonCreateObject();
    *result = addRadioObjects(container, wifiInfo, STATUS_UPDATE_ORDER);
    char *text = jsonPrint(container);
    std::string out = text;
    jsonFreeText(text);
    jsonDelete(container);
    return out;
}

TEST(RadioObjects, OneObjectARadioInOrderOfTheMembers)
{
    int r = 0;
    EXPECT_EQ("{\"radios\":[{\"interface\":\"2.4GHz\",\"rx\":12,\"tx\":34,\"networks\":2,"
              "\"clients\":3,\"enabled\":true},{\"interface\":\"5GHz\",\"rx\":0,\"tx\":0,"
              "\"networks\":0,\"clients\":0,\"enabled\":false}]}",
              radios("{\"RadioNum\":2,\"Dev2G\":{\"RxByte\":\"12\",\"TxByte\":\"34\","
                     "\"NetworkNum\":2,\"ClientNum\":3,\"Status\":\"Enabled\"},"
                     "\"Dev5G\":{\"Status\":\"enabled\"}}",
                     &r));
    EXPECT_EQ(1, r);
    EXPECT_EQ("{\"radios\":[]}", radios("{\"RadioNum\":0}", &r));
    EXPECT_EQ(1, r);
    EXPECT_EQ("{\"radios\":[]}", radios("{}", &r)); // RadioNum missing reads 0
}

TEST(RadioObjects, ThreeRadiosDropTheUpdateAndNoAnswerAddsNothing)
{
    int r = 0;
    EXPECT_EQ("{}", radios("{\"RadioNum\":3}", &r));
    EXPECT_EQ(-1, r);
    EXPECT_EQ("{}", radios(nullptr, &r));
    EXPECT_EQ(0, r);
    EXPECT_EQ("{}", radios("not json", &r));
    EXPECT_EQ(0, r);
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

namespace {
std::vector<std::string> s_stat;
size_t s_next = 0;
FILE *statPipe(const char *cmd, const char *mode)
{
    (void)mode;
    std::string c = cmd;
    // the idle command prints field 5, the total command the sum of 2..10
    const std::string &sample = s_stat[s_next / 2];
    s_next++;
    unsigned long f[10] = {0};
    sscanf(sample.c_str(), "cpu %lu %lu %lu %lu %lu %lu %lu %lu %lu", &f[1], &f[2], &f[3],
           &f[4], &f[5], &f[6], &f[7], &f[8], &f[9]);
    unsigned long value = 0;
    if (c.find("idle=($5)") != std::string::npos)
        value = f[4];
    else
        for (int i = 1; i <= 9; i++)
            value += f[i];
    static std::vector<std::string> s_outputs; // live until the test ends
    s_outputs.reserve(16);
    s_outputs.push_back(std::to_string(value) + "\n");
    std::string &out = s_outputs.back();
    return fmemopen(&out[0], out.size(), "r");
}
int statClose(FILE *f) { return fclose(f); }
int noRun(const char *) { return 0; }
} // namespace

TEST(CpuUsage, SampledFromProcStatThroughTheShell)
{
    s_stat = {"cpu  100 0 100 800 0 0 0 0 0", "cpu  160 0 130 810 0 0 0 0 0"};
    s_next = 0;
    const ShellBackend backend = {statPipe, statClose, noRun};
    setShellBackend(&backend);
    calculateCPUUsage();
    calculateCPUUsage();
    setShellBackend(nullptr);
    // 100 ticks passed, 10 of them idle
    EXPECT_EQ(90, g_cpuUsage.load());
    EXPECT_EQ(90, get_cpu_usage()); // kept figure: no command runs
}
