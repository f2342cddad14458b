/* Secret member values read "***" in what the agent prints. */
#include <gtest/gtest.h>

#include <cjson/cJSON.h>

#include <cstdlib>
#include <string>

#include "util/redact.h"

namespace {
std::string redacted(const std::string &text)
{
    char *out = redact_secrets(text.c_str());
    std::string copy = out != nullptr ? out : "(NULL)";
    free(out);
    return copy;
}
} // namespace

TEST(Redact, PasswordAndRadiusSecretValuesReadStars)
{
    EXPECT_EQ(redacted("{\"ssid\":\"office\",\"password\":\"hunter2hunter2\",\"vlanId\":7}"),
              "{\"ssid\":\"office\",\"password\":\"***\",\"vlanId\":7}");
    EXPECT_EQ(redacted("{\"radiusServer\":\"10.0.0.5\",\"radiusSecret\":\"s3cr\\\"et\"}"),
              "{\"radiusServer\":\"10.0.0.5\",\"radiusSecret\":\"***\"}");
}

TEST(Redact, NamesMatchWithoutRegardToCaseAndThroughEscapes)
{
    // the request accessors match member names without regard to case, and
    // JSON escapes spell the same name
    EXPECT_EQ(redacted("{\"PASSWORD\":\"a\",\"RadiusSECRET\":\"b\"}"),
              "{\"PASSWORD\":\"***\",\"RadiusSECRET\":\"***\"}");
    EXPECT_EQ(redacted("{\"pass\\u0077ord\":\"a\"}"), "{\"pass\\u0077ord\":\"***\"}");
}

TEST(Redact, TheFormattedDumpKeepsItsLayout)
{
    const char *tree = "{\"jsonrpc\":\"2.0\",\"id\":\"7\",\"result\":{\"deviceId\":\"m\","
                       "\"password\":\"12345678\",\"nested\":[{\"password\":\"x\"}]}}";
    cJSON *root = cJSON_Parse(tree);
    char *formatted = cJSON_Print(root);
    std::string out = redacted(formatted);
    EXPECT_EQ(std::string::npos, out.find("12345678")) << out;
    EXPECT_NE(std::string::npos, out.find("\t\t\"password\":\t\"***\",\n")) << out;
    cJSON *again = cJSON_Parse(out.c_str());
    ASSERT_NE(nullptr, again) << out;
    EXPECT_STREQ("***", cJSON_GetObjectItem(cJSON_GetObjectItem(again, "result"), "password")
                            ->valuestring);
    cJSON_Delete(again);
    free(formatted);
    cJSON_Delete(root);
}

TEST(Redact, EverythingElseIsCopiedAsItIs)
{
    for (const char *text :
         {"", "not json", "{\"ssid\":\"password\"}", "[\"password\",\"radiusSecret\"]",
          "{\"password\":7,\"radiusSecret\":null,\"password\":{\"a\":1}}",
          "{\"passwords\":\"x\",\"mypassword\":\"y\"}", "{\"a\":\"b\\\\\",\"c\":\"\\\"password\\\"\"}"}) {
        EXPECT_EQ(redacted(text), text);
    }
    EXPECT_EQ(nullptr, redact_secrets(nullptr));
}

TEST(Redact, ACutTextIsRedactedAsFarAsItGoes)
{
    EXPECT_EQ(redacted("{\"password\":\"abc"), "{\"password\":\"***\"");
    EXPECT_EQ(redacted("{\"password\":\""), "{\"password\":\"***\"");
    EXPECT_EQ(redacted("{\"password\" : \t\"abc\"}"), "{\"password\" : \t\"***\"}");
    EXPECT_EQ(redacted("{\"password\""), "{\"password\"");
    // many empty secrets grow the text
    std::string many;
    for (int i = 0; i < 100; i++)
        many += "\"password\":\"\",";
    std::string expected;
    for (int i = 0; i < 100; i++)
        expected += "\"password\":\"***\",";
    EXPECT_EQ(redacted(many), expected);
}

TEST(Redact, DebugLinesShowStarsOrNull)
{
    EXPECT_STREQ("***", secret_shown("hunter2hunter2"));
    EXPECT_STREQ("***", secret_shown(""));
    EXPECT_STREQ("(null)", secret_shown(nullptr));
    EXPECT_TRUE(is_secret_member("password"));
    EXPECT_TRUE(is_secret_member("RADIUSSECRET"));
    EXPECT_FALSE(is_secret_member("key"));
    EXPECT_FALSE(is_secret_member(nullptr));
}
