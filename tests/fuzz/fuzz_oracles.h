/*
 * Small pieces the fuzz targets' oracles share: the unformatted text of a
 * tree, the trees waiting in a queue, the lines a line reader of 1,024
 * bytes takes from a text, and the check of with_zone_colon.
 */
#ifndef KC_TESTS_FUZZ_FUZZ_ORACLES_H
#define KC_TESTS_FUZZ_FUZZ_ORACLES_H

#include <cjson/cJSON.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "client/events.h"
#include "linux/sem.h"
#include "sdk/queue_manager.h"

namespace kcfuzz {

/* cJSON's unformatted text of tree. */
inline std::string printed(const cJSON *tree)
{
    char *text = cJSON_PrintUnformatted(tree);
    if (text == nullptr)
        abort();
    std::string s = text;
    cJSON_free(text);
    return s;
}

/* The trees waiting in queue. */
inline int filled(JsonQueue &queue)
{
    int value = 0;
    sem_getvalue(&queue.filledSlots, &value);
    return value;
}

/* The lines a 1,024-byte line reader takes from text: up to and with each
 * newline, or 1,023 bytes. */
inline std::vector<std::string> readerLines(const std::string &text)
{
    std::vector<std::string> lines;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = pos;
        while (end < text.size() && end - pos < 1023) {
            if (text[end++] == '\n')
                break;
        }
        lines.push_back(text.substr(pos, end - pos));
        pos = end;
    }
    return lines;
}

/* with_zone_colon puts one ':' before the last two characters of text and
 * changes nothing else. */
inline void checkZoneColon(const std::string &text)
{
    // a buffer of text.size() + 2 bytes holds the whole result
    std::string got(text.size() + 2, '#');
    with_zone_colon(text.c_str(), text.size(), &got[0], got.size());
    if (got.back() != '\0')
        abort();
    got.pop_back();
    size_t at = text.size() >= 2 ? text.size() - 2 : 0;
    if (strlen(got.c_str()) != text.size() + 1 || got[at] != ':')
        abort();
    // a smaller buffer takes what fits of it, terminated
    char cut[4];
    with_zone_colon(text.c_str(), text.size(), cut, sizeof cut);
    if (got.compare(0, sizeof cut - 1, cut) != 0)
        abort();
    got.erase(at, 1);
    if (got != text)
        abort();
}

} // namespace kcfuzz

#endif
