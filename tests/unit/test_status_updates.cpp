// Pieces of the periodic status update: the memory alarm's quotient (64-bit
// arithmetic) and the radio objects from "WifiInfo".
#include <gtest/gtest.h>

#include <string>

#include "json/accessors.h"
#include "client/script_answers.h"
#include "client/status_updates.h"
#include "test_support.h"

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
