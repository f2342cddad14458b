/* Time zones, calendar arithmetic and the daylight-saving rule in UCI. */
#define KC_MODULE "kapri_util.cpp"
#include "util/time_zone.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "util/debug.h"
#include "util/shell.h"
#include "util/uci.h"
#include "util/text.h"
#include "util/facts.h"

/* ---- the time-zone table ---- */

const char g_timeZoneTable[TIME_ZONE_ROWS][TIME_ZONE_ROW_SIZE] = {
    "UTC12 UTC-12:00 Kwajalein",
    "UTC11 UTC-11:00 Midway Island, Samoa",
    "UTC10 UTC-10:00 Hawaii",
    "NAST9 UTC-9:00 Alaska",
    "PST8 UTC-8:00 Pacific Time",
    "MST7 UTC-7:00 Mountain Time",
    "UTC6 UTC-6:00 Mexico",
    "CST6 UTC-6:00 Central Time",
    "UTC5 UTC-5:00 Colombia, Panama",
    "EST5 UTC-5:00 Eastern Time",
    "UTC4 UTC-4:00 Bolivia, Venezuela",
    "AST4 UTC-4:00 Atlantic Time",
    "BRWST4 UTC-4:00 Brazil West",
    "NST3:30 UTC-3:30 Newfoundland",
    "WGST3 UTC-3:00 Greenland",
    "BRST3 UTC-3:00 Brazil East",
    "UTC3 UTC-3:00 Guyana",
    "UTC2 UTC-2:00 Mid-Atlantic",
    "STD1 UTC-1:00 Azores",
    "UTC0 UTC+0:00 Gambia, Liberia, Morocco",
    "GMT0 UTC+0:00 England",
    "UTC-1 UTC+1:00 Tunisia",
    "STD-1 UTC+1:00 France, Germany, Italy",
    "UTC-2 UTC+2:00 South Africa",
    "STD-2 UTC+2:00 Greece, Ukraine, Romania, Turkey",
    "UTC-3 UTC+3:00 Iraq, Jordan, Kuwait",
    "EEST-3 UTC+3:00 Finland",
    "UTC-4 UTC+4:00 Armenia",
    "UTC-5 UTC+5:00 Pakistan, Russia",
    "UTC-5:30 UTC+5:30 Bombay, Calcutta, Madras, New Delhi",
    "UTC-6 UTC+6:00 Bangladesh, Russia",
    "UTC-7 UTC+7:00 Thailand, Russia",
    "UTC-8 UTC+8:00 China, Hong Kong, Western Australia, Singapore, Taiwan, Russia",
    "UTC-9 UTC+9:00 Japan, Korea",
    "CST-9:30 UTC+9:30 South Australia",
    "UTC-10 UTC+10:00 Guam, Russia",
    "STD-10 UTC+10:00 Australia",
    "UTC-11 UTC+11:00 Solomon Islands",
    "UTC-12 UTC+12:00 Fiji",
    "NZST-12 UTC+12:00 New Zealand",
    "",
};

/* Zone codes and offsets are short: both fit a 10-byte text. */
static const size_t kZoneTextSize = 10;

/* A new kZoneTextSize-byte text holding text up to its first blank (or
 * its end), cut to fit. */
static char *copyWord(const char *text)
{
    char *word = static_cast<char *>(calloc(kZoneTextSize, 1));
    size_t n = strcspn(text, " ");
    if (n > kZoneTextSize - 1)
        n = kZoneTextSize - 1;
    memcpy(word, text, n);
    return word;
}

char *timezone_offset_of_code(const char *code)
{
    /* An empty code (a missing option) would be a prefix of the first row:
     * it stands for no zone. */
    if (code == NULL || code[0] == '\0')
        return NULL;
    size_t n = strlen(code);
    for (int row = 0; row < TIME_ZONE_ROWS; row++) {
        const char *text = g_timeZoneTable[row];
        if (strncmp(text, code, n) != 0)
            continue;
        /* skip the code, the blank and "UTC" */
        if (strlen(text) < n + 4)
            return NULL;
        return copyWord(text + n + 4);
    }
    return NULL;
}

char *get_timezone_offset(void)
{
    char *code = uci_get("system.system.timezone");
    char *offset = code == SHELL_ERROR_TEXT ? NULL : timezone_offset_of_code(code);
    free_text(code);
    return offset;
}

char *find_timezone_code(const char *text)
{
    /* The empty text is part of every row; it names no zone all the same,
     * so that a record without an offset never turns into the first row. */
    if (text == NULL || text[0] == '\0')
        return NULL;
    for (int row = 0; row < TIME_ZONE_ROWS; row++) {
        if (strstr(g_timeZoneTable[row], text) != NULL)
            return copyWord(g_timeZoneTable[row]);
    }
    return NULL;
}

/* ---- calendar ---- */

static const char *const kWeekdayNames[7] = {
    "Sunday", "Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday",
};

int day_of_week(int year, int month, int day)
{
    /* The day number of the date counted from a fixed origin; worked out in
     * 64 bits so that any figure read from UCI stays defined. */
    long long a = (14LL - month) / 12;
    long long y = (long long)year + 4800 - a;
    long long n = ((12 * a + month) * 153 - 457) / 5 + day + 365 * y + y / 4 - y / 100 +
                  y / 400 - 32044;
    return (int)(n % 7);
}

const char *weekday_name(int weekday)
{
    if (weekday < 0 || weekday > 6)
        return NULL;
    return kWeekdayNames[weekday];
}

int day_of_nth_weekday(int year, int month, int n, int weekday)
{
    int count = 0;
    for (int day = 1; day <= 31; day++) {
        if (day_of_week(year, month, day) != weekday)
            continue;
        count++;
        if (count == n)
            return day;
    }
    printf("Error input date!\n");
    return 1;
}

int week_of_month(int year, int month, int day)
{
    int weekday = day_of_week(year, month, day);
    for (int n = 1; n <= 5; n++) {
        if (day_of_nth_weekday(year, month, n, weekday) == day)
            return n;
    }
    return 0;
}

int get_current_year(void)
{
    char *text = run_shell_command("date +%Y | tr -d '\\n'", 10);
    KC_DEBUG("p_str = %s\n", text);
    int year = text != NULL ? atoi(text) : 0;
    free_text(text);
    return year;
}

/* ---- the daylight-saving rule ---- */

static const char kDstEnable[] = "ntpclient.daylightsaving.DayLightEnable";
static const char kDstAutomatic[] = "ntpclient.@ntpclient[0].AutoDaylightSaving";

const char *get_daylight_saving_mode(void)
{
    if (uci_get_int(kDstEnable) == 0)
        return "DISABLED";
    return uci_get_int(kDstAutomatic) == 1 ? "AUTOMATIC" : "MANUAL";
}

int set_daylight_saving_mode(const char *mode)
{
    if (mode == NULL)
        return 0;
    if (strcmp(mode, "DISABLED") == 0) {
        uci_set_int(kDstEnable, 0);
        return 1;
    }
    uci_set_int(kDstEnable, 1);
    uci_set_int(kDstAutomatic, strcmp(mode, "AUTOMATIC") == 0 ? 1 : 0);
    return 1;
}

/* "ntpclient.daylightsaving.<edge><field>", edge "start" or "end". */
static void dstOption(char *path, size_t size, const char *edge, const char *field)
{
    snprintf(path, size, "ntpclient.daylightsaving.%s%s", edge, field);
}

static int readDstField(const char *edge, const char *field)
{
    char path[64];
    dstOption(path, sizeof path, edge, field);
    return uci_get_int(path);
}

static void writeDstField(const char *edge, const char *field, int value)
{
    char path[64];
    dstOption(path, sizeof path, edge, field);
    uci_set_int(path, value);
}

/* A new 6-byte copy of full, cut to fit ("MM/DD", "HH:00"). */
static char *shortText(const char *full)
{
    char *text = static_cast<char *>(calloc(6, 1));
    size_t n = strlen(full);
    memcpy(text, full, n < 5 ? n : 5);
    return text;
}

static char *getDstDate(const char *edge)
{
    int month = readDstField(edge, "Month");
    int week = readDstField(edge, "Week");
    int weekday = readDstField(edge, "Day");
    int day = day_of_nth_weekday(get_current_year(), month, week, weekday);
    char full[32];
    snprintf(full, sizeof full, "%02d/%02d", month, day);
    return shortText(full);
}

static char *getDstHour(const char *edge)
{
    char full[32];
    snprintf(full, sizeof full, "%02d:00", readDstField(edge, "Hour"));
    return shortText(full);
}

static int setDstDate(const char *edge, const char *monthDay)
{
    if (monthDay == NULL)
        return 0;
    int month = atoi(monthDay);
    const char *slash = strchr(monthDay, '/');
    int day = slash != NULL ? atoi(slash + 1) : 0;
    int year = get_current_year();
    writeDstField(edge, "Month", month);
    writeDstField(edge, "Week", week_of_month(year, month, day));
    writeDstField(edge, "Day", day_of_week(year, month, day));
    return 1;
}

static int setDstHour(const char *edge, const char *hour)
{
    if (hour == NULL)
        return 0;
    writeDstField(edge, "Hour", atoi(hour)); /* the number before ":" */
    return 1;
}

char *get_dst_start_date(void) { return getDstDate("start"); }
char *get_dst_start_hour(void) { return getDstHour("start"); }
char *get_dst_end_date(void) { return getDstDate("end"); }
char *get_dst_end_hour(void) { return getDstHour("end"); }
int set_dst_start_date(const char *monthDay) { return setDstDate("start", monthDay); }
int set_dst_start_hour(const char *hour) { return setDstHour("start", hour); }
int set_dst_end_date(const char *monthDay) { return setDstDate("end", monthDay); }
int set_dst_end_hour(const char *hour) { return setDstHour("end", hour); }

/* ---- the whole time-settings record ---- */

/* Copies at most size - 1 characters of text (none for NULL) and ends it. */
static void copyField(char *field, size_t size, const char *text)
{
    snprintf(field, size, "%s", text != NULL ? text : "");
}

/* Copies a runner's or uci_get's text into a field and frees it. */
static void takeShellField(char *field, size_t size, char *text)
{
    copyField(field, size, text);
    free_text(text);
}

/* Copies a text of this module into a field and releases it. */
static void takeField(char *field, size_t size, char *text)
{
    copyField(field, size, text);
    free_text(text);
}

int read_time_settings(TimeSettings *settings)
{
    if (settings == NULL)
        return -1;
    memset(settings, 0, sizeof *settings);
    takeShellField(settings->autoUpdate, sizeof settings->autoUpdate,
                   uci_get("korvatCloud.korvatCloud.ts_autoUpdate"));
    takeShellField(settings->ntpServer, sizeof settings->ntpServer,
                   uci_get("ntpclient.@ntpserver[0].hostname"));
    takeField(settings->utcOffset, sizeof settings->utcOffset, get_timezone_offset());
    takeShellField(settings->manualEntry, sizeof settings->manualEntry,
                   uci_get("korvatCloud.korvatCloud.ts_manualEntry"));
    copyField(settings->dstMode, sizeof settings->dstMode, get_daylight_saving_mode());
    takeField(settings->dstStartDate, sizeof settings->dstStartDate, get_dst_start_date());
    takeField(settings->dstStartHour, sizeof settings->dstStartHour, get_dst_start_hour());
    takeField(settings->dstEndDate, sizeof settings->dstEndDate, get_dst_end_date());
    takeField(settings->dstEndHour, sizeof settings->dstEndHour, get_dst_end_hour());
    return 0;
}

int write_time_settings(const TimeSettings *settings)
{
    if (settings == NULL)
        return -1;
    /* The fields are read through copies that are sure to end. */
    TimeSettings s;
    copyField(s.autoUpdate, sizeof s.autoUpdate, settings->autoUpdate);
    copyField(s.ntpServer, sizeof s.ntpServer, settings->ntpServer);
    copyField(s.utcOffset, sizeof s.utcOffset, settings->utcOffset);
    copyField(s.manualEntry, sizeof s.manualEntry, settings->manualEntry);
    copyField(s.dstMode, sizeof s.dstMode, settings->dstMode);
    copyField(s.dstStartDate, sizeof s.dstStartDate, settings->dstStartDate);
    copyField(s.dstStartHour, sizeof s.dstStartHour, settings->dstStartHour);
    copyField(s.dstEndDate, sizeof s.dstEndDate, settings->dstEndDate);
    copyField(s.dstEndHour, sizeof s.dstEndHour, settings->dstEndHour);

    uci_set("korvatCloud.korvatCloud.ts_autoUpdate", s.autoUpdate);
    uci_set("ntpclient.@ntpserver[0].hostname", s.ntpServer);
    char *code = find_timezone_code(s.utcOffset);
    uci_set("system.system.timezone", code != NULL ? code : "");
    free_text(code);
    if (s.manualEntry[0] != '\0') {
        uci_set_int("ntpclient.@ntpclient[0].NTPSrvMode", 0);
        uci_set_int("ntpclient.@ntpclient[0].TimeSettingMode", 0);
        uci_set("korvatCloud.korvatCloud.ts_manualEntry", s.manualEntry);
        char *fixed = compact_timestamp(s.manualEntry);
        uci_set("system.system.fixtime", fixed);
        free_text(fixed);
    } else {
        uci_set_int("ntpclient.@ntpclient[0].NTPSrvMode", 1);
        uci_set_int("ntpclient.@ntpclient[0].TimeSettingMode", 1);
        uci_set("korvatCloud.korvatCloud.ts_manualEntry", "");
    }
    set_daylight_saving_mode(s.dstMode);
    set_dst_start_date(s.dstStartDate);
    set_dst_start_hour(s.dstStartHour);
    set_dst_end_date(s.dstEndDate);
    set_dst_end_hour(s.dstEndHour);
    return 0;
}
