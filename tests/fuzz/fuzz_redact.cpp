/*
 * Fuzzes redact_secrets, which hides the values of the members "password"
 * and "radiusSecret" in frame dumps and debug lines.
 *
 * Input: the text, up to a NUL byte.
 *
 * Oracles, worked out independently of the redaction:
 *   - for any input: the output begins with the input's longest prefix
 *     that reads as a run of JSON values, with the string value of every
 *     secret member in it replaced by "***" (and nothing else changed).
 *     So no value that the input had, as far as it reads as JSON, as a
 *     secret member's string value is ever printed.  Secret members are
 *     those whose name, decoded as the agent's JSON parser decodes it (a
 *     "\u0000", or a "\u" whose four bytes are not all hex digits, ends
 *     the name), equals "password" or "radiusSecret"
 *     without regard to case, as the request accessors match names;
 *     blanks are what that parser skips (every byte up to the space);
 *   - for input that is JSON as the agent's parser reads it (cJSON, with
 *     nothing after the value): the output parses too, and equals the
 *     input tree with the string values of the secret members replaced by
 *     "***", nothing else changed; and the output is exactly the input
 *     text with those values' text replaced by "***";
 *   - it never crashes, and the output is a terminated text.
 *
 * The prefix reader here is a small recursive-descent JSON reader written
 * for this target; it keeps the text ranges of the secret values.
 */
#include <strings.h>

#include <cjson/cJSON.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "fuzz_oracles.h"
#include "util/redact.h"

namespace {

bool isSecretName(const std::string &decoded)
{
    // the agent's parser keeps names as C strings: a NUL ends them
    std::string name(decoded.c_str());
    return strcasecmp(name.c_str(), "password") == 0 ||
           strcasecmp(name.c_str(), "radiusSecret") == 0;
}

/* The JSON reader: stops at the first byte it cannot take. */
struct Reader {
    const std::string &text;
    size_t pos = 0;
    int depth = 0;
    std::vector<std::pair<size_t, size_t>> secrets; // [begin, end) of values

    explicit Reader(const std::string &t) : text(t) {}

    bool atEnd() const { return pos >= text.size(); }
    unsigned char peek() const { return (unsigned char)text[pos]; }

    void blanks()
    {
        while (!atEnd() && peek() <= ' ')
            pos++;
    }

    static int hex(char c)
    {
        if (c >= '0' && c <= '9')
            return c - '0';
        if (c >= 'a' && c <= 'f')
            return c - 'a' + 10;
        if (c >= 'A' && c <= 'F')
            return c - 'A' + 10;
        return -1;
    }

    /* The code of the four bytes at p as the parser reads them: 0 when one
     * is not a hex digit. */
    int hex4(size_t p) const
    {
        int code = 0;
        for (size_t k = 0; k < 4; k++) {
            int h = hex(text[p + k]);
            if (h < 0)
                return 0;
            code = code * 16 + h;
        }
        return code;
    }

    /* A string at pos; its decoded text (code points above 0x7f as a
     * marker byte: no secret name has them).  As the parser does it: the
     * string ends at the first quote not after a backslash (a backslash
     * takes the byte after it along), then its escapes are decoded up to
     * that quote. */
    bool string(std::string *decoded)
    {
        if (atEnd() || text[pos] != '"')
            return false;
        size_t q = pos + 1;
        while (q < text.size() && text[q] != '"') {
            if (text[q] == '\\') {
                if (q + 1 >= text.size())
                    return false;
                q++;
            }
            q++;
        }
        if (q >= text.size())
            return false;
        std::string out;
        size_t p = pos + 1;
        while (p < q) {
            char c = text[p];
            if (c != '\\') {
                out += c;
                p++;
                continue;
            }
            char e = text[p + 1]; // the closing quote at the latest
            switch (e) {
            case '"': case '\\': case '/': out += e; p += 2; break;
            case 'b': out += '\b'; p += 2; break;
            case 'f': out += '\f'; p += 2; break;
            case 'n': out += '\n'; p += 2; break;
            case 'r': out += '\r'; p += 2; break;
            case 't': out += '\t'; p += 2; break;
            case 'u': {
                if (q - p < 6)
                    return false;
                int code = hex4(p + 2);
                if (code >= 0xDC00 && code <= 0xDFFF)
                    return false;
                if (code >= 0xD800 && code <= 0xDBFF) {
                    // a pair: a second escape of the low half must follow
                    if (q - (p + 6) < 6 || text[p + 6] != '\\' || text[p + 7] != 'u')
                        return false;
                    int low = hex4(p + 8);
                    if (low < 0xDC00 || low > 0xDFFF)
                        return false;
                    out += '\x80';
                    p += 12;
                    break;
                }
                out += code < 0x80 ? (char)code : '\x80';
                p += 6;
                break;
            }
            default:
                return false;
            }
        }
        pos = q + 1;
        if (decoded != nullptr)
            *decoded = out;
        return true;
    }

    bool literal(const char *word)
    {
        size_t n = strlen(word);
        if (text.compare(pos, n, word) != 0)
            return false;
        pos += n;
        return true;
    }

    bool number()
    {
        size_t start = pos;
        while (!atEnd() && strchr("0123456789+-eE.", text[pos]) != nullptr && text[pos] != '\0')
            pos++;
        return pos > start;
    }

    bool value()
    {
        blanks();
        if (atEnd())
            return false;
        char c = text[pos];
        if (c == '"')
            return string(nullptr);
        if (c == '{' || c == '[') {
            if (++depth > 20000)
                return false;
            bool ok = c == '{' ? object() : array();
            depth--;
            return ok;
        }
        if (c == 't')
            return literal("true");
        if (c == 'f')
            return literal("false");
        if (c == 'n')
            return literal("null");
        return number();
    }

    bool object()
    {
        pos++; // '{'
        blanks();
        if (!atEnd() && text[pos] == '}') {
            pos++;
            return true;
        }
        for (;;) {
            blanks();
            std::string name;
            if (!string(&name))
                return false;
            blanks();
            if (atEnd() || text[pos] != ':')
                return false;
            pos++;
            blanks();
            size_t begin = pos;
            bool isString = !atEnd() && text[pos] == '"';
            if (!value())
                return false;
            if (isString && isSecretName(name))
                secrets.push_back({begin, pos});
            blanks();
            if (atEnd())
                return false;
            if (text[pos] == '}') {
                pos++;
                return true;
            }
            if (text[pos] != ',')
                return false;
            pos++;
        }
    }

    bool array()
    {
        pos++; // '['
        blanks();
        if (!atEnd() && text[pos] == ']') {
            pos++;
            return true;
        }
        for (;;) {
            if (!value())
                return false;
            blanks();
            if (atEnd())
                return false;
            if (text[pos] == ']') {
                pos++;
                return true;
            }
            if (text[pos] != ',')
                return false;
            pos++;
        }
    }
};

/* text[0, end) with the secret ranges in it replaced. */
std::string redactedPrefix(const std::string &text, size_t end,
                           const std::vector<std::pair<size_t, size_t>> &secrets)
{
    std::string out;
    size_t at = 0;
    for (const auto &range : secrets) {
        if (range.second > end)
            break;
        out.append(text, at, range.first - at);
        out += "\"***\"";
        at = range.second;
    }
    out.append(text, at, end - at);
    return out;
}

/* The input tree with the secret members' string values replaced. */
void redactTree(cJSON *item)
{
    for (cJSON *child = item->child; child != nullptr; child = child->next) {
        if (cJSON_IsObject(item) && child->string != nullptr && cJSON_IsString(child) &&
            isSecretName(child->string)) {
            cJSON_SetValuestring(child, "***");
            continue;
        }
        redactTree(child);
    }
}

using kcfuzz::printed;

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const char *bytes = reinterpret_cast<const char *>(data);
    const char *nul = static_cast<const char *>(memchr(bytes, '\0', size));
    std::string text(bytes, nul != nullptr ? (size_t)(nul - bytes) : size);

    char *got = redact_secrets(text.c_str());
    if (got == nullptr)
        abort();
    std::string out = got;
    free(got);

    // the longest prefix that reads as a run of JSON values
    Reader reader(text);
    if (text.compare(0, 3, "\xEF\xBB\xBF") == 0)
        reader.pos = 3; // a byte-order mark, which the parser skips
    size_t good = reader.pos;
    for (;;) {
        reader.blanks();
        if (reader.atEnd()) {
            good = text.size();
            break;
        }
        if (!reader.value())
            break;
        good = reader.pos;
    }
    std::vector<std::pair<size_t, size_t>> secrets;
    for (const auto &range : reader.secrets) {
        if (range.second <= good)
            secrets.push_back(range);
    }
    std::string expected = redactedPrefix(text, good, secrets);
    if (out.compare(0, expected.size(), expected) != 0)
        abort(); // a secret value shown, or something else changed

    const char *parseEnd = nullptr;
    cJSON *tree = cJSON_ParseWithOpts(text.c_str(), &parseEnd, 1);
    if (tree == nullptr)
        return 0;
    // JSON as the agent reads it: the reader here must take it whole
    if (good != text.size())
        abort();
    if (out != expected)
        abort();
    cJSON *again = cJSON_ParseWithOpts(out.c_str(), &parseEnd, 1);
    if (again == nullptr)
        abort(); // the redacted text no longer parses
    redactTree(tree);
    if (printed(tree) != printed(again))
        abort();
    cJSON_Delete(tree);
    cJSON_Delete(again);
    return 0;
}
