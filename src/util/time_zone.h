/*
 * Time zones, calendar arithmetic and the daylight-saving rule of the
 * device.
 *
 * The zone is kept in "system.system.timezone" as a code of the fixed
 * table below ("EST5", "UTC-8", ...); the server speaks of it by its UTC
 * offset ("-5:00").  The daylight-saving rule lives in package ntpclient,
 * section daylightsaving, as start and end month, week of the month,
 * weekday (0 = Sunday) and hour.
 *
 * Ownership: every char * result below is a new heap text that the caller
 * releases with free_text (util/text.h); NULL means "none".  The const char * results are
 * constants, never freed.  Nothing here commits UCI.
 */
#ifndef KC_UTIL_TIME_ZONE_H
#define KC_UTIL_TIME_ZONE_H

/* ---- the time-zone table ---- */

#define TIME_ZONE_ROWS 41
#define TIME_ZONE_ROW_SIZE 100

/*
 * Each row: the zone code, a blank, "UTC" and the offset, a blank, the
 * places.  The last row is empty.  Lookups take the first row that fits,
 * so the order matters ("UTC5" comes before "EST5").
 */
extern const char g_timeZoneTable[TIME_ZONE_ROWS][TIME_ZONE_ROW_SIZE];

/* Offset text of a zone code ("-5:00" for "EST5"): the first row that
 * begins with the code (a prefix comparison).  NULL when code is NULL or
 * empty, or no row begins with it.  New text of 10 bytes. */
char *timezone_offset_of_code(const char *code);

/* Offset text of the zone in "system.system.timezone"; NULL when the
 * option is missing or no row begins with its code.  New text. */
char *get_timezone_offset(void);

/* Zone code of the first row that contains text anywhere ("UTC-5:00" and
 * "-5:00" give "UTC5", "Eastern Time" gives "EST5"); NULL when text is
 * NULL or empty, or no row contains it.  New text of 10 bytes. */
char *find_timezone_code(const char *text);

/* ---- calendar ---- */

/* Weekday of a date (month 1-12), 0 = Sunday .. 6 = Saturday. */
int day_of_week(int year, int month, int day);

/* "Sunday" .. "Saturday" for 0 .. 6; NULL for any other number. */
const char *weekday_name(int weekday);

/* Day of the month of the n-th given weekday.  Days 1 to 31 are counted in
 * every month (the weekday of day 30 of February is worked out as if it
 * existed).  Without an n-th one it prints "Error input date!\n" and gives
 * 1. */
int day_of_nth_weekday(int year, int month, int n, int weekday);

/* Which occurrence of its weekday in the month the date is (1 to 5); 0
 * when none fits. */
int week_of_month(int year, int month, int day);

/* The year the device's clock shows ("date +%Y"); 0 without output. */
int get_current_year(void);

/* ---- the daylight-saving rule ---- */

/* "DISABLED" when DayLightEnable reads 0; else "AUTOMATIC" when
 * AutoDaylightSaving reads 1, else "MANUAL".  A constant. */
const char *get_daylight_saving_mode(void);
/* "DISABLED" sets DayLightEnable 0 and leaves AutoDaylightSaving alone;
 * any other text sets DayLightEnable 1 and AutoDaylightSaving 1 for
 * "AUTOMATIC", else 0.  0 when mode is NULL (nothing set), else 1. */
int set_daylight_saving_mode(const char *mode);

/* Start and end of the rule in this year: date "MM/DD" and hour "HH:00",
 * new texts of 6 bytes (longer figures are cut). */
char *get_dst_start_date(void);
char *get_dst_start_hour(void);
char *get_dst_end_date(void);
char *get_dst_end_hour(void);

/* From "MM/DD": month, week of the month and weekday of that date in this
 * year.  From "HH:00" (or "HH"): the hour.  0 when text is NULL (nothing
 * set), else 1. */
int set_dst_start_date(const char *monthDay);
int set_dst_start_hour(const char *hour);
int set_dst_end_date(const char *monthDay);
int set_dst_end_hour(const char *hour);

/* ---- the whole time-settings record ---- */

struct TimeSettings {
    char autoUpdate[11];  /* time-sync frequency name ("1_HOUR", "NONE") */
    char ntpServer[81];   /* host name of the first time server */
    char utcOffset[7];    /* "-5:00"; empty when the zone is not known */
    char manualEntry[20]; /* "YYYY/MM/DD hh:mm:ss"; empty: time from NTP */
    char dstMode[10];     /* "AUTOMATIC", "MANUAL" or "DISABLED" */
    char dstStartDate[6]; /* "MM/DD" */
    char dstStartHour[6]; /* "HH:00" */
    char dstEndDate[6];
    char dstEndHour[6];
};

/* Zeroes the record and fills it from the device; -1 for NULL, else 0. */
int read_time_settings(TimeSettings *settings);
/* Stages the record in UCI (no commit); -1 for NULL, else 0. */
int write_time_settings(const TimeSettings *settings);

#endif
