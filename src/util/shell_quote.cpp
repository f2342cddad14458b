/* Literal shell words and double-quoted text for command lines. */
#include "util/shell_quote.h"

#include <cctype>
#include <cstdlib>
#include <cstring>

static int isPlainCharacter(unsigned char c)
{
    return isalnum(c) || c == '.' || c == ':' || c == '-' || c == '_' || c == '/';
}

int shell_is_plain_word(const char *text)
{
    if (text == NULL || text[0] == '\0')
        return 0;
    for (const char *p = text; *p != '\0'; p++) {
        if (!isPlainCharacter((unsigned char)*p))
            return 0;
    }
    return 1;
}

char *shell_quote(const char *text)
{
    if (text == NULL)
        return NULL;
    if (shell_is_plain_word(text))
        return strdup(text);
    size_t quotes = 0;
    for (const char *p = text; *p != '\0'; p++)
        quotes += *p == '\'';
    /* 'text' with each ' as '\'' (three more characters each) */
    char *out = static_cast<char *>(malloc(strlen(text) + 3 * quotes + 3));
    if (out == NULL)
        return NULL;
    char *o = out;
    *o++ = '\'';
    for (const char *p = text; *p != '\0'; p++) {
        if (*p == '\'') {
            memcpy(o, "'\\''", 4);
            o += 4;
        } else {
            *o++ = *p;
        }
    }
    *o++ = '\'';
    *o = '\0';
    return out;
}

static int isPathCharacter(unsigned char c)
{
    return isalnum(c) || c == '.' || c == '_' || c == '-' || c == '@' || c == '[' || c == ']';
}

char *shell_quote_path(const char *path)
{
    if (path == NULL)
        return NULL;
    int plain = path[0] != '\0';
    for (const char *p = path; *p != '\0' && plain; p++)
        plain = isPathCharacter((unsigned char)*p);
    return plain ? strdup(path) : shell_quote(path);
}

char *shell_escape_dquoted(const char *text)
{
    if (text == NULL)
        return NULL;
    size_t extra = 0;
    for (const char *p = text; *p != '\0'; p++)
        extra += strchr("\"$`\\", *p) != NULL;
    char *out = static_cast<char *>(malloc(strlen(text) + extra + 1));
    if (out == NULL)
        return NULL;
    char *o = out;
    for (const char *p = text; *p != '\0'; p++) {
        if (strchr("\"$`\\", *p) != NULL)
            *o++ = '\\';
        *o++ = *p;
    }
    *o = '\0';
    return out;
}
