/*
 * The key-filtered copy of the utility script's answers: listed keys only,
 * in list order; values converted by type ("rx"/"tx" text to numbers,
 * fractions dropped, null to ""); nested arrays and objects under the item
 * keys; nothing for a missing source or key list.
 */
#include <gtest/gtest.h>

#include <string>

#include <cjson/cJSON.h>

#include "json/json_filter.h"

namespace {

const char *const kClientTop[] = {"deviceId", "clients", NULL};
const char *const kClientItems[] = {"cmac", "ssid", "rx", "tx", "signal", "name", "interface", NULL};

/* The printed filtered copy of text (a JSON document), or "NULL". */
std::string filtered(const char *text, const char *const *top, const char *const *items)
{
    cJSON *source = cJSON_Parse(text);
    EXPECT_NE(nullptr, source) << text;
    cJSON *copy = json_filter_copy(source, top, items);
    std::string out = "NULL";
    if (copy != NULL) {
        char *printed = cJSON_PrintUnformatted(copy);
        out = printed;
        cJSON_free(printed);
    }
    cJSON_Delete(copy);
    cJSON_Delete(source);
    return out;
}

} // namespace

TEST(JsonFilterCopy, ClientCountersBecomeNumbersAndSignalLosesItsFraction)
{
    EXPECT_EQ("{\"deviceId\":\"00:11:22:33:44:55\",\"clients\":[{\"cmac\":\"A0:B1:C2:D3:E4:01\","
              "\"ssid\":\"Korvat\",\"rx\":1234,\"tx\":4321,\"signal\":-61,\"name\":\"laptop\","
              "\"interface\":\"2.4GHz\"}]}",
              filtered("{\"deviceId\":\"00:11:22:33:44:55\",\"clientNum\":1,\"clients\":["
                       "{\"cmac\":\"A0:B1:C2:D3:E4:01\",\"mac\":\"00:11:22:33:45:00\","
                       "\"networkIndex\":0,\"ssid\":\"Korvat\",\"interface\":\"2.4GHz\","
                       "\"name\":\"laptop\",\"ip\":\"192.168.1.101\",\"rx\":\"1234\","
                       "\"tx\":\"4321\",\"signal\":-61.5,\"uptime\":3600}]}",
                       kClientTop, kClientItems));
}

TEST(JsonFilterCopy, MembersComeInTheOrderOfTheListNotOfTheSource)
{
    const char *const keys[] = {"b", "a", "c", NULL};
    EXPECT_EQ("{\"b\":2,\"a\":1,\"c\":3}", filtered("{\"c\":3,\"a\":1,\"b\":2}", keys, NULL));
}

TEST(JsonFilterCopy, UnlistedMembersAreDroppedAndMissingKeysLeftOut)
{
    const char *const keys[] = {"ssid", "missing", "enabled", NULL};
    EXPECT_EQ("{\"ssid\":\"Lab\",\"enabled\":true}",
              filtered("{\"ifname\":\"ath0\",\"ssid\":\"Lab\",\"enabled\":true,\"vlanId\":7}", keys,
                       NULL));
}

TEST(JsonFilterCopy, EachTypeIsConverted)
{
    const char *const keys[] = {"on", "off", "none", "whole", "fraction", "negative", "big",
                                "text", NULL};
    EXPECT_EQ("{\"on\":true,\"off\":false,\"none\":\"\",\"whole\":7,\"fraction\":2,"
              "\"negative\":-61,\"big\":5000000000,\"text\":\"1234\"}",
              filtered("{\"on\":true,\"off\":false,\"none\":null,\"whole\":7,\"fraction\":2.99,"
                       "\"negative\":-61.5,\"big\":5000000000.7,\"text\":\"1234\"}",
                       keys, NULL));
}

TEST(JsonFilterCopy, OnlyRxAndTxTextIsConvertedToANumber)
{
    const char *const keys[] = {"rx", "tx", "name", "signal", NULL};
    // "12.5" keeps its fraction (atof); "name" and "signal" stay text
    EXPECT_EQ("{\"rx\":12.5,\"tx\":0,\"name\":\"99\",\"signal\":\"-61.5\"}",
              filtered("{\"rx\":\"12.5\",\"tx\":\"n/a\",\"name\":\"99\",\"signal\":\"-61.5\"}", keys,
                       NULL));
}

TEST(JsonFilterCopy, NumericRxIsTreatedAsANumber)
{
    const char *const keys[] = {"rx", "tx", NULL};
    EXPECT_EQ("{\"rx\":1234,\"tx\":\"\"}", filtered("{\"rx\":1234.9,\"tx\":null}", keys, NULL));
}

TEST(JsonFilterCopy, NestedObjectTakesTheItemKeys)
{
    const char *const top[] = {"radio", NULL};
    const char *const items[] = {"channel", "rx", NULL};
    EXPECT_EQ("{\"radio\":{\"channel\":6,\"rx\":42}}",
              filtered("{\"radio\":{\"rx\":\"42\",\"txPower\":20,\"channel\":6}}", top, items));
}

TEST(JsonFilterCopy, NestedItemsDoNotPassTheirKeysFurtherDown)
{
    const char *const top[] = {"networks", NULL};
    const char *const items[] = {"ssid", "extra", "list", NULL};
    // "extra" is an object and "list" an array one level further down:
    // there are no keys for them, so the object is left out and the array
    // is empty
    EXPECT_EQ("{\"networks\":[{\"ssid\":\"A\",\"list\":[]}]}",
              filtered("{\"networks\":[{\"ssid\":\"A\",\"extra\":{\"ssid\":\"B\"},"
                       "\"list\":[{\"ssid\":\"C\"}]}]}",
                       top, items));
}

TEST(JsonFilterCopy, ArrayElementsThatAreNotObjectsBecomeEmptyObjects)
{
    const char *const top[] = {"clients", NULL};
    EXPECT_EQ("{\"clients\":[{},{},{\"cmac\":\"x\"}]}",
              filtered("{\"clients\":[1,\"two\",{\"cmac\":\"x\",\"mac\":\"y\"}]}", top, kClientItems));
}

TEST(JsonFilterCopy, WithoutItemKeysArraysAreEmptyAndObjectsLeftOut)
{
    const char *const top[] = {"deviceId", "clients", "radio", "opMode", NULL};
    EXPECT_EQ("{\"deviceId\":\"d\",\"clients\":[],\"opMode\":\"ap\"}",
              filtered("{\"deviceId\":\"d\",\"clients\":[{\"cmac\":\"x\"}],\"radio\":{\"a\":1},"
                       "\"opMode\":\"ap\"}",
                       top, NULL));
}

TEST(JsonFilterCopy, KeysAreFoundWithoutRegardToCaseAndCarryTheListedName)
{
    const char *const keys[] = {"deviceId", "rx", NULL};
    EXPECT_EQ("{\"deviceId\":\"d\",\"rx\":5}", filtered("{\"DEVICEID\":\"d\",\"RX\":\"5\"}", keys, NULL));
}

TEST(JsonFilterCopy, AMissingSourceOrKeyListGivesNone)
{
    EXPECT_EQ(nullptr, json_filter_copy(NULL, kClientTop, kClientItems));
    cJSON *source = cJSON_Parse("{\"deviceId\":\"d\"}");
    EXPECT_EQ(nullptr, json_filter_copy(source, NULL, kClientItems));
    cJSON_Delete(source);
}

TEST(JsonFilterCopy, ASourceThatIsNotAnObjectGivesAnEmptyObject)
{
    EXPECT_EQ("{}", filtered("[{\"deviceId\":\"d\"}]", kClientTop, kClientItems));
    EXPECT_EQ("{}", filtered("42", kClientTop, kClientItems));
    EXPECT_EQ("{}", filtered("{}", kClientTop, kClientItems));
}

TEST(JsonFilterCopy, TheSourceIsLeftAsItWas)
{
    const char *text = "{\"deviceId\":\"d\",\"clients\":[{\"cmac\":\"x\",\"rx\":\"7\",\"ip\":\"1\"}],"
                       "\"more\":null}";
    cJSON *source = cJSON_Parse(text);
    cJSON *copy = json_filter_copy(source, kClientTop, kClientItems);
    cJSON_Delete(copy);
    char *printed = cJSON_PrintUnformatted(source);
    EXPECT_STREQ(text, printed);
    cJSON_free(printed);
    cJSON_Delete(source);
}
