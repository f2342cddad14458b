/* Same-network and mask checks. */
#define KC_MODULE "kapri_util.cpp"
#include "util/ip_network.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "util/debug.h"
#include "util/shell.h"
#include "util/text.h"
#include "util/shell_quote.h"

/* Output of "getNetwordId" for one address and mask. */
static char *networkId(const char *address, const char *mask)
{
    char *a = shell_quote(address != NULL ? address : "");
    char *m = shell_quote(mask != NULL ? mask : "");
    size_t size = strlen(KAPRI_UTIL_SCRIPT) + strlen(a) + strlen(m) + 16;
    char *cmd = static_cast<char *>(malloc(size));
    snprintf(cmd, size, "%s getNetwordId %s %s", KAPRI_UTIL_SCRIPT, a, m);
    free_text(a);
    free_text(m);
    char *id = run_shell_command(cmd, 16384);
    free(cmd);
    return id;
}

int bothIpInSameNetwork(const char *a, const char *b, const char *mask)
{
    char *first = networkId(a, mask);
    char *second = networkId(b, mask);
    KC_DEBUG("p_str = %s, p_str2 = %s\n", first, second);
    int same = strcmp(first, second) == 0;
    free_text(first);
    free_text(second);
    return same;
}

int checkSubnetValidation(const char *mask)
{
    int part[4] = {0, 0, 0, 0};
    if (mask != NULL)
        sscanf(mask, "%d.%d.%d.%d", &part[0], &part[1], &part[2], &part[3]);
    uint32_t value = ((uint32_t)(part[0] & 0xff) << 24) | ((uint32_t)(part[1] & 0xff) << 16) |
                     ((uint32_t)(part[2] & 0xff) << 8) | (uint32_t)(part[3] & 0xff);
    int ones = 0;
    int valid = 1;
    int seenZero = 0;
    for (int bit = 31; bit >= 0; bit--) {
        if (value & (1u << bit)) {
            if (seenZero) {
                KC_DEBUG("\nNot a valid subnet!!\n");
                valid = 0;
                break;
            }
            ones++;
        } else {
            seenZero = 1;
        }
    }
    if (ones < 5 || ones == 32)
        valid = 0;
    KC_DEBUG("oneCount=%d, validSubnet=%d\n", ones, valid);
    return valid;
}
