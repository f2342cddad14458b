/* The wireless network lists, the profile, security writes and checks. */
#define KC_MODULE "kapri_util.cpp"
#include "util/wlan_profile.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "util/debug.h"
#include "util/shell.h"
#include "util/uci.h"
#include "util/text.h"
#include "util/redact.h"
#include "util/radios.h"

/* ---- reading and rebuilding list texts ---- */

/* "uci get PATH | tr -d '\n'" read up to limit bytes (runner's text). */
static char *readListText(const char *path, int limit)
{
    char cmd[256];
    snprintf(cmd, sizeof cmd, "uci get %s | tr -d '\\n'", path);
    return run_shell_command(cmd, limit);
}

/* Appends text to a rebuilt list in a 256-byte buffer, cut at its end. */
static void appendBounded(char *buffer, const char *text)
{
    size_t used = strlen(buffer);
    if (used >= WLAN_RESULT_SIZE - 1)
        return;
    snprintf(buffer + used, WLAN_RESULT_SIZE - used, "%s", text);
}

/* Appends entry to a rebuilt list, with a "," before all but the first. */
static void appendEntry(char *buffer, const char *entry, int *count)
{
    if (*count > 0)
        appendBounded(buffer, ",");
    appendBounded(buffer, entry);
    (*count)++;
}

/* The entries of list separated by "," (empty ones skipped), each handed
 * to visit with its position.  The list is split in a copy (the runner's
 * error text is a constant). */
template <typename Visit> static void forEachEntry(const char *list, Visit visit)
{
    char *copy = strdup(list != NULL ? list : "");
    char *save = NULL;
    int position = 0;
    for (char *entry = strtok_r(copy, ",", &save); entry != NULL;
         entry = strtok_r(NULL, ",", &save))
        visit(entry, position++);
    free(copy);
}

/* ---- list and profile editing ---- */

char *appendToString(const char *oriStr, const char *appendStr, int size)
{
    if (oriStr == NULL)
        oriStr = "";
    if (appendStr == NULL)
        appendStr = "";
    if (size < 1)
        size = 1;
    char *result = static_cast<char *>(calloc((size_t)size, 1));
    KC_DEBUG("oriStr = %s, appendStr=%s, strlen(oriStr)=%d, strlen(appendStr)=%d, "
             "strlen(result)=%d\n",
             oriStr, appendStr, (int)strlen(oriStr), (int)strlen(appendStr),
             (int)strlen(result));
    int used = 0;
    for (const char *text : {oriStr, appendStr}) {
        for (const char *p = text; *p != '\0' && used < size - 1; p++) {
            if (*p != '\n')
                result[used++] = *p;
        }
    }
    return result;
}

int getFreeWlanIndex(int radio)
{
    char path[64];
    snprintf(path, sizeof path, "wireless.wifi%d.wlanlist", radio);
    char *list = readListText(path, WLAN_LIST_READ_LIMIT);
    unsigned int used = 0;
    for (const char *p = list; *p != '\0'; p++) {
        if (*p == ',' || *p == ' ')
            continue;
        int digit = *p - '0';
        if (digit >= 0 && digit <= 9)
            used |= 1u << digit;
    }
    free_text(list);
    for (int slot = 0; slot < WLAN_SLOT_COUNT; slot++) {
        if ((used & (1u << slot)) == 0)
            return slot;
    }
    return -1;
}

/* Appends tail to the list option at path (read up to limit bytes). */
static void appendToListOption(const char *path, const char *tail, int limit)
{
    char *list = readListText(path, limit);
    char *grown = appendToString(list, tail, WLAN_RESULT_SIZE);
    uci_set(path, grown);
    free_text(grown);
    free_text(list);
}

void addWlanIndex(int radio, int slot)
{
    char path[64];
    char tail[16];
    snprintf(path, sizeof path, "wireless.wifi%d.wlanlist", radio);
    snprintf(tail, sizeof tail, ",%d", slot);
    appendToListOption(path, tail, WLAN_LIST_READ_LIMIT);
    snprintf(path, sizeof path, "wireless.wifi%d.enlist", radio);
    appendToListOption(path, ",1", WLAN_LIST_READ_LIMIT);
}

int addNetworkProfile(int mode, int slot0, int slot1)
{
    char entry[64];
    if (mode == 0) {
        addWlanIndex(0, slot0);
        snprintf(entry, sizeof entry, ",w0_index%d", slot0);
    } else if (mode == 1) {
        addWlanIndex(1, slot1);
        snprintf(entry, sizeof entry, ",w1_index%d", slot1);
    } else {
        addWlanIndex(0, slot0);
        addWlanIndex(1, slot1);
        snprintf(entry, sizeof entry, ",w0_index%d:w1_index%d", slot0, slot1);
    }
    appendToListOption("wireless.wifi0.network_profile", entry, WLAN_PROFILE_READ_LIMIT);
    return 0;
}

int removeNetworkProfile(const char *text)
{
    char *profile = readListText("wireless.wifi0.network_profile", WLAN_PROFILE_READ_LIMIT);
    char rebuilt[WLAN_RESULT_SIZE] = "";
    int kept = 0;
    forEachEntry(profile, [&](char *entry, int) {
        if (text == NULL || strstr(entry, text) == NULL)
            appendEntry(rebuilt, entry, &kept);
    });
    uci_set("wireless.wifi0.network_profile", rebuilt);
    free_text(profile);
    return 0;
}

int removeWlanIndex(int radio, int slot)
{
    char path[64];
    char digits[16];
    snprintf(digits, sizeof digits, "%d", slot);
    snprintf(path, sizeof path, "wireless.wifi%d.wlanlist", radio);
    char *wlanlist = readListText(path, WLAN_PROFILE_READ_LIMIT);
    char rebuilt[WLAN_RESULT_SIZE] = "";
    int kept = 0;
    int position = -1;
    forEachEntry(wlanlist, [&](char *entry, int) {
        if (strstr(entry, digits) != NULL)
            position = kept; /* where the enable flag sits among the kept */
        else
            appendEntry(rebuilt, entry, &kept);
    });
    free_text(wlanlist);
    if (position < 0)
        return -1;
    uci_set(path, rebuilt);

    snprintf(path, sizeof path, "wireless.wifi%d.enlist", radio);
    char *enlist = readListText(path, WLAN_PROFILE_READ_LIMIT);
    char flags[WLAN_RESULT_SIZE] = "";
    int keptFlags = 0;
    forEachEntry(enlist, [&](char *entry, int at) {
        if (at != position)
            appendEntry(flags, entry, &keptFlags);
    });
    free_text(enlist);
    uci_set(path, flags);
    return 0;
}

int removeNetwork(const char *section)
{
    if (section == NULL)
        return -1;
    if (strlen(section) < 9)
        return 0;
    int radio = section[1] - '0';
    int slot = section[8] - '0';
    if (radio == 0 || radio == 1) {
        removeNetworkProfile(section);
        removeWlanIndex(radio, slot);
    }
    return 0;
}

int setEnlistFlag(const char *enlist, const char *wlanlist, const char *section,
                  int enabled, const char *path)
{
    if (enlist == NULL || wlanlist == NULL || enlist[0] == '\0' || wlanlist[0] == '\0')
        return -1;
    char slot = section != NULL && strlen(section) > 8 ? section[8] : '\0';
    int position = -1;
    int count = 0;
    for (const char *p = wlanlist; *p != '\0'; p++) {
        if (*p == ',' || *p == ' ')
            continue;
        if (*p == slot) {
            position = count;
            break;
        }
        count++;
    }
    char *flags = strdup(enlist);
    if (position >= 0) {
        count = 0;
        for (char *p = flags; *p != '\0'; p++) {
            if (*p == ',' || *p == ' ')
                continue;
            if (count++ == position) {
                *p = enabled ? '1' : '0';
                break;
            }
        }
    }
    char written[1024];
    size_t used = 0;
    for (const char *p = flags; *p != '\0' && used < sizeof written - 1; p++) {
        if (*p != '\n')
            written[used++] = *p;
    }
    written[used] = '\0';
    free(flags);
    uci_set(path, written);
    return 1;
}

char *getBrotherIndex(const char *section, char *profile)
{
    if (section == NULL || profile == NULL)
        return NULL;
    char *pair = NULL;
    char *save = NULL;
    for (char *entry = strtok_r(profile, ",", &save); entry != NULL;
         entry = strtok_r(NULL, ",", &save)) {
        if (strchr(entry, ':') != NULL && strstr(entry, section) != NULL) {
            pair = entry;
            break;
        }
    }
    if (pair == NULL)
        return NULL;
    for (char *half = strtok_r(pair, ":", &save); half != NULL;
         half = strtok_r(NULL, ":", &save)) {
        if (strstr(half, section) != NULL)
            continue;
        char *brother = static_cast<char *>(malloc(strlen(half) + 1));
        char *o = brother;
        for (const char *p = half; *p != '\0'; p++) {
            if (*p != '\n')
                *o++ = *p;
        }
        *o = '\0';
        return brother;
    }
    return NULL;
}

/* "wireless.SECTION.OPTION" into path, with the trace's debug line. */
static void wirelessOptionPath(char *path, size_t size, const char *section, const char *option,
                               const OptionTrace &trace)
{
    snprintf(path, size, "wireless.%s.%s", section, option);
    if (g_debugFlag && trace.module != NULL)
        kcDebugPrint(trace.module, trace.func, trace.line, "uci_path = %s\n", path);
}

void setWirelessOption(const char *section, const char *option, const char *value,
                       const OptionTrace &trace)
{
    char path[320];
    wirelessOptionPath(path, sizeof path, section, option, trace);
    uci_set(path, value);
}

void setWirelessOption(const char *section, const char *option, int value,
                       const OptionTrace &trace)
{
    char path[320];
    wirelessOptionPath(path, sizeof path, section, option, trace);
    uci_set_int(path, value);
}

void setWifiSecurity(const char *section, const char *encryption, const char *password,
                     const char *radiusServer, int radiusPort, const char *radiusSecret)
{
    KC_DEBUG("w_idx=%s, security=%s, password=%s, r_server=%s, r_server_secret=%s, "
             "r_port=%d\n",
             section != NULL ? section : "(null)", encryption != NULL ? encryption : "(null)",
             secret_shown(password), radiusServer != NULL ? radiusServer : "(null)",
             secret_shown(radiusSecret), radiusPort);
    if (section == NULL || encryption == NULL)
        return;
    setWirelessOption(section, "encryption", encryption);
    if (isPskEncryption(encryption)) {
        setWirelessOption(section, "key", password);
    } else if (isRadiusEncryption(encryption)) {
        setWirelessOption(section, "server", radiusServer);
        if (radiusPort != WLAN_ABSENT_PORT)
            setWirelessOption(section, "port", radiusPort);
        setWirelessOption(section, "WLANWpaRadiusSrvSecret", radiusSecret);
    }
}

/* ---- checks ---- */

int isValidSsid(const char *ssid)
{
    if (ssid == NULL)
        return 0;
    size_t length = strlen(ssid);
    return length >= 1 && length <= 32;
}

int isApOpMode(int radio)
{
    if (radio != 0 && radio != 1)
        return 1;
    char path[64];
    snprintf(path, sizeof path, "wireless.wifi%d.opmode", radio);
    char *mode = uci_get(path);
    int ap = mode == NULL || mode[0] == '\0' || strcmp(mode, "ap") == 0;
    free_text(mode);
    return ap;
}

int isApOpModeForIndex(int networkIndex)
{
    if (networkIndex < 0)
        return 1;
    return isApOpMode(networkIndex < 50 ? 0 : 1);
}

int isApOpModeAllowed(void)
{
    if (!isApOpMode(0))
        return 0;
    if (g_support5G && !isApOpMode(1))
        return 0;
    return 1;
}

int isValidNetworkIndex(int networkIndex)
{
    if (networkIndex < 0 || networkIndex >= 58)
        return 0;
    if (networkIndex >= 8 && networkIndex <= 49)
        return 0;
    if (networkIndex >= 50 && !g_support5G)
        return 0;
    return 1;
}

int wlanRadioOfIndex(int networkIndex)
{
    return networkIndex < 8 ? 0 : 1;
}

void wlanSectionName(int networkIndex, char *out, size_t size)
{
    if (networkIndex < 8)
        snprintf(out, size, "w0_index%d", networkIndex);
    else
        snprintf(out, size, "w1_index%d", networkIndex % 10);
}

/* ---- security modes ---- */

struct SecurityName {
    const char *request;
    const char *uci;
};

static const SecurityName kSecurityNames[] = {
    {"WPA2-PSK", "psk2 aes"},
    {"WPA-PSK MIXED", "psk-mixed tkip+aes"},
    {"OPEN", "none"},
    {"WPA2", "wpa2 aes"},
    {"WPA MIXED", "wpa-mixed tkip+aes"},
};

const char *wifiSecurityUciValue(const char *name)
{
    if (name == NULL)
        return NULL;
    for (const SecurityName &entry : kSecurityNames) {
        if (strcmp(name, entry.request) == 0 || strcmp(name, entry.uci) == 0)
            return entry.uci;
    }
    return NULL;
}

static int isOneOf(const char *text, const char *first, const char *second)
{
    return text != NULL && (strcmp(text, first) == 0 || strcmp(text, second) == 0);
}

int isPskSecurityName(const char *name)
{
    return isOneOf(name, "WPA2-PSK", "WPA-PSK MIXED");
}

int isRadiusSecurityName(const char *name)
{
    return isOneOf(name, "WPA2", "WPA MIXED");
}

int isPskEncryption(const char *encryption)
{
    return isOneOf(encryption, "psk2 aes", "psk-mixed tkip+aes");
}

int isRadiusEncryption(const char *encryption)
{
    return isOneOf(encryption, "wpa2 aes", "wpa-mixed tkip+aes");
}

int isValidPassphrase(const char *key)
{
    if (key == NULL)
        return 0;
    size_t length = strlen(key);
    if (length < 8 || length > 64)
        return 0;
    if (length == 64) {
        for (const char *p = key; *p != '\0'; p++) {
            if (!isxdigit((unsigned char)*p))
                return 0;
        }
    }
    return 1;
}

int checkRadiusSettings(const char *server, const char *secret, int port)
{
    if (server == NULL)
        return RADIUS_NO_SERVER;
    if (secret == NULL || secret[0] == '\0' || strlen(secret) >= 65)
        return RADIUS_BAD_SECRET;
    if (port != WLAN_ABSENT_PORT && (port < 1 || port > 65535))
        return RADIUS_BAD_PORT;
    return RADIUS_OK;
}
