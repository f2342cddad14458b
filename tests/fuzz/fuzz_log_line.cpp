/*
 * Fuzzes the reading of the system-log capture "/tmp/cloud_log_file" (what
 * "logread -f" writes): parse_log_line and the zone rewriting
 * with_zone_colon.
 *
 * Input: the line, up to the first NUL byte (the parser takes a C string);
 * the parser gets its first EVENT_LINE_SIZE - 1 bytes, as the sender's
 * reads give it, the zone rewriting all of it.
 *
 * Oracles:
 *   parse_log_line   1 exactly when the line starts with one of the twelve
 *                    month names ("Jan" .. "Dec", case-sensitive) and holds
 *                    ": " at position 14 or later; then month is the
 *                    name's number (1 to 12), day the two characters at
 *                    position 4, time the eight from position 7, and
 *                    message what follows the first such ": ", with every
 *                    newline a blank and every double quote a single quote
 *                    (so it holds neither).  0 leaves the record as it was.
 *   with_zone_colon  the text with one ":" inserted before its last two
 *                    characters (at the start of a shorter text).
 */
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "client/events.h"
#include "fuzz_oracles.h"

namespace {

const char *const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                               "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

using kcfuzz::checkZoneColon;

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const char *bytes = reinterpret_cast<const char *>(data);
    const char *end = static_cast<const char *>(memchr(bytes, '\0', size));
    std::string line(bytes, end != nullptr ? (size_t)(end - bytes) : size);
    checkZoneColon(line);
    // the parser takes a line as the sender reads it: at most
    // EVENT_LINE_SIZE - 1 bytes
    if (line.size() >= EVENT_LINE_SIZE)
        line.resize(EVENT_LINE_SIZE - 1);

    LogLine out;
    out.month = -7;
    strcpy(out.day, "D?");
    strcpy(out.time, "T?");
    strcpy(out.message, "untouched-message");
    int parsed = parse_log_line(line.c_str(), &out);

    int month = 0;
    for (int i = 0; i < 12; i++)
        if (line.compare(0, 3, kMonths[i]) == 0)
            month = i + 1;
    size_t colon = line.size() >= 14 ? line.find(": ", 14) : std::string::npos;
    bool expected = month != 0 && colon != std::string::npos;

    if (parsed != (expected ? 1 : 0))
        abort();
    if (!parsed) {
        if (out.month != -7 || strcmp(out.day, "D?") != 0 || strcmp(out.time, "T?") != 0 ||
            strcmp(out.message, "untouched-message") != 0)
            abort();
    } else {
        std::string message = line.substr(colon + 2);
        for (char &c : message) {
            if (c == '\n')
                c = ' ';
            else if (c == '"')
                c = '\'';
        }
        if (out.month != month || out.day != line.substr(4, 2) || out.time != line.substr(7, 8) ||
            out.message != message)
            abort();
        if (strchr(out.message, '\n') != nullptr || strchr(out.message, '"') != nullptr)
            abort();
    }
    return 0;
}
