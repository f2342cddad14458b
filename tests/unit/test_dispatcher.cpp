/*
 * The dispatcher's envelope checks and method table: exact error replies
 * and console lines for a missing member, a wrong version, an unknown or
 * wrongly spelt method, a numeric id and a server-bound method name; and
 * dxGetAbout end to end against fake device tools.
 */
#include <gtest/gtest.h>

#include <cjson/cJSON.h>

#include "client/handlers.h"
#include "test_support.h"
#include "util/facts.h"

using namespace kctest;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

struct Outcome {
    std::string out;
    std::vector<std::string> replies;
};

/* Dispatches text with no device tools reachable. */
Outcome dispatch(const char *text)
{
    FakeTools noTools(false);
    drainReplies();
    cJSON *request = cJSON_Parse(text);
    EXPECT_NE(nullptr, request);
    CaptureStdout();
    genericCommandHandler(request);
    Outcome o;
    o.out = GetCapturedStdout();
    o.replies = drainReplies();
    return o;
}

std::string errorText(const char *id, int code, const char *message)
{
    return std::string("{\"jsonrpc\":\"2.0\",\"id\":") + id + ",\"error\":{\"code\":" +
           std::to_string(code) + ",\"message\":\"" + message + "\",\"data\":\"\"}}";
}

const char kInvalidRequest[] = "The JSON sent is not a valid Request object";
const char kNoMethod[] = "The method is not available";

} // namespace

TEST(Dispatcher, MissingParamsIsAnInvalidRequest)
{
    Outcome o = dispatch("{\"jsonrpc\":\"2.0\",\"method\":\"dxGetAbout\",\"id\":\"7\"}");
    EXPECT_EQ("Invalid JSON command.\n", o.out);
    ASSERT_EQ(1u, o.replies.size());
    EXPECT_EQ(errorText("\"7\"", -32600, kInvalidRequest), o.replies[0]);
}

TEST(Dispatcher, EachMissingEnvelopeMemberIsAnInvalidRequest)
{
    for (const char *text : {
             "{\"method\":\"dxGetAbout\",\"id\":\"7\",\"params\":{}}",
             "{\"jsonrpc\":\"2.0\",\"id\":\"7\",\"params\":{}}",
             "{\"jsonrpc\":\"2.0\",\"method\":\"dxGetAbout\",\"params\":{}}",
             "{\"jsonrpc\":2.0,\"method\":\"dxGetAbout\",\"id\":\"7\",\"params\":{}}",
             "{\"jsonrpc\":\"2.0\",\"method\":7,\"id\":\"7\",\"params\":{}}",
             "[]",
         }) {
        Outcome o = dispatch(text);
        EXPECT_EQ("Invalid JSON command.\n", o.out) << text;
        ASSERT_EQ(1u, o.replies.size()) << text;
        EXPECT_NE(std::string::npos, o.replies[0].find("\"code\":-32600")) << text;
    }
}

TEST(Dispatcher, ParamsOfAnyTypeIsEnoughForTheEnvelope)
{
    Outcome o = dispatch("{\"jsonrpc\":\"2.0\",\"method\":\"nope\",\"id\":\"1\",\"params\":null}");
    ASSERT_EQ(1u, o.replies.size());
    EXPECT_EQ(errorText("\"1\"", -32601, kNoMethod), o.replies[0]);
}

TEST(Dispatcher, WrongVersionIsAnInternalError)
{
    Outcome o =
        dispatch("{\"jsonrpc\":\"1.0\",\"method\":\"dxGetAbout\",\"id\":\"7\",\"params\":{}}");
    EXPECT_EQ("Invalid JSONRPC version.\n", o.out);
    ASSERT_EQ(1u, o.replies.size());
    EXPECT_EQ(errorText("\"7\"", -32603, "Internal JSON-RPC error"), o.replies[0]);
}

TEST(Dispatcher, MethodNamesAreCaseSensitive)
{
    Outcome o =
        dispatch("{\"jsonrpc\":\"2.0\",\"method\":\"DxGetAbout\",\"id\":\"7\",\"params\":{}}");
    EXPECT_EQ("Command handler not yet implemented for: DxGetAbout\n", o.out);
    ASSERT_EQ(1u, o.replies.size());
    EXPECT_EQ(errorText("\"7\"", -32601, kNoMethod), o.replies[0]);
}

TEST(Dispatcher, MethodNamesMustMatchWhole)
{
    // neither a longer name nor a prefix of a known one selects its handler
    for (const char *method : {"dxGetAboutX", "dxGetAbou", "dxGetAbout ", ""}) {
        std::string text = std::string("{\"jsonrpc\":\"2.0\",\"method\":\"") + method +
                           "\",\"id\":\"9\",\"params\":{\"deviceId\":\"x\"}}";
        Outcome o = dispatch(text.c_str());
        EXPECT_EQ(std::string("Command handler not yet implemented for: ") + method + "\n", o.out);
        ASSERT_EQ(1u, o.replies.size()) << method;
        EXPECT_EQ(errorText("\"9\"", -32601, kNoMethod), o.replies[0]) << method;
    }
}

TEST(Dispatcher, NumericIdIsAnInvalidRequestAnsweredWithANullId)
{
    Outcome o = dispatch("{\"jsonrpc\":\"2.0\",\"method\":\"dxGetAbout\",\"id\":7,\"params\":{}}");
    EXPECT_EQ("Invalid JSON command.\n", o.out);
    ASSERT_EQ(1u, o.replies.size());
    EXPECT_EQ(errorText("null", -32600, kInvalidRequest), o.replies[0]);
}

TEST(Dispatcher, ServerBoundMethodsAreUnknown)
{
    for (const char *method : {"dsLogStatusUpdates", "dsEventNotifications"}) {
        std::string text = std::string("{\"jsonrpc\":\"2.0\",\"method\":\"") + method +
                           "\",\"id\":\"3\",\"params\":{}}";
        Outcome o = dispatch(text.c_str());
        EXPECT_EQ(std::string("Command handler not yet implemented for: ") + method + "\n", o.out);
        ASSERT_EQ(1u, o.replies.size());
        EXPECT_EQ(errorText("\"3\"", -32601, kNoMethod), o.replies[0]);
    }
}

TEST(Dispatcher, EnvelopeNamesMatchWhateverTheirCase)
{
    Outcome o = dispatch("{\"JSONRPC\":\"2.0\",\"Method\":\"x\",\"ID\":\"5\",\"PARAMS\":{}}");
    EXPECT_EQ("Command handler not yet implemented for: x\n", o.out);
    ASSERT_EQ(1u, o.replies.size());
    EXPECT_EQ(errorText("\"5\"", -32601, kNoMethod), o.replies[0]);
}

TEST(Dispatcher, AboutWithoutDeviceIdIsAnInvalidParameterAndRunsNothing)
{
    FakeTools tools(false);
    tools.recorder("sntool", "TAG");
    tools.recorder("cat");
    tools.recorder("ifconfig");
    drainReplies();
    CaptureStdout();
    genericCommandHandler(
        cJSON_Parse("{\"jsonrpc\":\"2.0\",\"method\":\"dxGetAbout\",\"id\":\"4\",\"params\":{}}"));
    EXPECT_EQ("", GetCapturedStdout());
    std::vector<std::string> replies = drainReplies();
    ASSERT_EQ(1u, replies.size());
    EXPECT_EQ(errorText("\"4\"", -32602, "Invalid method parameter"), replies[0]);
    EXPECT_EQ("", tools.calls());
}

TEST(Dispatcher, AboutReportsTheDeviceFromItsTools)
{
    FakeTools tools;
    const TempDir &dir = tools.dir();
    dir.write("files/etc/version", "2.0.1.7-rc1 build 42\n");
    dir.write("files/etc/mDNSResponder.conf", "name x\n\t\"vk310ac\" VK\n");
    tools.tool("cat", "f='" + dir.file("files") + "'\"$1\"\n[ -f \"$f\" ] && exec /bin/cat \"$f\"\nexit 1");
    tools.tool("sntool", "echo SN-12345");
    tools.tool("ifconfig",
               "echo 'br-lan    Link encap:Ethernet  HWaddr 00:11:22:33:44:55'\n"
               "echo '          inet addr:192.168.1.1  Bcast:192.168.1.255  Mask:255.255.255.0'");

    const char *oldMac = g_deviceMac;
    g_deviceMac = "00:11:22:33:44:55";
    g_betaMode = 0;
    drainReplies();
    genericCommandHandler(cJSON_Parse("{\"jsonrpc\":\"2.0\",\"method\":\"dxGetAbout\",\"id\":\"17\","
                                      "\"params\":{\"deviceId\":\"whatever\"}}"));
    g_deviceMac = oldMac;
    std::vector<std::string> replies = drainReplies();
    ASSERT_EQ(1u, replies.size());
    EXPECT_EQ("{\"jsonrpc\":\"2.0\",\"id\":\"17\",\"result\":{\"deviceId\":\"00:11:22:33:44:55\","
              "\"macAddress\":\"00:11:22:33:44:55\",\"firmware\":\"2.0.1\",\"model\":\"VK310AC\","
              "\"serviceTag\":\"SN-12345\",\"lanAddress\":\"192.168.1.1\"}}",
              replies[0]);
}
