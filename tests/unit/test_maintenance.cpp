/*
 * The maintenance family against a recorded device: every command line in
 * its order, the reply queued before each disruptive action, every refusal
 * answered with nothing run; the firmware command's own escaping; the DHCP
 * client check; the update-interval names; the log stream's request id.
 *
 * No device command runs: a recorded shell records each command (and the
 * number of replies waiting at that moment) and answers from memory.
 */
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <cjson/cJSON.h>

#include "client/events.h"
#include "client/handlers.h"
#include "recorded_shell.h"
#include "test_support.h"
#include "util/apply.h"
#include "util/debug.h"
#include "util/firmware.h"
#include "util/shell.h"
#include "util/settings.h"
#include "util/text.h"

using namespace kctest;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

const char kMac[] = "00:11:22:33:44:55";

/* ---- the recorded device: outputs by exact command; the replies waiting
 * in the reply queue when each command ran ---- */

RecordedShell *s_device = nullptr;
std::vector<int> s_repliesWaiting;

std::vector<std::string> texts(void)
{
    return s_device->commands;
}

int waitingAt(const std::string &text)
{
    for (size_t i = 0; i < s_device->commands.size(); i++)
        if (s_device->commands[i] == text)
            return s_repliesWaiting.at(i);
    return -1;
}

void clearRecord(void)
{
    s_device->clearRecord();
    s_repliesWaiting.clear();
}

std::string success(const char *id)
{
    return std::string("{\"jsonrpc\":\"2.0\",\"id\":\"") + id + "\",\"result\":{\"deviceId\":\"" +
           kMac + "\"}}";
}

std::string invalid(const char *id)
{
    return std::string("{\"jsonrpc\":\"2.0\",\"id\":\"") + id +
           "\",\"error\":{\"code\":-32602,\"message\":\"Invalid method parameter\",\"data\":\"\"}}";
}

class Maintenance : public ::testing::Test {
protected:
    void SetUp() override
    {
        drainReplies();
        s_repliesWaiting.clear();
        s_device = &device_;
        device_.onCommand = [](const std::string &) {
            s_repliesWaiting.push_back(filledCount(g_sendQueues[SEND_QUEUE_REPLY]));
        };
        oldMac_ = g_deviceMac;
        g_deviceMac = kMac;
    }
    void TearDown() override
    {
        s_device = nullptr;
        g_deviceMac = oldMac_;
        g_debugFlag = 0;
        setLogStreaming(0);
        setLogStreamId("");
        drainReplies();
    }
    /* Dispatches request text; the replies it queued. */
    std::vector<std::string> dispatch(const std::string &text)
    {
        cJSON *request = cJSON_Parse(text.c_str());
        EXPECT_NE(nullptr, request) << text;
        genericCommandHandler(request);
        return drainReplies();
    }
    std::vector<std::string> call(const char *method, const char *id, const std::string &params)
    {
        return dispatch(std::string("{\"jsonrpc\":\"2.0\",\"id\":\"") + id + "\",\"method\":\"" +
                        method + "\",\"params\":" + params + "}");
    }

private:
    RecordedShell device_; /* the shell backend while the test runs */
    const char *oldMac_ = nullptr;
};

const char kCapture[] = "/tmp/cloud_log_file";

} // namespace

/* ---- update-interval names ---- */

TEST(FrequencyNames, EveryNameOfTheTable)
{
    EXPECT_EQ(0, frequency_name_to_seconds("NONE"));
    EXPECT_EQ(3600, frequency_name_to_seconds("1_HOUR"));
    EXPECT_EQ(10800, frequency_name_to_seconds("3_HOURS"));
    EXPECT_EQ(43200, frequency_name_to_seconds("12_HOURS"));
    EXPECT_EQ(86400, frequency_name_to_seconds("1_DAY"));
    EXPECT_EQ(864000, frequency_name_to_seconds("10_DAYS"));
    EXPECT_EQ(2592000, frequency_name_to_seconds("30_DAYS"));
}

TEST(FrequencyNames, CaseMattersAndAnythingElseIsMinusOne)
{
    EXPECT_EQ(-1, frequency_name_to_seconds("1_day"));
    EXPECT_EQ(-1, frequency_name_to_seconds("none"));
    EXPECT_EQ(-1, frequency_name_to_seconds("1_HOURS"));
    EXPECT_EQ(-1, frequency_name_to_seconds("1_DAY "));
    EXPECT_EQ(-1, frequency_name_to_seconds(""));
    EXPECT_EQ(-1, frequency_name_to_seconds(nullptr));
}

/* ---- fw_update ---- */

TEST(FirmwareEscape, EachSpecialCharacterGetsABackslash)
{
    char *escaped = fw_escape_url("|&;<>$()\\\"'");
    EXPECT_STREQ("\\|\\&\\;\\<\\>\\$\\(\\)\\\\\\\"\\'", escaped);
    free(escaped);
    escaped = fw_escape_url("http://fw.example/a b`c*?#~%.bin");
    EXPECT_STREQ("http://fw.example/a\\ b\\`c\\*\\?\\#\\~%.bin", escaped);
    free(escaped);
    escaped = fw_escape_url("http://x/`reboot`[1].bin");
    EXPECT_STREQ("http://x/\\`reboot\\`\\[1\\].bin", escaped);
    free(escaped);
    /* what needs no backslash stays as it is */
    escaped = fw_escape_url("https://fw.example:8443/VK310/fw-2.0.1_rc=1,2%20+x@y!.bin");
    EXPECT_STREQ("https://fw.example:8443/VK310/fw-2.0.1_rc=1,2%20+x@y!.bin", escaped);
    free(escaped);
    EXPECT_EQ(nullptr, fw_escape_url(nullptr));
}

TEST(FirmwareEscape, AtMost127CharactersAreTaken)
{
    std::string url(127, 'a');
    char *escaped = fw_escape_url((url + "bcd").c_str());
    EXPECT_EQ(url, escaped);
    free(escaped);
    std::string semis(130, ';');
    escaped = fw_escape_url(semis.c_str());
    std::string expected;
    for (int i = 0; i < 127; i++)
        expected += "\\;";
    EXPECT_EQ(expected, escaped);
    free(escaped);
}

TEST_F(Maintenance, FirmwareUpdateRunsTheEscapedCommandWithATrailingBlank)
{
    g_debugFlag = 1;
    CaptureStdout();
    fw_update("a;reboot");
    std::string out = GetCapturedStdout();
    ASSERT_EQ(1u, texts().size());
    EXPECT_EQ("/bin/cli.sh fwupgrade a\\;reboot ", texts().at(0));
    EXPECT_NE(std::string::npos,
              out.find("[FUNC kapri_util.cpp::fw_update][LINE ")) << out;
    EXPECT_NE(std::string::npos,
              out.find("]: === Download firmware and update, cmd = \"/bin/cli.sh fwupgrade "
                       "a\\;reboot \" ===\n"))
        << out;
}

TEST_F(Maintenance, FirmwareUpdateWithoutAUrlRunsNothing)
{
    CaptureStdout();
    fw_update(nullptr);
    fw_update("");
    EXPECT_EQ("\nfirmware URL error!\n\nfirmware URL error!\n", GetCapturedStdout());
    EXPECT_TRUE(texts().empty());
}

TEST(FirmwareUrl, ControlCharactersAreRefused)
{
    EXPECT_TRUE(fw_url_acceptable("http://fw.example/a b`c*?#~%.bin"));
    EXPECT_TRUE(fw_url_acceptable("http://fw.example/\xc3\xa9.bin"));
    EXPECT_FALSE(fw_url_acceptable(nullptr));
    EXPECT_FALSE(fw_url_acceptable(""));
    EXPECT_FALSE(fw_url_acceptable("http://x/a.bin\nreboot"));
    EXPECT_FALSE(fw_url_acceptable("http://x/a.bin\treboot"));
    EXPECT_FALSE(fw_url_acceptable("http://x/a.bin\rreboot"));
    EXPECT_FALSE(fw_url_acceptable("\x01"));
    EXPECT_FALSE(fw_url_acceptable("http://x/\x7f"));
}

TEST_F(Maintenance, FirmwareUpdateOfAUrlWithAControlCharacterRunsNothing)
{
    CaptureStdout();
    fw_update("http://x/a.bin\nreboot");
    EXPECT_EQ("\nfirmware URL error!\n", GetCapturedStdout());
    EXPECT_TRUE(texts().empty());
}

/* ---- assert_udhcpc_start ---- */

namespace {
const char kProto[] = "uci get network.lan.proto | tr -d '\\n'";
const char kGrep[] = "(grep -q udhcpc /tmp/ps.txt) && (echo 1 | tr -d '\\n') || "
                     "(echo 0 | tr -d '\\n')";
} // namespace

TEST_F(Maintenance, DhcpClientIsStartedWhenTheLanIsOnDhcpAndNoneRuns)
{
    s_device->outputs[kProto] = "dhcp";
    s_device->outputs[kGrep] = "0";
    g_debugFlag = 1;
    CaptureStdout();
    assert_udhcpc_start();
    std::string out = GetCapturedStdout();
    EXPECT_EQ((std::vector<std::string>{kProto, "ps > /tmp/ps.txt", kGrep, "rm -f /tmp/ps.txt",
                                        "udhcpc -i br-lan -R"}),
              texts());
    EXPECT_NE(std::string::npos,
              out.find("[FUNC kapri_util.cpp::assert_udhcpc_start][LINE "))
        << out;
    EXPECT_NE(std::string::npos, out.find("]: execute system cmd [udhcpc -i br-lan -R]\n")) << out;
}

TEST_F(Maintenance, DhcpClientIsLeftAloneWhenOneRuns)
{
    s_device->outputs[kProto] = "dhcp";
    s_device->outputs[kGrep] = "1";
    assert_udhcpc_start();
    EXPECT_EQ((std::vector<std::string>{kProto, "ps > /tmp/ps.txt", kGrep, "rm -f /tmp/ps.txt"}),
              texts());
}

TEST_F(Maintenance, DhcpClientIsLeftAloneOnAStaticLan)
{
    s_device->outputs[kProto] = "static";
    assert_udhcpc_start();
    EXPECT_EQ((std::vector<std::string>{kProto}), texts());
    clearRecord();
    s_device->outputs[kProto] = "DHCP"; // compared exactly
    assert_udhcpc_start();
    EXPECT_EQ((std::vector<std::string>{kProto}), texts());
}

/* ---- every handler: deviceId ---- */

TEST_F(Maintenance, WithoutDeviceIdEveryHandlerButTheStreamRefusesAndRunsNothing)
{
    const char *methods[] = {"dxResetDevice", "dxUpdateFirmware", "dxSetLoggingMode",
                             "dxGetStatusUpdateFrequency", "dxSetStatusUpdateFrequency",
                             "dxSetCloudServerUrl"};
    for (const char *method : methods) {
        clearRecord();
        std::vector<std::string> replies =
            call(method, "n", "{\"url\":\"http://x/fw.bin\",\"mode\":\"DEBUG\",\"frequency\":30,"
                              "\"port\":8080,\"saveAndRestore\":true}");
        ASSERT_EQ(1u, replies.size()) << method;
        EXPECT_EQ(invalid("n"), replies[0]) << method;
        EXPECT_TRUE(texts().empty()) << method << ": " << texts().at(0);
    }
}

/* ---- dxUpdateFirmware ---- */

TEST_F(Maintenance, FirmwareUpdateRepliesFirstThenRunsTheTool)
{
    g_debugFlag = 1;
    CaptureStdout();
    std::vector<std::string> replies = call(
        "dxUpdateFirmware", "f1", "{\"deviceId\":\"x\",\"url\":\"a;reboot\",\"saveAndRestore\":true}");
    std::string out = GetCapturedStdout();
    ASSERT_EQ(1u, replies.size());
    EXPECT_EQ(success("f1"), replies[0]);
    EXPECT_EQ((std::vector<std::string>{"/bin/cli.sh fwupgrade a\\;reboot "}), texts());
    EXPECT_EQ(1, s_repliesWaiting.at(0));
    size_t save = out.find("]: Save configurations before firmware update...(Not Implement Yet!)\n");
    size_t cmd = out.find("=== Download firmware and update");
    EXPECT_NE(std::string::npos, save) << out;
    EXPECT_LT(save, cmd) << out;
}

TEST_F(Maintenance, FirmwareUpdateWithoutSavingSaysSo)
{
    g_debugFlag = 1;
    CaptureStdout();
    call("dxUpdateFirmware", "f2", "{\"deviceId\":\"x\",\"url\":\"http://fw/x.bin\"}");
    call("dxUpdateFirmware", "f3",
         "{\"deviceId\":\"x\",\"url\":\"http://fw/x.bin\",\"saveAndRestore\":0}");
    std::string out = GetCapturedStdout();
    const std::string line =
        "]: No need to save configurations before firmware update...(Not Implement Yet!)\n";
    size_t first = out.find(line);
    ASSERT_NE(std::string::npos, first) << out;
    EXPECT_NE(std::string::npos, out.find(line, first + 1)) << out;
    EXPECT_EQ(std::string::npos, out.find("]: Save configurations")) << out;
    EXPECT_EQ((std::vector<std::string>{"/bin/cli.sh fwupgrade http://fw/x.bin ",
                                        "/bin/cli.sh fwupgrade http://fw/x.bin "}),
              texts());
}

TEST_F(Maintenance, FirmwareUpdateRefusesAMissingEmptyOrNonTextUrl)
{
    const char *params[] = {"{\"deviceId\":\"x\"}", "{\"deviceId\":\"x\",\"url\":\"\"}",
                            "{\"deviceId\":\"x\",\"url\":\"http://x/a.bin\\nreboot\"}",
                            "{\"deviceId\":\"x\",\"url\":\"http://x/a.bin\\treboot\"}",
                            "{\"deviceId\":\"x\",\"url\":5}", "{\"deviceId\":\"x\",\"url\":null}"};
    for (const char *p : params) {
        std::vector<std::string> replies = call("dxUpdateFirmware", "u", p);
        ASSERT_EQ(1u, replies.size()) << p;
        EXPECT_EQ(invalid("u"), replies[0]) << p;
    }
    EXPECT_TRUE(texts().empty());
}

/* ---- dxStreamSystemLogs ---- */

namespace {
/* Stops the follower the agent started, and no other: the id it kept,
 * checked to still be a logread. */
const char kStopOwnCapture[] =
    "pid=$(cat /tmp/cloud_logread_pid 2>/dev/null); "
    "[ -n \"$pid\" ] && [ \"$(cat /proc/$pid/comm 2>/dev/null)\" = logread ] && kill $pid; "
    "rm -f /tmp/cloud_logread_pid";
const char kStartCapture[] = "logread -f > /tmp/cloud_log_file& echo $! > /tmp/cloud_logread_pid";

std::vector<std::string> startCommands(void)
{
    std::vector<std::string> cmds = {kStopOwnCapture};
    if (access(kCapture, F_OK) == 0)
        cmds.push_back("rm /tmp/cloud_log_file");
    cmds.push_back(kStartCapture);
    return cmds;
}

/* The stream id the agent keeps (its copy released). */
std::string keptStreamId(void)
{
    char *id = logStreamId();
    std::string text = id != nullptr ? id : "<no memory>";
    free_text(id);
    return text;
}
} // namespace

TEST_F(Maintenance, StreamingOnRestartsTheCaptureKeepsTheIdAndSendsNoReply)
{
    std::vector<std::string> expected = startCommands();
    std::vector<std::string> replies =
        call("dxStreamSystemLogs", "abc", "{\"deviceId\":\"x\",\"enable\":true}");
    EXPECT_TRUE(replies.empty());
    EXPECT_EQ(expected, texts());
    EXPECT_EQ(1, logStreaming());
    EXPECT_EQ("abc", keptStreamId());
}

TEST_F(Maintenance, StreamingOffStopsTheCapture)
{
    setLogStreaming(1);
    setLogStreamId("old");
    std::vector<std::string> replies =
        call("dxStreamSystemLogs", "off", "{\"deviceId\":\"x\",\"enable\":false}");
    EXPECT_TRUE(replies.empty());
    EXPECT_EQ((std::vector<std::string>{kStopOwnCapture, "rm /tmp/cloud_log_file"}), texts());
    EXPECT_EQ(0, logStreaming());
    EXPECT_EQ("off", keptStreamId());
}

TEST_F(Maintenance, StreamingIsSwitchedEvenWithoutDeviceIdWhichIsThenRefused)
{
    setLogStreamId("kept");
    std::vector<std::string> expected = startCommands();
    std::vector<std::string> replies = call("dxStreamSystemLogs", "nd", "{\"enable\":1}");
    ASSERT_EQ(1u, replies.size());
    EXPECT_EQ(invalid("nd"), replies[0]);
    EXPECT_EQ(expected, texts());
    EXPECT_EQ(1, logStreaming());
    EXPECT_EQ("kept", keptStreamId());
}

TEST_F(Maintenance, ANumericRequestIdIsKeptAsItsDecimalText)
{
    cJSON *request = cJSON_Parse("{\"jsonrpc\":\"2.0\",\"id\":7,\"method\":\"dxStreamSystemLogs\","
                                 "\"params\":{\"deviceId\":\"x\",\"enable\":true}}");
    dxStreamSystemLogsHandler(request);
    EXPECT_EQ("7", keptStreamId());
    cJSON_Delete(request);
    request = cJSON_Parse("{\"jsonrpc\":\"2.0\",\"id\":-12.5,\"method\":\"dxStreamSystemLogs\","
                          "\"params\":{\"deviceId\":\"x\",\"enable\":true}}");
    dxStreamSystemLogsHandler(request);
    EXPECT_EQ("-12.5", keptStreamId());
    cJSON_Delete(request);
    request = cJSON_Parse("{\"jsonrpc\":\"2.0\",\"id\":[1],\"method\":\"dxStreamSystemLogs\","
                          "\"params\":{\"deviceId\":\"x\",\"enable\":true}}");
    dxStreamSystemLogsHandler(request);
    EXPECT_EQ("", keptStreamId()); // no text: no stream
    cJSON_Delete(request);
    EXPECT_TRUE(drainReplies().empty());
}

TEST_F(Maintenance, ANumericIdNeverGetsPastTheDispatcher)
{
    std::vector<std::string> replies = dispatch(
        "{\"jsonrpc\":\"2.0\",\"id\":7,\"method\":\"dxStreamSystemLogs\","
        "\"params\":{\"deviceId\":\"x\",\"enable\":true}}");
    ASSERT_EQ(1u, replies.size());
    EXPECT_EQ("{\"jsonrpc\":\"2.0\",\"id\":null,\"error\":{\"code\":-32600,\"message\":"
              "\"The JSON sent is not a valid Request object\",\"data\":\"\"}}",
              replies[0]);
    EXPECT_TRUE(texts().empty());
    EXPECT_EQ(0, logStreaming());
}

/* ---- dxSetLoggingMode ---- */

TEST_F(Maintenance, ProductionModeWritesCommitsRepliesThenApplies)
{
    std::vector<std::string> replies =
        call("dxSetLoggingMode", "p", "{\"deviceId\":\"x\",\"mode\":\"PRODUCTION\"}");
    ASSERT_EQ(1u, replies.size());
    EXPECT_EQ(success("p"), replies[0]);
    EXPECT_EQ((std::vector<std::string>{
                  "uci set korvatCloud.korvatCloud.syslog_mode=\"PRODUCTION\"",
                  "echo 0 > /proc/sys/kernel/printk",
                  "uci commit korvatCloud.korvatCloud.syslog_mode",
                  "/usr/sbin/kapri_util.lua cloud_action_apply"}),
              texts());
    EXPECT_EQ(0, waitingAt("uci commit korvatCloud.korvatCloud.syslog_mode"));
    EXPECT_EQ(1, waitingAt("/usr/sbin/kapri_util.lua cloud_action_apply"));
    EXPECT_EQ(1, g_applyDone.load());
}

TEST_F(Maintenance, DebugModeSetsLevelSeven)
{
    std::vector<std::string> replies =
        call("dxSetLoggingMode", "d", "{\"deviceId\":\"x\",\"mode\":\"DEBUG\"}");
    ASSERT_EQ(1u, replies.size());
    EXPECT_EQ(success("d"), replies[0]);
    EXPECT_EQ((std::vector<std::string>{"uci set korvatCloud.korvatCloud.syslog_mode=\"DEBUG\"",
                                        "echo 7 > /proc/sys/kernel/printk",
                                        "uci commit korvatCloud.korvatCloud.syslog_mode",
                                        "/usr/sbin/kapri_util.lua cloud_action_apply"}),
              texts());
}

TEST_F(Maintenance, OtherModesAreRefusedBeforeAnyWrite)
{
    const char *params[] = {"{\"deviceId\":\"x\",\"mode\":\"production\"}",
                            "{\"deviceId\":\"x\",\"mode\":\"Debug\"}",
                            "{\"deviceId\":\"x\",\"mode\":\"DEBUG \"}",
                            "{\"deviceId\":\"x\",\"mode\":\"\"}",
                            "{\"deviceId\":\"x\",\"mode\":1}", "{\"deviceId\":\"x\"}"};
    for (const char *p : params) {
        std::vector<std::string> replies = call("dxSetLoggingMode", "m", p);
        ASSERT_EQ(1u, replies.size()) << p;
        EXPECT_EQ(invalid("m"), replies[0]) << p;
    }
    EXPECT_TRUE(texts().empty());
}

/* ---- dxGetStatusUpdateFrequency ---- */

namespace {
const char kGetFrequency[] = "uci get korvatCloud.korvatCloud.auto_update | tr -d '\\n'";
}

TEST_F(Maintenance, FrequencyIsTheUciValue)
{
    s_device->outputs[kGetFrequency] = "120";
    std::vector<std::string> replies = call("dxGetStatusUpdateFrequency", "g", "{\"deviceId\":1}");
    ASSERT_EQ(1u, replies.size());
    EXPECT_EQ(std::string("{\"jsonrpc\":\"2.0\",\"id\":\"g\",\"result\":{\"deviceId\":\"") + kMac +
                  "\",\"frequency\":120}}",
              replies[0]);
    EXPECT_EQ((std::vector<std::string>{kGetFrequency}), texts());
}

TEST_F(Maintenance, AnUnsetFrequencyIsMinusOne)
{
    std::vector<std::string> replies = call("dxGetStatusUpdateFrequency", "g", "{\"deviceId\":1}");
    ASSERT_EQ(1u, replies.size());
    EXPECT_EQ(std::string("{\"jsonrpc\":\"2.0\",\"id\":\"g\",\"result\":{\"deviceId\":\"") + kMac +
                  "\",\"frequency\":-1}}",
              replies[0]);
}

/* ---- dxSetStatusUpdateFrequency ---- */

TEST_F(Maintenance, FrequencyIsSetAfterTheReplyAndCommitted)
{
    std::vector<std::string> replies =
        call("dxSetStatusUpdateFrequency", "s", "{\"deviceId\":\"x\",\"frequency\":300}");
    ASSERT_EQ(1u, replies.size());
    EXPECT_EQ(success("s"), replies[0]);
    EXPECT_EQ((std::vector<std::string>{"uci set korvatCloud.korvatCloud.auto_update=300",
                                        "uci commit korvatCloud.korvatCloud.auto_update"}),
              texts());
    EXPECT_EQ(1, s_repliesWaiting.at(0));
}

TEST_F(Maintenance, FrequencyIsTheIntegerValue)
{
    call("dxSetStatusUpdateFrequency", "s", "{\"deviceId\":\"x\",\"frequency\":2.9}");
    call("dxSetStatusUpdateFrequency", "s", "{\"deviceId\":\"x\",\"frequency\":true}");
    EXPECT_EQ((std::vector<std::string>{"uci set korvatCloud.korvatCloud.auto_update=2",
                                        "uci commit korvatCloud.korvatCloud.auto_update",
                                        "uci set korvatCloud.korvatCloud.auto_update=1",
                                        "uci commit korvatCloud.korvatCloud.auto_update"}),
              texts());
}

TEST_F(Maintenance, FrequencyZeroNegativeTextOrMissingIsRefused)
{
    const char *params[] = {"{\"deviceId\":\"x\",\"frequency\":0}",
                            "{\"deviceId\":\"x\",\"frequency\":-5}",
                            "{\"deviceId\":\"x\",\"frequency\":\"30\"}",
                            "{\"deviceId\":\"x\",\"frequency\":0.5}",
                            "{\"deviceId\":\"x\",\"frequency\":false}", "{\"deviceId\":\"x\"}"};
    for (const char *p : params) {
        std::vector<std::string> replies = call("dxSetStatusUpdateFrequency", "z", p);
        ASSERT_EQ(1u, replies.size()) << p;
        EXPECT_EQ(invalid("z"), replies[0]) << p;
    }
    EXPECT_TRUE(texts().empty());
}

/* ---- dxSetCloudServerUrl ---- */

TEST_F(Maintenance, ServerUrlIsWrittenAfterTheReplyAndTheAgentRestarts)
{
    std::vector<std::string> replies = call(
        "dxSetCloudServerUrl", "c",
        "{\"deviceId\":\"x\",\"url\":\"wss://cloud.example/$(id)\",\"port\":65535}");
    ASSERT_EQ(1u, replies.size());
    EXPECT_EQ(success("c"), replies[0]);
    EXPECT_EQ((std::vector<std::string>{
                  "uci set korvatCloud.korvatCloud.port_number=65535", "uci commit",
                  "uci set korvatCloud.korvatCloud.server_url=\"wss://cloud.example/\\$(id)\"",
                  "uci commit", "/etc/init.d/korvatCloud restart &"}),
              texts());
    EXPECT_EQ(1, s_repliesWaiting.at(0));
}

TEST_F(Maintenance, ServerPortOneAndAnEmptyUrlAreAccepted)
{
    std::vector<std::string> replies =
        call("dxSetCloudServerUrl", "c1", "{\"deviceId\":\"x\",\"url\":\"\",\"port\":1}");
    ASSERT_EQ(1u, replies.size());
    EXPECT_EQ(success("c1"), replies[0]);
    EXPECT_EQ("uci set korvatCloud.korvatCloud.port_number=1", texts().at(0));
    EXPECT_EQ("uci set korvatCloud.korvatCloud.server_url=\"\"", texts().at(2));
}

TEST_F(Maintenance, ServerPortOutOfRangeOrNoUrlIsRefused)
{
    const char *params[] = {"{\"deviceId\":\"x\",\"url\":\"ws://a\",\"port\":0}",
                            "{\"deviceId\":\"x\",\"url\":\"ws://a\",\"port\":65536}",
                            "{\"deviceId\":\"x\",\"url\":\"ws://a\",\"port\":-1}",
                            "{\"deviceId\":\"x\",\"url\":\"ws://a\"}",
                            "{\"deviceId\":\"x\",\"url\":\"ws://a\",\"port\":\"8080\"}",
                            "{\"deviceId\":\"x\",\"port\":8080}",
                            "{\"deviceId\":\"x\",\"url\":7,\"port\":8080}"};
    for (const char *p : params) {
        std::vector<std::string> replies = call("dxSetCloudServerUrl", "r", p);
        ASSERT_EQ(1u, replies.size()) << p;
        EXPECT_EQ(invalid("r"), replies[0]) << p;
    }
    EXPECT_TRUE(texts().empty());
}
