/* Secret member values printed as "***" in dumps and debug lines. */
#include "util/redact.h"

#include <cctype>
#include <cstdlib>
#include <cstring>

static const char *const kSecretMembers[] = {"password", "radiusSecret"};

/* Longest member name that can still be one of the secret names. */
static const size_t kLongestName = 32;

int is_secret_member(const char *name)
{
    if (name == NULL)
        return 0;
    for (const char *secret : kSecretMembers) {
        if (strcasecmp(name, secret) == 0)
            return 1;
    }
    return 0;
}

const char *secret_shown(const char *value)
{
    return value != NULL ? REDACTED_TEXT : "(null)";
}

/* End of the JSON string starting at the quote s[0]: the index just past
 * its closing quote, or the text's length when it is not closed. */
static size_t stringEnd(const char *s, size_t len)
{
    size_t i = 1;
    while (i < len) {
        if (s[i] == '\\')
            i += 2;
        else if (s[i] == '"')
            return i + 1;
        else
            i++;
    }
    return len;
}

/* A byte the request parser skips between tokens: every one up to the
 * space, control characters included. */
static int isBlank(char c)
{
    return c != '\0' && (unsigned char)c <= ' ';
}

static int hexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    c = (char)tolower((unsigned char)c);
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return -1;
}

/*
 * The decoded text of the JSON string s[0..end) (quotes included) into
 * out (kLongestName + 1 bytes); 0 when it is too long or holds a character
 * no secret name has (so it cannot match).
 */
static int decodeName(const char *s, size_t end, char *out)
{
    size_t n = 0;
    size_t last = end >= 1 && s[end - 1] == '"' && end >= 2 ? end - 1 : end;
    for (size_t i = 1; i < last; i++) {
        char c = s[i];
        if (c == '\\') {
            if (i + 1 >= last)
                return 0;
            char e = s[++i];
            if (e == 'u') {
                if (i + 4 >= last)
                    return 0;
                int code = 0;
                for (int k = 1; k <= 4; k++) {
                    int h = hexValue(s[i + k]);
                    if (h < 0) {
                        code = 0; /* as the parser reads a bad escape */
                        break;
                    }
                    code = code * 16 + h;
                }
                i += 4;
                if (code == 0)
                    break; /* the parser's name ends here */
                if (code < 0 || code >= 0x80)
                    return 0;
                c = (char)code;
            } else {
                /* \" \\ \/ stand for themselves; the others for control
                 * characters, which no secret name has */
                if (e != '"' && e != '\\' && e != '/')
                    return 0;
                c = e;
            }
        }
        if (n >= kLongestName)
            return 0;
        out[n++] = c;
    }
    out[n] = '\0';
    return 1;
}

char *redact_secrets(const char *text)
{
    if (text == NULL)
        return NULL;
    size_t len = strlen(text);
    /* a replaced value grows by at most 4 characters (a lone opening
     * quote becomes "***"), and each takes at least 12 characters of the
     * input (a secret name, its colon and that quote): twice the length is
     * always enough */
    char *out = static_cast<char *>(malloc(2 * len + 1));
    if (out == NULL)
        return NULL;
    size_t o = 0;
    size_t i = 0;
    while (i < len) {
        if (text[i] != '"') {
            out[o++] = text[i++];
            continue;
        }
        size_t end = i + stringEnd(text + i, len - i);
        memcpy(out + o, text + i, end - i);
        o += end - i;
        /* a string followed by ':' is a member name */
        size_t j = end;
        while (j < len && isBlank(text[j]))
            j++;
        char name[kLongestName + 1];
        if (j < len && text[j] == ':' && decodeName(text + i, end - i, name) &&
            is_secret_member(name)) {
            size_t k = j + 1;
            while (k < len && isBlank(text[k]))
                k++;
            if (k < len && text[k] == '"') {
                /* name, blanks, colon and blanks as they were; the value
                 * replaced */
                memcpy(out + o, text + end, k - end);
                o += k - end;
                memcpy(out + o, "\"" REDACTED_TEXT "\"", sizeof REDACTED_TEXT + 1);
                o += sizeof REDACTED_TEXT + 1;
                end = k + stringEnd(text + k, len - k);
            }
        }
        i = end;
    }
    out[o] = '\0';
    return out;
}
