/*
 * Time zones, calendar arithmetic, the daylight-saving rule and the whole
 * time-settings record, against an in-memory device on a recorded shell:
 * "uci get" reads a table of options, "uci set" writes it, "date +%Y"
 * prints a chosen year, and every command is recorded in order.  No device
 * command runs.
 */
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "recorded_shell.h"
#include "test_support.h"
#include "util/debug.h"
#include "util/shell.h"
#include "util/settings.h"
#include "util/time_zone.h"

namespace {

/* ---- the in-memory device ---- */

std::map<std::string, std::string> s_uci; // option path -> value
std::string s_year = "2021";
kctest::RecordedShell *s_device = nullptr; // records every command, in order

const std::string kUciGet = "uci get ";
const std::string kUciGetEnd = " | tr -d '\\n'";
const std::string kUciSet = "uci set ";
const std::string kDateYear = "date +%Y | tr -d '\\n'";

bool startsWith(const std::string &s, const std::string &prefix)
{
    return s.compare(0, prefix.size(), prefix) == 0;
}

/* "uci get PATH | tr -d '\\n'" from the table, "date +%Y" the year; any
 * other read is a failure. */
bool deviceAnswer(const std::string &c, std::string *out)
{
    if (startsWith(c, kUciGet) && c.size() > kUciGet.size() + kUciGetEnd.size() &&
        c.compare(c.size() - kUciGetEnd.size(), kUciGetEnd.size(), kUciGetEnd) == 0) {
        std::string path = c.substr(kUciGet.size(), c.size() - kUciGet.size() - kUciGetEnd.size());
        auto found = s_uci.find(path);
        if (found != s_uci.end())
            *out = found->second; // tr has taken the newline away
    } else if (c == kDateYear) {
        *out = s_year;
    } else {
        ADD_FAILURE() << "unexpected command: " << c;
    }
    return true;
}

/* "uci set PATH=VALUE" or "uci set PATH=\"VALUE\"" (with \" \$ \` \\). */
int deviceRun(const std::string &c)
{
    if (!startsWith(c, kUciSet))
        return 0;
    std::string rest = c.substr(kUciSet.size());
    size_t eq = rest.find('=');
    if (eq == std::string::npos)
        return 1;
    std::string value = rest.substr(eq + 1);
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
        std::string plain;
        for (size_t i = 1; i + 1 < value.size(); i++) {
            if (value[i] == '\\' && i + 2 < value.size())
                i++;
            plain.push_back(value[i]);
        }
        value = plain;
    }
    s_uci[rest.substr(0, eq)] = value;
    return 0;
}

/* Every command so far, in order. */
const std::vector<std::string> &commands()
{
    return s_device->commands;
}

/* The device's options as it leaves the factory (time part). */
std::map<std::string, std::string> factoryOptions()
{
    return {
        {"system.system.timezone", "UTC0"},
        {"system.system.fixtime", ""},
        {"ntpclient.@ntpclient[0].NTPSrvMode", "1"},
        {"ntpclient.@ntpclient[0].TimeSettingMode", "1"},
        {"ntpclient.@ntpclient[0].AutoDaylightSaving", "0"},
        {"ntpclient.@ntpserver[0].hostname", "pool.ntp.org"},
        {"ntpclient.daylightsaving.DayLightEnable", "0"},
        {"ntpclient.daylightsaving.startMonth", "3"},
        {"ntpclient.daylightsaving.startWeek", "2"},
        {"ntpclient.daylightsaving.startDay", "0"},
        {"ntpclient.daylightsaving.startHour", "2"},
        {"ntpclient.daylightsaving.endMonth", "11"},
        {"ntpclient.daylightsaving.endWeek", "1"},
        {"ntpclient.daylightsaving.endDay", "0"},
        {"ntpclient.daylightsaving.endHour", "2"},
        {"korvatCloud.korvatCloud.ts_autoUpdate", "NONE"},
        {"korvatCloud.korvatCloud.ts_manualEntry", ""},
    };
}

/* Puts the in-memory device in place for the life of a test. */
class TimeZoneDevice : public ::testing::Test {
protected:
    void SetUp() override
    {
        s_uci = factoryOptions();
        s_year = "2021";
        device_.answer = deviceAnswer;
        device_.run = deviceRun;
        s_device = &device_;
    }
    void TearDown() override
    {
        s_device = nullptr;
        g_debugFlag = 0;
    }
    static std::string get(const std::string &path) { return "uci get " + path + " | tr -d '\\n'"; }

private:
    kctest::RecordedShell device_;
};

std::string take(char *text)
{
    std::string s = text != nullptr ? text : "<none>";
    free(text);
    return s;
}

/* ---- the table, typed in independently ---- */

struct ZoneRow {
    const char *code;
    const char *offset; // after "UTC"
    const char *places;
    const char *codeForOffset; // what the offset text finds (earlier rows win)
    const char *codeForPlaces; // what the places text finds
};

const ZoneRow kRows[40] = {
    {"UTC12", "-12:00", "Kwajalein", "UTC12", "UTC12"},
    {"UTC11", "-11:00", "Midway Island, Samoa", "UTC11", "UTC11"},
    {"UTC10", "-10:00", "Hawaii", "UTC10", "UTC10"},
    {"NAST9", "-9:00", "Alaska", "NAST9", "NAST9"},
    {"PST8", "-8:00", "Pacific Time", "PST8", "PST8"},
    {"MST7", "-7:00", "Mountain Time", "MST7", "MST7"},
    {"UTC6", "-6:00", "Mexico", "UTC6", "UTC6"},
    {"CST6", "-6:00", "Central Time", "UTC6", "CST6"},
    {"UTC5", "-5:00", "Colombia, Panama", "UTC5", "UTC5"},
    {"EST5", "-5:00", "Eastern Time", "UTC5", "EST5"},
    {"UTC4", "-4:00", "Bolivia, Venezuela", "UTC4", "UTC4"},
    {"AST4", "-4:00", "Atlantic Time", "UTC4", "AST4"},
    {"BRWST4", "-4:00", "Brazil West", "UTC4", "BRWST4"},
    {"NST3:30", "-3:30", "Newfoundland", "NST3:30", "NST3:30"},
    {"WGST3", "-3:00", "Greenland", "WGST3", "WGST3"},
    {"BRST3", "-3:00", "Brazil East", "WGST3", "BRST3"},
    {"UTC3", "-3:00", "Guyana", "WGST3", "UTC3"},
    {"UTC2", "-2:00", "Mid-Atlantic", "UTC2", "UTC2"},
    {"STD1", "-1:00", "Azores", "STD1", "STD1"},
    {"UTC0", "+0:00", "Gambia, Liberia, Morocco", "UTC0", "UTC0"},
    {"GMT0", "+0:00", "England", "UTC0", "GMT0"},
    {"UTC-1", "+1:00", "Tunisia", "UTC-1", "UTC-1"},
    {"STD-1", "+1:00", "France, Germany, Italy", "UTC-1", "STD-1"},
    {"UTC-2", "+2:00", "South Africa", "UTC-2", "UTC-2"},
    {"STD-2", "+2:00", "Greece, Ukraine, Romania, Turkey", "UTC-2", "STD-2"},
    {"UTC-3", "+3:00", "Iraq, Jordan, Kuwait", "UTC-3", "UTC-3"},
    {"EEST-3", "+3:00", "Finland", "UTC-3", "EEST-3"},
    {"UTC-4", "+4:00", "Armenia", "UTC-4", "UTC-4"},
    {"UTC-5", "+5:00", "Pakistan, Russia", "UTC-5", "UTC-5"},
    {"UTC-5:30", "+5:30", "Bombay, Calcutta, Madras, New Delhi", "UTC-5:30", "UTC-5:30"},
    {"UTC-6", "+6:00", "Bangladesh, Russia", "UTC-6", "UTC-6"},
    {"UTC-7", "+7:00", "Thailand, Russia", "UTC-7", "UTC-7"},
    {"UTC-8", "+8:00", "China, Hong Kong, Western Australia, Singapore, Taiwan, Russia", "UTC-8",
     "UTC-8"},
    {"UTC-9", "+9:00", "Japan, Korea", "UTC-9", "UTC-9"},
    {"CST-9:30", "+9:30", "South Australia", "CST-9:30", "CST-9:30"},
    {"UTC-10", "+10:00", "Guam, Russia", "UTC-10", "UTC-10"},
    // "Australia" is also part of row 32's places
    {"STD-10", "+10:00", "Australia", "UTC-10", "UTC-8"},
    {"UTC-11", "+11:00", "Solomon Islands", "UTC-11", "UTC-11"},
    {"UTC-12", "+12:00", "Fiji", "UTC-12", "UTC-12"},
    {"NZST-12", "+12:00", "New Zealand", "UTC-12", "NZST-12"},
};

/* Weekday of a date by the C library, an independent oracle for the years
 * every time_t holds (1902 to 2037). */
int libraryWeekday(int year, int month, int day)
{
    struct tm t = {};
    t.tm_year = year - 1900;
    t.tm_mon = month - 1;
    t.tm_mday = day;
    t.tm_hour = 12;
    time_t when = timegm(&t);
    struct tm out;
    gmtime_r(&when, &out);
    return out.tm_wday;
}

int daysInMonth(int year, int month)
{
    static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    return month == 2 && leap ? 29 : kDays[month - 1];
}

} // namespace

/* ---- the table ---- */

TEST(TimeZoneTable, HoldsFortyRowsOfTextAndAnEmptyLast)
{
    for (int i = 0; i < 40; i++) {
        std::string expected =
            std::string(kRows[i].code) + " UTC" + kRows[i].offset + " " + kRows[i].places;
        EXPECT_EQ(expected, g_timeZoneTable[i]) << "row " << i;
    }
    EXPECT_STREQ("", g_timeZoneTable[40]);
    EXPECT_EQ(41u, sizeof g_timeZoneTable / sizeof g_timeZoneTable[0]);
    EXPECT_EQ(100u, sizeof g_timeZoneTable[0]);
}

TEST(TimeZoneTable, EveryCodeGivesItsOffset)
{
    for (const ZoneRow &row : kRows)
        EXPECT_EQ(row.offset, take(timezone_offset_of_code(row.code))) << row.code;
}

TEST(TimeZoneTable, EveryOffsetTextFindsTheFirstRowWithIt)
{
    for (const ZoneRow &row : kRows) {
        std::string withUtc = std::string("UTC") + row.offset;
        EXPECT_EQ(row.codeForOffset, take(find_timezone_code(withUtc.c_str()))) << withUtc;
        EXPECT_EQ(row.codeForOffset, take(find_timezone_code(row.offset))) << row.offset;
    }
}

TEST(TimeZoneTable, EveryPlaceTextFindsTheFirstRowWithIt)
{
    for (const ZoneRow &row : kRows)
        EXPECT_EQ(row.codeForPlaces, take(find_timezone_code(row.places))) << row.places;
}

TEST(TimeZoneTable, ShadowedRowsAreReachedByTheirPlacesOnly)
{
    // UTC-5:00 is in rows 8 (UTC5) and 9 (EST5): the earlier row wins
    EXPECT_EQ("UTC5", take(find_timezone_code("UTC-5:00")));
    EXPECT_EQ("UTC5", take(find_timezone_code("-5:00")));
    EXPECT_EQ("EST5", take(find_timezone_code("Eastern Time")));
    EXPECT_EQ("UTC-8", take(find_timezone_code("+8:00")));
    // a part of a row's text is enough
    EXPECT_EQ("UTC-5", take(find_timezone_code("Russia")));
    EXPECT_EQ("PST8", take(find_timezone_code("Time")));
    EXPECT_EQ("EST5", take(find_timezone_code("EST5")));
}

TEST(TimeZoneTable, TextInNoRowFindsNothing)
{
    EXPECT_EQ("<none>", take(find_timezone_code("-5:01")));
    EXPECT_EQ("<none>", take(find_timezone_code("Helsinki")));
    EXPECT_EQ("<none>", take(find_timezone_code("eastern time"))); // case counts
    EXPECT_EQ("<none>", take(find_timezone_code(nullptr)));
    // the empty text names no zone, though every row contains it
    EXPECT_EQ("<none>", take(find_timezone_code("")));
}

TEST(TimeZoneTable, ACodeNoRowBeginsWithHasNoOffset)
{
    EXPECT_EQ("<none>", take(timezone_offset_of_code("Europe/Helsinki")));
    EXPECT_EQ("<none>", take(timezone_offset_of_code("XYZ5")));
    EXPECT_EQ("<none>", take(timezone_offset_of_code("")));
    EXPECT_EQ("<none>", take(timezone_offset_of_code(nullptr)));
    // the code is compared as a prefix: the first row beginning with it
    EXPECT_EQ("+1:00", take(timezone_offset_of_code("UTC-1")));  // before UTC-10..12
    EXPECT_EQ("+5:00", take(timezone_offset_of_code("UTC-5")));  // before UTC-5:30
    EXPECT_EQ("+1:00", take(timezone_offset_of_code("STD-1")));  // before STD-10
}

TEST_F(TimeZoneDevice, TimeZoneOffsetOfTheStoredCode)
{
    s_uci["system.system.timezone"] = "EST5";
    EXPECT_EQ("-5:00", take(get_timezone_offset()));
    s_uci["system.system.timezone"] = "UTC-5:30";
    EXPECT_EQ("+5:30", take(get_timezone_offset()));
    s_uci["system.system.timezone"] = "NST3:30";
    EXPECT_EQ("-3:30", take(get_timezone_offset()));
    s_uci["system.system.timezone"] = "Europe/Helsinki";
    EXPECT_EQ("<none>", take(get_timezone_offset()));
    s_uci.erase("system.system.timezone"); // uci prints nothing
    EXPECT_EQ("<none>", take(get_timezone_offset()));
    for (const std::string &c : commands())
        EXPECT_EQ(get("system.system.timezone"), c);
    EXPECT_EQ(5u, commands().size());
}

/* ---- calendar ---- */

TEST(TimeZoneCalendar, FirstOfJanuary2000IsASaturday)
{
    EXPECT_EQ(6, day_of_week(2000, 1, 1));
    EXPECT_STREQ("Saturday", weekday_name(day_of_week(2000, 1, 1)));
}

TEST(TimeZoneCalendar, WeekdayNamesFromSunday)
{
    const char *names[] = {"Sunday", "Monday", "Tuesday", "Wednesday",
                           "Thursday", "Friday", "Saturday"};
    for (int i = 0; i < 7; i++)
        EXPECT_STREQ(names[i], weekday_name(i));
    EXPECT_EQ(nullptr, weekday_name(7));
    EXPECT_EQ(nullptr, weekday_name(-1));
}

TEST(TimeZoneCalendar, WeekdayAgreesWithTheCalendarFor1900To2100)
{
    // The calendar walked one day at a time from Monday 1 January 1900 (not
    // the C library: a 32-bit time_t, as on the target, ends in 1901 and
    // 2038).
    int weekday = 1;
    int checked = 0;
    for (int year = 1900; year <= 2100; year++) {
        for (int month = 1; month <= 12; month++) {
            for (int day = 1; day <= daysInMonth(year, month); day++) {
                ASSERT_EQ(weekday, day_of_week(year, month, day))
                    << year << "-" << month << "-" << day;
                weekday = (weekday + 1) % 7;
                checked++;
            }
        }
    }
    EXPECT_EQ(73414, checked); // 201 years, 49 of them leap years
    EXPECT_EQ(5, day_of_week(2100, 12, 31)); // a Friday
}

TEST(TimeZoneCalendar, DaysPastTheMonthsEndAreTheNextMonthsFirst)
{
    // 2021-02-29 .. 31 are worked out as 2021-03-01 .. 03 (Mon, Tue, Wed)
    EXPECT_EQ(1, day_of_week(2021, 2, 29));
    EXPECT_EQ(2, day_of_week(2021, 2, 30));
    EXPECT_EQ(3, day_of_week(2021, 2, 31));
    EXPECT_EQ(libraryWeekday(2021, 5, 1), day_of_week(2021, 4, 31));
}

TEST(TimeZoneCalendar, MissingFifthSundayOfFebruary2021PrintsAnErrorAndGivesOne)
{
    testing::internal::CaptureStdout();
    int day = day_of_nth_weekday(2021, 2, 5, 0);
    EXPECT_EQ("Error input date!\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ(1, day);
}

TEST(TimeZoneCalendar, NthWeekdayOfRealMonths)
{
    testing::internal::CaptureStdout();
    EXPECT_EQ(14, day_of_nth_weekday(2021, 3, 2, 0));  // 2nd Sunday of March 2021
    EXPECT_EQ(7, day_of_nth_weekday(2021, 11, 1, 0));  // 1st Sunday of November 2021
    EXPECT_EQ(28, day_of_nth_weekday(2021, 2, 4, 0));  // 4th Sunday of February 2021
    EXPECT_EQ(31, day_of_nth_weekday(2021, 3, 5, 3));  // 5th Wednesday of March 2021
    EXPECT_EQ(10, day_of_nth_weekday(2024, 3, 2, 0));  // 2nd Sunday of March 2024
    EXPECT_EQ(29, day_of_nth_weekday(2024, 2, 5, 4));  // 5th Thursday of February 2024
    EXPECT_EQ(1, day_of_nth_weekday(2000, 1, 1, 6));   // 1st Saturday of January 2000
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
}

TEST(TimeZoneCalendar, FirstToFourthWeekdayAgreeWithTheCalendar)
{
    testing::internal::CaptureStdout();
    for (int year = 2000; year <= 2030; year++) {
        for (int month = 1; month <= 12; month++) {
            for (int weekday = 0; weekday < 7; weekday++) {
                int seen = 0;
                for (int day = 1; day <= daysInMonth(year, month); day++) {
                    if (libraryWeekday(year, month, day) != weekday)
                        continue;
                    seen++;
                    ASSERT_EQ(day, day_of_nth_weekday(year, month, seen, weekday))
                        << year << "-" << month << " #" << seen << " of " << weekday;
                }
            }
        }
    }
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
}

TEST(TimeZoneCalendar, MonthLengthIsNotChecked)
{
    // February 2021's 5th Monday is "day 29" (March 1st by the formula)
    testing::internal::CaptureStdout();
    EXPECT_EQ(29, day_of_nth_weekday(2021, 2, 5, 1));
    EXPECT_EQ(31, day_of_nth_weekday(2021, 4, 5, 6)); // "April 31st" is May 1st, Sat
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
}

TEST(TimeZoneCalendar, NoZerothOrSixthWeekday)
{
    testing::internal::CaptureStdout();
    EXPECT_EQ(1, day_of_nth_weekday(2021, 3, 0, 0));
    EXPECT_EQ(1, day_of_nth_weekday(2021, 3, 6, 0));
    EXPECT_EQ("Error input date!\nError input date!\n", testing::internal::GetCapturedStdout());
}

TEST(TimeZoneCalendar, WeekOfMonth)
{
    testing::internal::CaptureStdout();
    EXPECT_EQ(1, week_of_month(2021, 3, 1));   // Monday, the first
    EXPECT_EQ(1, week_of_month(2021, 3, 7));   // Sunday, the first Sunday
    EXPECT_EQ(2, week_of_month(2021, 3, 14));  // Sunday, the second
    EXPECT_EQ(4, week_of_month(2021, 2, 28));  // the fourth Sunday
    EXPECT_EQ(5, week_of_month(2021, 3, 31));  // the fifth Wednesday
    EXPECT_EQ(1, week_of_month(2021, 11, 7));  // the first Sunday of November
    EXPECT_EQ(5, week_of_month(2021, 2, 29));  // "Feb 29th" as the fifth Monday
    std::string quiet = testing::internal::GetCapturedStdout();
    EXPECT_EQ("", quiet);
}

TEST(TimeZoneCalendar, WeekOfMonthOfADayThatNoCountReachesIsZero)
{
    // day 0 is a Sunday (February 28th); March's Sundays are 7 .. 28 and a
    // fifth does not exist, so no count gives day 0
    testing::internal::CaptureStdout();
    EXPECT_EQ(0, week_of_month(2021, 3, 0));
    EXPECT_EQ("Error input date!\n", testing::internal::GetCapturedStdout());
}

TEST_F(TimeZoneDevice, CurrentYearFromTheClock)
{
    s_year = "2027";
    EXPECT_EQ(2027, get_current_year());
    EXPECT_EQ(std::vector<std::string>{kDateYear}, commands());
    s_year = "";
    EXPECT_EQ(0, get_current_year());
}

TEST_F(TimeZoneDevice, CurrentYearDebugLine)
{
    g_debugFlag = 1;
    s_year = "2021";
    testing::internal::CaptureStdout();
    EXPECT_EQ(2021, get_current_year());
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(std::string::npos, out.find("][FUNC kapri_util.cpp::get_current_year][LINE "))
        << out;
    EXPECT_EQ("]: p_str = 2021\n", out.substr(out.find("]: ")));
    g_debugFlag = 0;
    testing::internal::CaptureStdout();
    get_current_year();
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
}

/* ---- the daylight-saving rule ---- */

TEST_F(TimeZoneDevice, ModeIsDisabledWhenTheSwitchIsOff)
{
    s_uci["ntpclient.daylightsaving.DayLightEnable"] = "0";
    s_uci["ntpclient.@ntpclient[0].AutoDaylightSaving"] = "1";
    EXPECT_STREQ("DISABLED", get_daylight_saving_mode());
    EXPECT_EQ(std::vector<std::string>{get("ntpclient.daylightsaving.DayLightEnable")},
              commands());
}

TEST_F(TimeZoneDevice, ModeIsAutomaticOrManualWhenTheSwitchIsOn)
{
    s_uci["ntpclient.daylightsaving.DayLightEnable"] = "1";
    s_uci["ntpclient.@ntpclient[0].AutoDaylightSaving"] = "1";
    EXPECT_STREQ("AUTOMATIC", get_daylight_saving_mode());
    s_uci["ntpclient.@ntpclient[0].AutoDaylightSaving"] = "0";
    EXPECT_STREQ("MANUAL", get_daylight_saving_mode());
    s_uci.erase("ntpclient.@ntpclient[0].AutoDaylightSaving");
    EXPECT_STREQ("MANUAL", get_daylight_saving_mode());
    // a missing switch reads -1: on
    s_uci.erase("ntpclient.daylightsaving.DayLightEnable");
    s_uci["ntpclient.@ntpclient[0].AutoDaylightSaving"] = "1";
    EXPECT_STREQ("AUTOMATIC", get_daylight_saving_mode());
    EXPECT_EQ(get("ntpclient.daylightsaving.DayLightEnable"), commands()[0]);
    EXPECT_EQ(get("ntpclient.@ntpclient[0].AutoDaylightSaving"), commands()[1]);
}

TEST_F(TimeZoneDevice, SettingDisabledLeavesTheAutomaticSwitchAlone)
{
    s_uci["ntpclient.daylightsaving.DayLightEnable"] = "1";
    s_uci["ntpclient.@ntpclient[0].AutoDaylightSaving"] = "1";
    EXPECT_EQ(1, set_daylight_saving_mode("DISABLED"));
    EXPECT_EQ(std::vector<std::string>{"uci set ntpclient.daylightsaving.DayLightEnable=0"},
              commands());
    EXPECT_EQ("1", s_uci["ntpclient.@ntpclient[0].AutoDaylightSaving"]);
}

TEST_F(TimeZoneDevice, SettingAnyOtherModeSwitchesOn)
{
    const std::vector<std::pair<const char *, const char *>> cases = {
        {"AUTOMATIC", "1"}, {"MANUAL", "0"}, {"automatic", "0"}, {"", "0"}};
    for (const auto &c : cases) {
        s_device->clearRecord();
        EXPECT_EQ(1, set_daylight_saving_mode(c.first));
        EXPECT_EQ((std::vector<std::string>{
                      "uci set ntpclient.daylightsaving.DayLightEnable=1",
                      std::string("uci set ntpclient.@ntpclient[0].AutoDaylightSaving=") + c.second}),
                  commands())
            << c.first;
    }
    s_device->clearRecord();
    EXPECT_EQ(0, set_daylight_saving_mode(nullptr));
    EXPECT_TRUE(commands().empty());
}

TEST_F(TimeZoneDevice, StartAndEndDatesOfTheRuleInThisYear)
{
    // the factory rule: 2nd Sunday of March, 1st Sunday of November
    s_year = "2021";
    EXPECT_EQ("03/14", take(get_dst_start_date()));
    EXPECT_EQ("11/07", take(get_dst_end_date()));
    EXPECT_EQ((std::vector<std::string>{
                  get("ntpclient.daylightsaving.startMonth"),
                  get("ntpclient.daylightsaving.startWeek"),
                  get("ntpclient.daylightsaving.startDay"), kDateYear,
                  get("ntpclient.daylightsaving.endMonth"),
                  get("ntpclient.daylightsaving.endWeek"),
                  get("ntpclient.daylightsaving.endDay"), kDateYear}),
              commands());
    s_year = "2024";
    EXPECT_EQ("03/10", take(get_dst_start_date()));
    EXPECT_EQ("11/03", take(get_dst_end_date()));
}

TEST_F(TimeZoneDevice, ARuleDayThatDoesNotExistReadsAsTheFirst)
{
    s_uci["ntpclient.daylightsaving.startMonth"] = "2";
    s_uci["ntpclient.daylightsaving.startWeek"] = "5";
    s_uci["ntpclient.daylightsaving.startDay"] = "0";
    testing::internal::CaptureStdout();
    EXPECT_EQ("02/01", take(get_dst_start_date()));
    EXPECT_EQ("Error input date!\n", testing::internal::GetCapturedStdout());
}

TEST_F(TimeZoneDevice, StartAndEndHours)
{
    s_uci["ntpclient.daylightsaving.startHour"] = "2";
    s_uci["ntpclient.daylightsaving.endHour"] = "23";
    EXPECT_EQ("02:00", take(get_dst_start_hour()));
    EXPECT_EQ("23:00", take(get_dst_end_hour()));
    EXPECT_EQ((std::vector<std::string>{get("ntpclient.daylightsaving.startHour"),
                                        get("ntpclient.daylightsaving.endHour")}),
              commands());
    // a figure too wide for the 6-byte text is cut
    s_uci["ntpclient.daylightsaving.endHour"] = "123";
    EXPECT_EQ("123:0", take(get_dst_end_hour()));
}

TEST_F(TimeZoneDevice, SettingADateStoresMonthWeekAndWeekday)
{
    s_year = "2021";
    EXPECT_EQ(1, set_dst_start_date("03/14"));
    EXPECT_EQ((std::vector<std::string>{kDateYear,
                                        "uci set ntpclient.daylightsaving.startMonth=3",
                                        "uci set ntpclient.daylightsaving.startWeek=2",
                                        "uci set ntpclient.daylightsaving.startDay=0"}),
              commands());
    s_device->clearRecord();
    EXPECT_EQ(1, set_dst_end_date("03/31"));
    EXPECT_EQ((std::vector<std::string>{kDateYear,
                                        "uci set ntpclient.daylightsaving.endMonth=3",
                                        "uci set ntpclient.daylightsaving.endWeek=5",
                                        "uci set ntpclient.daylightsaving.endDay=3"}),
              commands());
    // and it reads back as the same date
    EXPECT_EQ("03/14", take(get_dst_start_date()));
    EXPECT_EQ("03/31", take(get_dst_end_date()));
    s_device->clearRecord();
    EXPECT_EQ(0, set_dst_start_date(nullptr));
    EXPECT_TRUE(commands().empty());
}

TEST_F(TimeZoneDevice, SettingAnHourStoresTheNumberBeforeTheColon)
{
    EXPECT_EQ(1, set_dst_start_hour("02:00"));
    EXPECT_EQ(1, set_dst_end_hour("14"));
    EXPECT_EQ(0, set_dst_end_hour(nullptr));
    EXPECT_EQ((std::vector<std::string>{"uci set ntpclient.daylightsaving.startHour=2",
                                        "uci set ntpclient.daylightsaving.endHour=14"}),
              commands());
}

/* ---- the whole record ---- */

TEST_F(TimeZoneDevice, ReadingTheRecord)
{
    s_uci["korvatCloud.korvatCloud.ts_autoUpdate"] = "1_HOUR";
    s_uci["ntpclient.@ntpserver[0].hostname"] = "time.example.net";
    s_uci["system.system.timezone"] = "EST5";
    s_uci["korvatCloud.korvatCloud.ts_manualEntry"] = "2021/03/04 05:06:07";
    s_uci["ntpclient.daylightsaving.DayLightEnable"] = "1";
    s_uci["ntpclient.@ntpclient[0].AutoDaylightSaving"] = "0";
    s_uci["ntpclient.daylightsaving.endHour"] = "3";
    TimeSettings settings;
    memset(&settings, 'x', sizeof settings);
    ASSERT_EQ(0, read_time_settings(&settings));
    EXPECT_STREQ("1_HOUR", settings.autoUpdate);
    EXPECT_STREQ("time.example.net", settings.ntpServer);
    EXPECT_STREQ("-5:00", settings.utcOffset);
    EXPECT_STREQ("2021/03/04 05:06:07", settings.manualEntry);
    EXPECT_STREQ("MANUAL", settings.dstMode);
    EXPECT_STREQ("03/14", settings.dstStartDate);
    EXPECT_STREQ("02:00", settings.dstStartHour);
    EXPECT_STREQ("11/07", settings.dstEndDate);
    EXPECT_STREQ("03:00", settings.dstEndHour);
    // zeroed first: the bytes after each text are 0
    EXPECT_EQ(0, settings.ntpServer[80]);
    EXPECT_EQ(0, settings.autoUpdate[10]);
    EXPECT_EQ(153u, sizeof settings);
    // in this order
    EXPECT_EQ((std::vector<std::string>{
                  get("korvatCloud.korvatCloud.ts_autoUpdate"),
                  get("ntpclient.@ntpserver[0].hostname"), get("system.system.timezone"),
                  get("korvatCloud.korvatCloud.ts_manualEntry"),
                  get("ntpclient.daylightsaving.DayLightEnable"),
                  get("ntpclient.@ntpclient[0].AutoDaylightSaving"),
                  get("ntpclient.daylightsaving.startMonth"),
                  get("ntpclient.daylightsaving.startWeek"),
                  get("ntpclient.daylightsaving.startDay"), kDateYear,
                  get("ntpclient.daylightsaving.startHour"),
                  get("ntpclient.daylightsaving.endMonth"),
                  get("ntpclient.daylightsaving.endWeek"),
                  get("ntpclient.daylightsaving.endDay"), kDateYear,
                  get("ntpclient.daylightsaving.endHour")}),
              commands());
    EXPECT_EQ(-1, read_time_settings(nullptr));
}

TEST_F(TimeZoneDevice, ReadingARecordWithAnUnknownZoneLeavesTheOffsetEmpty)
{
    s_uci["system.system.timezone"] = "Mars/Olympus";
    TimeSettings settings;
    memset(&settings, 'x', sizeof settings);
    read_time_settings(&settings);
    EXPECT_STREQ("", settings.utcOffset);
    EXPECT_STREQ("DISABLED", settings.dstMode);
}

TEST_F(TimeZoneDevice, WritingARecordWithAManualTime)
{
    TimeSettings s = {};
    strcpy(s.autoUpdate, "3_HOURS");
    strcpy(s.ntpServer, "ntp.example.org");
    strcpy(s.utcOffset, "-5:00");
    strcpy(s.manualEntry, "2021/03/04 05:06:07");
    strcpy(s.dstMode, "AUTOMATIC");
    strcpy(s.dstStartDate, "03/28");
    strcpy(s.dstStartHour, "01:00");
    strcpy(s.dstEndDate, "10/31");
    strcpy(s.dstEndHour, "03:00");
    s_year = "2021";
    ASSERT_EQ(0, write_time_settings(&s));
    EXPECT_EQ((std::vector<std::string>{
                  "uci set korvatCloud.korvatCloud.ts_autoUpdate=\"3_HOURS\"",
                  "uci set ntpclient.@ntpserver[0].hostname=\"ntp.example.org\"",
                  "uci set system.system.timezone=\"UTC5\"",
                  "uci set ntpclient.@ntpclient[0].NTPSrvMode=0",
                  "uci set ntpclient.@ntpclient[0].TimeSettingMode=0",
                  "uci set korvatCloud.korvatCloud.ts_manualEntry=\"2021/03/04 05:06:07\"",
                  "uci set system.system.fixtime=\"202103040506\"",
                  "uci set ntpclient.daylightsaving.DayLightEnable=1",
                  "uci set ntpclient.@ntpclient[0].AutoDaylightSaving=1",
                  kDateYear,
                  "uci set ntpclient.daylightsaving.startMonth=3",
                  "uci set ntpclient.daylightsaving.startWeek=4", // Mar 28 2021: 4th Sunday
                  "uci set ntpclient.daylightsaving.startDay=0",
                  "uci set ntpclient.daylightsaving.startHour=1",
                  kDateYear,
                  "uci set ntpclient.daylightsaving.endMonth=10",
                  "uci set ntpclient.daylightsaving.endWeek=5", // Oct 31 2021: 5th Sunday
                  "uci set ntpclient.daylightsaving.endDay=0",
                  "uci set ntpclient.daylightsaving.endHour=3"}),
              commands());
    // nothing is committed here
    for (const std::string &c : commands())
        EXPECT_EQ(std::string::npos, c.find("commit")) << c;
    EXPECT_EQ(-1, write_time_settings(nullptr));
}

TEST_F(TimeZoneDevice, WritingARecordWithoutManualTimeTakesTheTimeFromTheServer)
{
    TimeSettings s = {};
    strcpy(s.autoUpdate, "NONE");
    strcpy(s.ntpServer, "pool.ntp.org");
    strcpy(s.utcOffset, "+13:00"); // in no row
    strcpy(s.dstMode, "DISABLED");
    strcpy(s.dstStartDate, "03/14");
    strcpy(s.dstStartHour, "02:00");
    strcpy(s.dstEndDate, "11/07");
    strcpy(s.dstEndHour, "02:00");
    ASSERT_EQ(0, write_time_settings(&s));
    ASSERT_GE(commands().size(), 7u);
    EXPECT_EQ((std::vector<std::string>{
                  "uci set korvatCloud.korvatCloud.ts_autoUpdate=\"NONE\"",
                  "uci set ntpclient.@ntpserver[0].hostname=\"pool.ntp.org\"",
                  "uci set system.system.timezone=\"\"",
                  "uci set ntpclient.@ntpclient[0].NTPSrvMode=1",
                  "uci set ntpclient.@ntpclient[0].TimeSettingMode=1",
                  "uci set korvatCloud.korvatCloud.ts_manualEntry=\"\"",
                  "uci set ntpclient.daylightsaving.DayLightEnable=0"}),
              std::vector<std::string>(commands().begin(), commands().begin() + 7));
    EXPECT_EQ("", s_uci["system.system.fixtime"]); // untouched
}

TEST_F(TimeZoneDevice, ARecordWithoutOffsetClearsTheZone)
{
    // as read back from a device whose zone is in no row
    TimeSettings s = {};
    strcpy(s.autoUpdate, "NONE");
    strcpy(s.dstMode, "DISABLED");
    ASSERT_EQ(0, write_time_settings(&s));
    ASSERT_GE(commands().size(), 3u);
    EXPECT_EQ("uci set system.system.timezone=\"\"", commands()[2]);
}

TEST_F(TimeZoneDevice, ARecordReadsBackAsWritten)
{
    TimeSettings s = {};
    strcpy(s.autoUpdate, "1_DAY");
    strcpy(s.ntpServer, "a\"b $(x) `y` \\z");
    strcpy(s.utcOffset, "+9:30");
    strcpy(s.manualEntry, "");
    strcpy(s.dstMode, "MANUAL");
    strcpy(s.dstStartDate, "04/04");
    strcpy(s.dstStartHour, "02:00");
    strcpy(s.dstEndDate, "10/03");
    strcpy(s.dstEndHour, "03:00");
    s_year = "2021";
    write_time_settings(&s);
    TimeSettings back;
    read_time_settings(&back);
    EXPECT_EQ(0, memcmp(&s, &back, sizeof s));
    EXPECT_EQ("CST-9:30", s_uci["system.system.timezone"]);
    EXPECT_EQ("a\"b $(x) `y` \\z", s_uci["ntpclient.@ntpserver[0].hostname"]);
}
