/*
 * Fuzzes the reading of the event file "/tmp/cEvtLog" (other programs of
 * the device append to it): parse_event_line and the zone rewriting
 * with_zone_colon.
 *
 * Input: the line, up to the first NUL byte (the parser takes a C string);
 * the parser gets its first EVENT_LINE_SIZE - 1 bytes, as the sender's
 * reads give it, the zone rewriting all of it.
 *
 * Oracles, worked out from the labels' first occurrences:
 *   parse_event_line  1 exactly when "number:", " dateTime:", " type:" and
 *                     " event:" all occur, in this order, none overlapping
 *                     the next; then number is atoi of the text between
 *                     the first two labels, dateTime the text between the
 *                     second and third with ":" before its last two
 *                     characters, type the text between the third and
 *                     fourth, event the rest of the line less its last
 *                     character.  0 leaves the record as it was.
 *   with_zone_colon   the text with one ":" inserted before its last two
 *                     characters (at the start of a shorter text).
 */
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "client/events.h"
#include "fuzz_oracles.h"

using kcfuzz::checkZoneColon;

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

    EventRecord rec;
    rec.number = -4242;
    strcpy(rec.dateTime, "untouched-date");
    strcpy(rec.type, "untouched-type");
    strcpy(rec.event, "untouched-event");
    int parsed = parse_event_line(line.c_str(), &rec);

    size_t n = line.find("number:");
    size_t d = line.find(" dateTime:");
    size_t t = line.find(" type:");
    size_t e = line.find(" event:");
    bool present = n != std::string::npos && d != std::string::npos &&
                   t != std::string::npos && e != std::string::npos;
    bool ordered = present && n + 7 <= d && d + 10 <= t && t + 6 <= e;

    if (parsed != (ordered ? 1 : 0))
        abort();
    if (!parsed) {
        if (rec.number != -4242 || strcmp(rec.dateTime, "untouched-date") != 0 ||
            strcmp(rec.type, "untouched-type") != 0 || strcmp(rec.event, "untouched-event") != 0)
            abort();
    } else {
        std::string number = line.substr(n + 7, d - (n + 7));
        std::string date = line.substr(d + 10, t - (d + 10));
        std::string type = line.substr(t + 6, e - (t + 6));
        std::string event = line.substr(e + 7);
        if (!event.empty())
            event.pop_back();
        size_t at = date.size() >= 2 ? date.size() - 2 : 0;
        std::string zoned = date.substr(0, at) + ":" + date.substr(at);
        if (rec.number != atoi(number.c_str()) || rec.dateTime != zoned || rec.type != type ||
            rec.event != event)
            abort();
    }
    return 0;
}
