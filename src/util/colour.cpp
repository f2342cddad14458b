/*
 * Colouring of the "method" value in the frame dumps: the colour sequence
 * goes right after the value's opening quote and a reset right before its
 * closing quote.  The search is textual: the value starts at the second
 * double quote after the quoted key, wherever the key stands.
 */
#include "util/colour.h"

#include <cstdio>
#include <cstring>

static const char kReset[] = "\033[m";

static int insert_at(char *text, unsigned int capacity, char *at,
                     const char *what)
{
    size_t len = strlen(text);
    size_t add = strlen(what);
    if (len + add + 1 > capacity)
        return 0;
    memmove(at + add, at, strlen(at) + 1);
    memcpy(at, what, add);
    return 1;
}

int colour_json_value(char *text, unsigned int capacity, const char *key,
                      const char *colour)
{
    if (text == NULL || key == NULL || colour == NULL || strlen(key) >= 254)
        return 0;
    char quoted[258];
    snprintf(quoted, sizeof quoted, "\"%s\"", key);
    char *p = strstr(text, quoted);
    if (p == NULL)
        return 0;
    char *open = strchr(p + 1, '"');               /* key's closing quote */
    open = open != NULL ? strchr(open + 1, '"') : NULL; /* value's opening */
    if (open == NULL)
        return 0;
    char *close = strchr(open + 1, '"');
    if (close == NULL)
        return 0;
    size_t closeOffset = (size_t)(close - text) + strlen(colour);
    if (strlen(text) + strlen(colour) + strlen(kReset) + 1 > capacity)
        return 0;
    insert_at(text, capacity, open + 1, colour);
    insert_at(text, capacity, text + closeOffset, kReset);
    return 1;
}
