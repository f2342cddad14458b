/*
 * Fuzzes the colouring of the frame dumps, which rewrites text the server
 * sent in place.
 *
 * Input: byte 0 chooses the colour (bits 0-1: the receiving yellow, the
 * sending cyan, none, or a colour taken from the input) and whether the key
 * is taken from the input (bit 2; otherwise "method"); byte 1 is the spare
 * room given beyond the text and its terminator (0-255).  Then the text,
 * up to a NUL byte; then, each up to the next NUL byte, the key (its double
 * quotes dropped: keys are the agent's own names) and the colour.
 *
 * The buffer is exactly the capacity told to colour_json_value, so that a
 * write past it is caught.  Oracle: when the key's quoted form occurs, the
 * value's quotes follow (the first two double quotes after the quoted key)
 * and colour, reset and terminator fit, the result is 1 and the text with
 * the colour right after the value's opening quote and the reset right
 * before its closing quote; otherwise the result is 0 and the text is
 * unchanged.
 */
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "util/colour.h"

namespace {

const char kYellow[] = "\033[1;33m";
const char kCyan[] = "\033[1;36m";
const char kReset[] = "\033[m";

/* The next NUL-terminated piece of [*p, end), moving *p past it. */
std::string piece(const char **p, const char *end)
{
    const char *stop = static_cast<const char *>(memchr(*p, '\0', (size_t)(end - *p)));
    if (stop == nullptr)
        stop = end;
    std::string s(*p, (size_t)(stop - *p));
    *p = stop < end ? stop + 1 : end;
    return s;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    unsigned char choice = data[0];
    size_t spare = data[1];
    const char *p = reinterpret_cast<const char *>(data + 2);
    const char *end = reinterpret_cast<const char *>(data + size);
    std::string text = piece(&p, end);
    std::string key = "method";
    if (choice & 4) {
        key.clear();
        for (char c : piece(&p, end))
            if (c != '"')
                key.push_back(c);
    }
    std::string colour;
    switch (choice & 3) {
    case 0: colour = kYellow; break;
    case 1: colour = kCyan; break;
    case 2: break;
    default: colour = piece(&p, end); break;
    }

    // The expected outcome.
    std::string expected = text;
    int expectedDone = 0;
    if (key.size() < 254) {
        std::string quoted = "\"" + key + "\"";
        size_t at = text.find(quoted);
        if (at != std::string::npos) {
            size_t open = text.find('"', at + quoted.size());
            size_t close = open != std::string::npos ? text.find('"', open + 1) : std::string::npos;
            if (close != std::string::npos &&
                text.size() + colour.size() + strlen(kReset) + 1 <= text.size() + 1 + spare) {
                expected = text.substr(0, open + 1) + colour + text.substr(open + 1, close - open - 1) +
                           kReset + text.substr(close);
                expectedDone = 1;
            }
        }
    }

    size_t capacity = text.size() + 1 + spare;
    std::vector<char> buffer(capacity, '\x55');
    memcpy(buffer.data(), text.c_str(), text.size() + 1);
    int done = colour_json_value(buffer.data(), (unsigned int)capacity, key.c_str(), colour.c_str());
    if (memchr(buffer.data(), '\0', capacity) == nullptr)
        abort(); // no terminator within the capacity
    if (done != expectedDone || std::string(buffer.data()) != expected)
        abort();
    return 0;
}
