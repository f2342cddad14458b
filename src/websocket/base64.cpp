/* Standard Base64 encoder with "=" padding, bounded by the output size. */
#include "websocket/base64.h"

#include <stdint.h>

static const char kAlphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int base64Encode(const unsigned char *in, int inLen, char *out, int outCap)
{
    if (inLen < 0 || outCap < 1)
        return -1;
    int needed = ((inLen + 2) / 3) * 4;
    if (needed + 1 > outCap)
        return -1;
    int o = 0;
    for (int i = 0; i < inLen; i += 3) {
        uint32_t v = (uint32_t)in[i] << 16;
        int rest = inLen - i;
        if (rest > 1)
            v |= (uint32_t)in[i + 1] << 8;
        if (rest > 2)
            v |= in[i + 2];
        out[o++] = kAlphabet[(v >> 18) & 63];
        out[o++] = kAlphabet[(v >> 12) & 63];
        out[o++] = rest > 1 ? kAlphabet[(v >> 6) & 63] : '=';
        out[o++] = rest > 2 ? kAlphabet[v & 63] : '=';
    }
    out[o] = '\0';
    return o;
}
