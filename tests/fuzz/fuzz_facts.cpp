/*
 * Fuzzes the pure formatting steps of the system facts, which turn device
 * output into reply texts.
 *
 * Input: byte 0 chooses the formatter (modulo 6); for cut_firmware_version
 * byte 1 is the number of parts (signed); for format_uptime the next eight
 * bytes are the seconds (big-endian, signed).  The rest, up to a NUL byte,
 * is the text.
 *
 * Oracles:
 *   cut_firmware_version  the text up to its parts-th dot (parts >= 1), or
 *                         the whole text when it has fewer dots
 *   format_uptime         at most 19 characters (a 20-byte result); below
 *                         one day "HH:MM:SS", from one day on "<days>d
 *                         HH:MM:SS" cut to 19 characters
 *   format_load_average   at most 7 characters (an 8-byte result)
 *   cpu_figure_to_percent 0 to 100 (a NaN or negative figure reads 0)
 *   kilobytes_text_to_bytes  a multiple of 1,024; a plain count below
 *                         4,194,304 kilobytes is exact
 *   compact_timestamp     at most 12 characters: the text less its last
 *                         three characters and its separators ("/", ":",
 *                         " ", "-", "T"), cut to 12
 */
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "util/facts.h"

namespace {

std::string take(char *text)
{
    if (text == nullptr)
        abort();
    std::string s = text;
    free(text);
    return s;
}

std::string twoDigits(long v)
{
    char buf[8];
    snprintf(buf, sizeof buf, "%02ld", v);
    return buf;
}

void checkFirmware(const std::string &text, int parts)
{
    std::string got = take(cut_firmware_version(text.c_str(), parts));
    std::string expected = text;
    if (parts >= 1) {
        int dots = 0;
        for (size_t i = 0; i < text.size(); i++) {
            if (text[i] == '.' && ++dots == parts) {
                expected = text.substr(0, i);
                break;
            }
        }
    }
    if (got != expected)
        abort();
}

void checkUptime(long seconds)
{
    std::string got = take(format_uptime(seconds));
    if (got.size() > 19)
        abort();
    if (seconds < 0)
        return; // no contract for a negative uptime, beyond its size
    long days = seconds / 86400;
    std::string clock = twoDigits(seconds % 86400 / 3600) + ":" + twoDigits(seconds % 3600 / 60) +
                        ":" + twoDigits(seconds % 60);
    std::string expected = days > 0 ? std::to_string(days) + "d " + clock : clock;
    if (got != expected.substr(0, 19))
        abort();
}

void checkLoad(const std::string &text)
{
    if (take(format_load_average(text.c_str())).size() > 7)
        abort();
}

void checkCpu(const std::string &text)
{
    int percent = cpu_figure_to_percent(text.c_str());
    if (percent < 0 || percent > 100)
        abort();
}

void checkKilobytes(const std::string &text)
{
    uint32_t bytes = kilobytes_text_to_bytes(text.c_str());
    if (bytes % 1024 != 0)
        abort();
    bool plain = !text.empty() && text.size() <= 7 &&
                 text.find_first_not_of("0123456789") == std::string::npos;
    if (plain && strtoul(text.c_str(), nullptr, 10) < 4194304ul &&
        bytes != (uint32_t)strtoul(text.c_str(), nullptr, 10) * 1024u)
        abort();
}

void checkTimestamp(const std::string &text)
{
    std::string got = take(compact_timestamp(text.c_str()));
    std::string expected;
    size_t n = text.size() >= 3 ? text.size() - 3 : 0;
    for (size_t i = 0; i < n; i++)
        if (strchr("/: -T", text[i]) == nullptr)
            expected.push_back(text[i]);
    if (got != expected.substr(0, 12))
        abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    unsigned int which = data[0] % 6;
    data++;
    size--;
    int parts = 0;
    long seconds = 0;
    if (which == 0 && size >= 1) {
        parts = (int)(signed char)data[0];
        data++;
        size--;
    } else if (which == 1) {
        uint64_t raw = 0;
        size_t n = size < 8 ? size : 8;
        for (size_t i = 0; i < n; i++)
            raw = raw << 8 | data[i];
        seconds = (long)(int64_t)raw;
        data += n;
        size -= n;
    }
    const char *bytes = reinterpret_cast<const char *>(data);
    const char *end = static_cast<const char *>(memchr(bytes, '\0', size));
    std::string text(bytes, end != nullptr ? (size_t)(end - bytes) : size);

    switch (which) {
    case 0: checkFirmware(text, parts); break;
    case 1: checkUptime(seconds); break;
    case 2: checkLoad(text); break;
    case 3: checkCpu(text); break;
    case 4: checkKilobytes(text); break;
    default: checkTimestamp(text); break;
    }
    return 0;
}
