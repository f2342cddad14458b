/*
 * Fuzzes the check of the server's answer to the upgrade request over an
 * in-memory transport.  The request key is fixed to the sample nonce of
 * RFC 6455 ("the sample nonce"), whose accept value is
 * "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=".
 *
 * Input: byte 0 chooses the form.  Even: the rest is the server's answer
 * as it is.  Odd: the rest describes an answer that is built here, so
 * that valid ones come up as often as invalid ones: a status line (its
 * code text from the input), then header records until the input ends,
 * each one byte choosing the kind and the next bytes its text:
 *   0 the right accept header, 1 an accept header with a value from the
 *   input, 2 the right protocol header, 3 a protocol header with a value
 *   from the input, 4 any other header, 5 the empty line that ends the
 *   headers, 6 an accept or protocol header whose blank after the colon
 *   is another byte, 7 bytes after the empty line.
 *
 * Oracle: a small model of a valid answer, independent of how the reader
 * takes its input apart.  The answer is cut at each "\r\n" (HTTP's own
 * line ends).  It is valid when its first line is "HTTP/1.1", then blanks
 * and the number 101 (as "HTTP/1.1 %d" reads it: anything may follow),
 * the empty line comes, and every line before it that begins with
 * "Sec-WebSocket-Accept:" carries, after that and one more byte, exactly
 * the nonce's accept value, and every one that begins with
 * "Sec-WebSocket-Protocol:" carries, after that and one more byte,
 * exactly "nimb-protocol" (names compared with their case).  A valid
 * answer must be accepted (1) with nothing read past its empty line; any
 * other must be refused (0), an answer that ends before its empty line
 * too.  The model only judges answers whose lines up to the verdict hold
 * no CR, LF or NUL of their own and are shorter than 250 bytes; for the
 * others the check must still answer 0 or 1, and a 1 needs a status line
 * "HTTP/1.1..." and an answer read up to a "\r\n".  The check never
 * writes.
 */
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_support.h"
#include "websocket/handshake.h"

namespace {

const char kAcceptName[] = "Sec-WebSocket-Accept:";
const char kProtocolName[] = "Sec-WebSocket-Protocol:";
const char kAcceptValue[] = "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=";
const char kProtocol[] = "nimb-protocol";

enum Verdict { ACCEPT, REFUSE, UNKNOWN };

bool startsWith(const std::string &text, const char *prefix)
{
    return text.compare(0, strlen(prefix), prefix) == 0;
}

/* Whether the status line holds 101 as "HTTP/1.1 %d" reads it: 1 yes,
 * 0 no, -1 for a number %d does not define (beyond int). */
int switching(const std::string &line)
{
    if (!startsWith(line, "HTTP/1.1"))
        return 0;
    size_t i = strlen("HTTP/1.1");
    while (i < line.size() && (line[i] == ' ' || (line[i] >= '\t' && line[i] <= '\r')))
        i++;
    bool negative = false;
    if (i < line.size() && (line[i] == '+' || line[i] == '-'))
        negative = line[i++] == '-';
    size_t digits = 0;
    size_t significant = 0;
    long value = 0;
    for (; i < line.size() && line[i] >= '0' && line[i] <= '9'; i++, digits++) {
        if (value == 0 && line[i] == '0')
            continue;
        if (++significant > 9)
            return -1;
        value = value * 10 + (line[i] - '0');
    }
    return digits > 0 && !negative && value == 101 ? 1 : 0;
}

/* A header line's value: what follows its name and one more byte. */
bool carries(const std::string &line, const char *name, const char *value)
{
    size_t at = strlen(name) + 1;
    return line.size() >= at && line.compare(at, std::string::npos, value) == 0;
}

/* The model's verdict on answer; *end the length of a valid answer. */
Verdict judge(const std::string &answer, size_t *end)
{
    size_t pos = 0;
    bool first = true;
    for (;;) {
        size_t crlf = answer.find("\r\n", pos);
        std::string line = answer.substr(pos, crlf == std::string::npos ? std::string::npos
                                                                         : crlf - pos);
        if (line.find_first_of(std::string("\r\n\0", 3)) != std::string::npos ||
            line.size() >= 250)
            return UNKNOWN;
        if (crlf == std::string::npos)
            return REFUSE; // the answer ended before its empty line
        pos = crlf + 2;
        if (first) {
            int status = switching(line);
            if (status < 0)
                return UNKNOWN;
            if (status == 0)
                return REFUSE;
            first = false;
            continue;
        }
        if (line.empty()) {
            *end = pos;
            return ACCEPT;
        }
        if (startsWith(line, kAcceptName) && !carries(line, kAcceptName, kAcceptValue))
            return REFUSE;
        if (startsWith(line, kProtocolName) && !carries(line, kProtocolName, kProtocol))
            return REFUSE;
    }
}

/* Text of at most max bytes from the input, without CR, LF and NUL. */
std::string takeText(const uint8_t *data, size_t size, size_t *i, size_t max)
{
    std::string text;
    size_t n = *i < size ? data[(*i)++] % (max + 1) : 0;
    while (text.size() < n && *i < size) {
        char c = (char)data[(*i)++];
        if (c != '\r' && c != '\n' && c != '\0')
            text += c;
    }
    return text;
}

/* The answer an odd-form input describes. */
std::string buildAnswer(const uint8_t *data, size_t size)
{
    size_t i = 0;
    std::string answer = "HTTP/1.1" + takeText(data, size, &i, 40) + "\r\n";
    while (i < size) {
        uint8_t kind = data[i++] % 8;
        switch (kind) {
        case 0: answer += std::string(kAcceptName) + " " + kAcceptValue + "\r\n"; break;
        case 1: answer += std::string(kAcceptName) + " " + takeText(data, size, &i, 40) + "\r\n"; break;
        case 2: answer += std::string(kProtocolName) + " " + kProtocol + "\r\n"; break;
        case 3: answer += std::string(kProtocolName) + " " + takeText(data, size, &i, 40) + "\r\n"; break;
        case 4: answer += "X-" + takeText(data, size, &i, 200) + "\r\n"; break;
        case 5: answer += "\r\n"; break;
        case 6: {
            char blank = i < size ? (char)data[i++] : ' ';
            if (blank == '\r' || blank == '\n' || blank == '\0')
                blank = '\t';
            bool accept = i < size && (data[i++] & 1);
            answer += accept ? std::string(kAcceptName) + blank + kAcceptValue
                             : std::string(kProtocolName) + blank + kProtocol;
            answer += "\r\n";
            break;
        }
        default:
            answer += std::string(reinterpret_cast<const char *>(data) + i, size - i);
            i = size;
            break;
        }
    }
    return answer;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    std::string answer = (data[0] & 1) != 0
                             ? buildAnswer(data + 1, size - 1)
                             : std::string(reinterpret_cast<const char *>(data) + 1, size - 1);
    kcfuzz::MemoryPeer peer;
    peer.data = reinterpret_cast<const uint8_t *>(answer.data());
    peer.size = answer.size();
    WbsConnection *conn = kcfuzz::openMemoryConnection(&peer);
    memcpy(conn->key, "the sample nonce", 16);
    int result = readServerHandshake(conn);
    if (peer.writeCalls != 0 || peer.pos > answer.size())
        abort();
    if (result != 0 && result != 1)
        abort();
    size_t end = 0;
    switch (judge(answer, &end)) {
    case ACCEPT:
        if (result != 1 || peer.pos != end)
            abort(); // a valid answer, refused or read too far
        break;
    case REFUSE:
        if (result != 0)
            abort(); // an invalid answer accepted
        break;
    case UNKNOWN:
        if (result == 1) {
            std::string read = answer.substr(0, peer.pos);
            if (!startsWith(read, "HTTP/1.1") || read.size() < 4 ||
                read.compare(read.size() - 2, 2, "\r\n") != 0)
                abort();
        }
        break;
    }
    // The handshake leaves the connection open; freeing it sends the close.
    freeWebsocketConnection(conn);
    return 0;
}
