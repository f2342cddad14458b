/*
 * JSON-RPC reply envelope and error replies: exact printed texts and member
 * order, the fixed message table, the long form's data text, the copy of a
 * missing or non-string id, and the accessors' defaults.
 */
#include <gtest/gtest.h>

#include "json/envelope.h"
#include "json/accessors.h"
#include "client/handlers.h"
#include "client/reply.h"
#include "test_support.h"

using namespace kctest;

namespace {

struct Parsed {
    cJSON *tree;
    explicit Parsed(const char *text) : tree(cJSON_Parse(text)) {}
    ~Parsed() { cJSON_Delete(tree); }
};

std::string only(const std::vector<std::string> &replies)
{
    EXPECT_EQ(1u, replies.size());
    return replies.empty() ? "" : replies[0];
}

std::string errorReplyFor(const char *request, int code)
{
    drainReplies();
    Parsed r(request);
    replyRefusal(r.tree, refusal(static_cast<JsonRpcErrorCode>(code)));
    return only(drainReplies());
}

} // namespace

TEST(JsonRpcEnvelope, NewObjectHoldsOnlyTheVersion)
{
    cJSON *root = initJsonRpcObject();
    char *text = cJSON_PrintUnformatted(root);
    EXPECT_STREQ("{\"jsonrpc\":\"2.0\"}", text);
    cJSON_free(text);
    cJSON_Delete(root);
}

TEST(JsonRpcEnvelope, InternalErrorPrintsExactlyInMemberOrder)
{
    EXPECT_EQ("{\"jsonrpc\":\"2.0\",\"id\":\"7\",\"error\":{\"code\":-32603,"
              "\"message\":\"Internal JSON-RPC error\",\"data\":\"\"}}",
              errorReplyFor("{\"id\":\"7\",\"method\":\"x\"}", -32603));
}

TEST(JsonRpcEnvelope, EveryCodeOfTheTableHasItsMessage)
{
    const struct {
        int code;
        const char *message;
    } table[] = {
        {-32700, "Invalid JSON was received"},
        {-32600, "The JSON sent is not a valid Request object"},
        {-32601, "The method is not available"},
        {-32602, "Invalid method parameter"},
        {-32603, "Internal JSON-RPC error"},
        {10001, "Cannot execute request because the device is not in an appropriate state"},
        {10002, "Too many items in a list"},
        {10100, "The router is not a UPnP router"},
        {10101, "The router could not perform the request"},
        {10102, "The device does not support the protocol requested"},
    };
    for (const auto &row : table) {
        EXPECT_STREQ(row.message, jsonRpcErrorMessage(row.code)) << row.code;
        EXPECT_EQ("{\"jsonrpc\":\"2.0\",\"id\":\"a\",\"error\":{\"code\":" +
                      std::to_string(row.code) + ",\"message\":\"" + row.message +
                      "\",\"data\":\"\"}}",
                  errorReplyFor("{\"id\":\"a\"}", row.code));
    }
}

TEST(JsonRpcEnvelope, CodeOutsideTheTableIsAnUnknownError)
{
    EXPECT_EQ("{\"jsonrpc\":\"2.0\",\"id\":\"7\",\"error\":{\"code\":12345,"
              "\"message\":\"Unknown error\",\"data\":\"\"}}",
              errorReplyFor("{\"id\":\"7\"}", 12345));
    EXPECT_STREQ("Unknown error", jsonRpcErrorMessage(0));
    EXPECT_STREQ("Unknown error", jsonRpcErrorMessage(-32604));
    EXPECT_STREQ("Unknown error", jsonRpcErrorMessage(10003));
}

TEST(JsonRpcEnvelope, LongFormPutsTheTextUnderData)
{
    drainReplies();
    Parsed r("{\"jsonrpc\":\"2.0\",\"id\":\"12\",\"method\":\"vekGetStatus\",\"params\":{}}");
    replyRefusal(r.tree, refusal(JSONRPC_INVALID_PARAMS,
                                 "This method is not supported in Non-AP operation mode."));
    EXPECT_EQ("{\"jsonrpc\":\"2.0\",\"id\":\"12\",\"error\":{\"code\":-32602,"
              "\"message\":\"Invalid method parameter\","
              "\"data\":\"This method is not supported in Non-AP operation mode.\"}}",
              only(drainReplies()));
}

TEST(JsonRpcEnvelope, RequestIsLeftToTheCaller)
{
    drainReplies();
    Parsed r("{\"id\":\"3\",\"params\":{\"deviceId\":\"x\"}}");
    replyRefusal(r.tree, refusal(JSONRPC_INVALID_PARAMS));
    drainReplies();
    char *text = cJSON_PrintUnformatted(r.tree);
    EXPECT_STREQ("{\"id\":\"3\",\"params\":{\"deviceId\":\"x\"}}", text);
    cJSON_free(text);
}

TEST(JsonRpcEnvelope, MissingOrNonStringIdIsCopiedAsNull)
{
    EXPECT_EQ("{\"jsonrpc\":\"2.0\",\"id\":null,\"error\":{\"code\":-32600,"
              "\"message\":\"The JSON sent is not a valid Request object\",\"data\":\"\"}}",
              errorReplyFor("{\"method\":\"x\"}", -32600));
    EXPECT_EQ("{\"jsonrpc\":\"2.0\",\"id\":null,\"error\":{\"code\":-32600,"
              "\"message\":\"The JSON sent is not a valid Request object\",\"data\":\"\"}}",
              errorReplyFor("{\"id\":7}", -32600));
}

TEST(JsonRpcEnvelope, IdIsFoundWhateverTheCaseOfItsName)
{
    EXPECT_EQ("{\"jsonrpc\":\"2.0\",\"id\":\"9\",\"error\":{\"code\":-32601,"
              "\"message\":\"The method is not available\",\"data\":\"\"}}",
              errorReplyFor("{\"ID\":\"9\"}", -32601));
}

TEST(JsonAccessors, MissingMembersReadAsDefaults)
{
    Parsed r("{\"a\":5,\"s\":\"text\",\"d\":2.5,\"z\":0}");
    EXPECT_EQ(5, jsonGetInt(r.tree, "a"));
    EXPECT_EQ(5, jsonGetInt(r.tree, "A")); // names match case-insensitively
    EXPECT_EQ(0, jsonGetInt(r.tree, "missing"));
    EXPECT_EQ(5, jsonGetIntOrAbsent(r.tree, "a"));
    EXPECT_EQ(0, jsonGetIntOrAbsent(r.tree, "z"));
    EXPECT_EQ(-999, jsonGetIntOrAbsent(r.tree, "missing"));
    EXPECT_DOUBLE_EQ(2.5, jsonGetNumber(r.tree, "d"));
    EXPECT_DOUBLE_EQ(0.0, jsonGetNumber(r.tree, "missing"));
    EXPECT_STREQ("text", jsonGetString(r.tree, "s"));
    EXPECT_EQ(nullptr, jsonGetString(r.tree, "a"));
    EXPECT_EQ(nullptr, jsonGetString(r.tree, "missing"));
    EXPECT_EQ(nullptr, jsonGetItem(r.tree, "missing"));
    EXPECT_EQ(nullptr, jsonGetItem(nullptr, "a"));
    EXPECT_EQ(nullptr, jsonGetString(nullptr, "a"));
    EXPECT_EQ(0, jsonGetInt(nullptr, "a"));
}

TEST(JsonAccessors, BuildersKeepInsertionOrder)
{
    cJSON *o = jsonCreateObject();
    jsonAddString(o, "s", "v");
    jsonAddInt(o, "i", -3);
    jsonAddBool(o, "t", 2);
    jsonAddBool(o, "f", 0);
    jsonAddBool(o, "n", -1);
    jsonAddNumber(o, "d", 1.5);
    cJSON *a = jsonCreateArray();
    jsonAddToArray(a, cJSON_CreateNumber(1));
    jsonAddItem(o, "a", a);
    EXPECT_EQ(1, jsonArraySize(a));
    EXPECT_EQ(1, jsonArrayItem(a, 0)->valueint);
    char *text = jsonPrint(o);
    EXPECT_STREQ("{\"s\":\"v\",\"i\":-3,\"t\":true,\"f\":false,\"n\":false,\"d\":1.5,\"a\":[1]}",
                 text);
    jsonFreeText(text);
    jsonDelete(o);
}

TEST(Refusals, AreValuesUntilTheHandlerReplies)
{
    drainReplies();
    Refusal none = accepted();
    EXPECT_FALSE(isRefused(none));
    Refusal why = refusal(KC_ERROR_DEVICE_STATE, "could not");
    EXPECT_TRUE(isRefused(why));
    EXPECT_EQ(KC_ERROR_DEVICE_STATE, why.code);
    EXPECT_STREQ("could not", why.data);
    EXPECT_STREQ("", refusal(JSONRPC_INVALID_PARAMS).data);
    EXPECT_STREQ("", refusal(JSONRPC_INVALID_PARAMS, nullptr).data);
    EXPECT_TRUE(drainReplies().empty()); // nothing was sent
    Parsed with("{\"id\":\"4\",\"params\":{\"deviceId\":\"x\"}}");
    Parsed without("{\"id\":\"5\",\"params\":{\"deviceID2\":\"x\"}}");
    EXPECT_NE(nullptr, deviceParams(with.tree));
    EXPECT_EQ(nullptr, deviceParams(without.tree));
    EXPECT_EQ(JSONRPC_INVALID_PARAMS, missingDeviceId().code);
    replyDeviceId(with.tree);
    EXPECT_EQ("{\"jsonrpc\":\"2.0\",\"id\":\"4\",\"result\":{\"deviceId\":\"" +
                  std::string(g_deviceMac) + "\"}}",
              only(drainReplies()));
}
