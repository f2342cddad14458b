/*
 * Fuzzes the shell runner's output capping (read_capped_output, the
 * reading step of run_shell_command) over a memory stream: no command runs.
 *
 * Input: bytes 0-1 give max_len (big-endian, modulo 1,100, minus 1: -1 to
 * 1,098, so that both the one-chunk caps below 129 and the many-chunk caps
 * are reached); the rest is the command's output, NUL bytes included.
 *
 * Oracle: max_len below 1 gives NULL; otherwise a text of at most max_len
 * characters, assembled as the runner's contract says: the output is taken
 * in fgets chunks (127 characters, or up to and including a newline), each
 * counting up to its first NUL byte; a cap below 129 keeps only the first
 * chunk, cut to max_len; a larger cap keeps whole chunks while a full one
 * still fits and then one more, cut to the room left.  An output without
 * NUL bytes therefore gives a prefix of itself.
 */
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "util/shell.h"

namespace {

std::string expectedOutput(const std::string &stream, int maxLen)
{
    std::string out;
    size_t pos = 0;
    while (pos < stream.size()) {
        size_t len = 0;
        while (len < 127 && pos + len < stream.size()) {
            len++;
            if (stream[pos + len - 1] == '\n')
                break;
        }
        std::string chunk = stream.substr(pos, len);
        pos += len;
        size_t n = strnlen(chunk.c_str(), chunk.size());
        size_t room;
        bool last = false;
        if (maxLen < 129) {
            room = (size_t)maxLen;
            last = true;
        } else if (out.size() > (size_t)maxLen - 128) {
            room = (size_t)maxLen - out.size();
            last = true;
        } else {
            room = 128;
        }
        out += chunk.substr(0, n < room ? n : room);
        if (last)
            break;
    }
    return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    int maxLen = (int)(((unsigned int)data[0] << 8 | data[1]) % 1100) - 1;
    data += 2;
    size -= 2;
    std::string stream(reinterpret_cast<const char *>(data), size);

    // fmemopen reads from the buffer it is given: a copy of exactly the
    // output, so that the stream cannot read past it unnoticed.
    char *copy = static_cast<char *>(malloc(size > 0 ? size : 1));
    if (copy == nullptr)
        abort();
    if (size > 0)
        memcpy(copy, data, size);
    FILE *file = fmemopen(copy, size, "r");
    if (file == nullptr)
        abort();
    char *out = read_capped_output(file, maxLen);
    fclose(file);
    free(copy);

    if (maxLen < 1) {
        if (out != nullptr)
            abort();
        return 0;
    }
    if (out == nullptr)
        abort();
    std::string got = out;
    free(out);
    if (got.size() > (size_t)maxLen)
        abort();
    if (stream.find('\0') == std::string::npos && stream.compare(0, got.size(), got) != 0)
        abort();
    if (got != expectedOutput(stream, maxLen))
        abort();
    return 0;
}
