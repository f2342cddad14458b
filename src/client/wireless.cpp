/*
 * The wireless networks of the access point: "vekSetNetworkConfig" changes
 * one network (and the network paired with it on the other radio),
 * "vekAddNetwork" creates one in a free slot of one radio or of both, and
 * "vekDeleteNetwork" removes one together with its pair.  Every request is
 * checked in full before the first write.  Changes are staged in UCI and
 * applied by the utility script's apply step after the success reply has
 * been queued; add and delete queue their reply before any change.
 */
#define KC_MODULE "nimb_client.cpp"
#include "client/handlers.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "client/reply.h"
#include "json/envelope.h"
#include "json/accessors.h"
#include "sdk/nimb_sdk.h"
#include "util/apply.h"
#include "util/debug.h"
#include "util/shell.h"
#include "util/uci.h"
#include "util/text.h"
#include "util/shell_quote.h"
#include "util/radios.h"
#include "util/wlan_profile.h"

/* ---- helpers ---- */

/* Interface names of "vekAddNetwork". */
static const char kInterface24[] = "2.4GHz";
static const char kInterface5[] = "5GHz";
static const char kInterfaceBoth[] = "BOTH";

/* The profile as "uci get" prints it (newline kept), read up to 16384 bytes. */
static char *readNetworkProfile(void)
{
    const char *cmd = "uci get wireless.wifi0.network_profile";
    KC_DEBUG("sys_cmd = %s\n", cmd);
    return run_shell_command(cmd, WLAN_LIST_READ_LIMIT);
}

/* "wlanlist" or "enlist" of a radio without newlines, up to 16384 bytes. */
static char *readRadioList(int radio, const char *list)
{
    char cmd[128];
    snprintf(cmd, sizeof cmd, "uci get wireless.wifi%d.%s | tr -d '\\n'", radio, list);
    KC_DEBUG("sys_cmd = %s\n", cmd);
    return run_shell_command(cmd, WLAN_LIST_READ_LIMIT);
}

/* A list text that did not come back: no text, or an empty one. */
static int isMissingText(const char *text)
{
    return text == NULL || text[0] == '\0';
}

/* Writes the enable flag of section into its radio's enlist; -1 when the
 * radio's lists did not come back (nothing written). */
static int writeEnableFlag(int radio, const char *section, int enabled)
{
    char *enlist = readRadioList(radio, "enlist");
    char *wlanlist = readRadioList(radio, "wlanlist");
    int ret = -1;
    if (!isMissingText(enlist) && !isMissingText(wlanlist)) {
        char path[64];
        snprintf(path, sizeof path, "wireless.wifi%d.enlist", radio);
        ret = setEnlistFlag(enlist, wlanlist, section, enabled, path);
    }
    free_text(enlist);
    free_text(wlanlist);
    return ret;
}

/* uci set wireless.SECTION.OPTION, with the "uci_path" debug line of the
 * network setter. */
static void setTracedOption(const char *section, const char *option, const char *value)
{
    char path[320];
    snprintf(path, sizeof path, "wireless.%s.%s", section, option);
    KC_DEBUG("uci_path = %s\n", path);
    uci_set(path, value);
}

static void setTracedIntOption(const char *section, const char *option, int value)
{
    char path[320];
    snprintf(path, sizeof path, "wireless.%s.%s", section, option);
    KC_DEBUG("uci_path = %s\n", path);
    uci_set_int(path, value);
}

static void setOption(const char *section, const char *option, const char *value)
{
    char path[320];
    snprintf(path, sizeof path, "wireless.%s.%s", section, option);
    uci_set(path, value);
}

/* The options a change of a network writes on it and on its brother. */
struct NetworkChange {
    const char *ssid;
    int enabled;
    int broadcastEnabled;
    int separationEnabled;
    const char *encryption;
    const char *password;
    const char *radiusServer;
    int radiusPort;
    const char *radiusSecret;
};

/* "%s setVlan": the script reconfigures the VLANs (output dropped). */
static void runSetVlan(void)
{
    char cmd[128];
    snprintf(cmd, sizeof cmd, "%s setVlan", KAPRI_UTIL_SCRIPT);
    KC_DEBUG("sys_cmd = %s\n", cmd);
    free_text(run_shell_command(cmd, WLAN_LIST_READ_LIMIT));
}

/* The VLAN of a network (never of its brother): switched on with the
 * given id when the network is enabled and an id is given, else off.
 * Returns 1 when the options already held that VLAN (nothing written). */
static int writeVlan(const char *section, int enabled, int vlanId)
{
    if (enabled && vlanId != JSON_ABSENT_INT) {
        char enablePath[320];
        char idPath[320];
        snprintf(enablePath, sizeof enablePath, "wireless.%s.WLANVLANEnable", section);
        snprintf(idPath, sizeof idPath, "wireless.%s.WLANVLANID", section);
        int vlanEnabled = uci_get_int(enablePath);
        int currentId = uci_get_int(idPath);
        if (vlanEnabled == 1 && currentId == vlanId)
            return 1;
        setTracedIntOption(section, "WLANVLANID", vlanId);
        setTracedIntOption(section, "WLANVLANEnable", 1);
        return 0;
    }
    setTracedOption(section, "WLANVLANID", "");
    setTracedIntOption(section, "WLANVLANEnable", 0);
    return 0;
}

/* The request's "data" text of a refused add or delete. */
static void refuse(const cJSON *request, const char *text)
{
    replyRefusal(request, refusal(JSONRPC_INVALID_PARAMS, text));
}

/* The checks of a networkIndex request, in their order: a valid index,
 * then the operation mode.  1 when the request was refused. */
static int refuseIndexOrMode(const cJSON *request, int networkIndex)
{
    if (!isValidNetworkIndex(networkIndex)) {
        refuse(request, "Invalid network index.");
        return 1;
    }
    if (!isApOpModeAllowed()) {
        refuse(request, WLAN_NON_AP_MODE_TEXT);
        return 1;
    }
    return 0;
}

/* "%s rm_wifi_config %s": the script drops the interface's section. */
static void runRemoveWifiConfig(const char *section)
{
    char *word = shell_quote(section);
    size_t size = strlen(KAPRI_UTIL_SCRIPT) + strlen(word) + 32;
    char *cmd = static_cast<char *>(malloc(size));
    snprintf(cmd, size, "%s rm_wifi_config %s", KAPRI_UTIL_SCRIPT, word);
    free_text(word);
    free_text(run_shell_command(cmd, WLAN_LIST_READ_LIMIT));
    free(cmd);
}

/* The options of a newly added network (slot above 0 only). */
static void writeNewNetwork(const char *section, const NetworkChange *change)
{
    setOption(section, "ssid", change->ssid);
    setOption(section, "WLANEnable", "1");
    setOption(section, "hidden", change->broadcastEnabled ? "0" : "1");
    setOption(section, "isolate", "0");
    setWifiSecurity(section, change->encryption, change->password, change->radiusServer,
                    change->radiusPort, change->radiusSecret);
}

/* ---- handlers ---- */

void vekSetNetworkConfigHandler(const cJSON *request)
{
    KC_DEBUG("=== START ===\n");
    const cJSON *params = deviceParams(request);
    if (params == NULL) {
        replyRefusal(request, missingDeviceId());
        return;
    }
    int networkIndex = jsonGetInt(params, "networkIndex");
    const char *security = jsonGetString(params, "security");
    NetworkChange change;
    change.ssid = jsonGetString(params, "ssid");
    change.enabled = jsonGetInt(params, "enabled") != 0;
    change.broadcastEnabled = jsonGetInt(params, "broadcastEnabled") != 0;
    change.separationEnabled = jsonGetInt(params, "separationEnabled") != 0;
    change.password = jsonGetString(params, "password");
    change.radiusServer = jsonGetString(params, "radiusServer");
    change.radiusPort = jsonGetIntOrAbsent(params, "radiusPort");
    change.radiusSecret = jsonGetString(params, "radiusSecret");
    int vlanId = jsonGetIntOrAbsent(params, "vlanId");

    if (change.ssid == NULL || security == NULL) {
        replyRefusal(request, refusal(JSONRPC_INVALID_PARAMS));
        return;
    }
    if (!isValidSsid(change.ssid)) {
        refuse(request, "Invalid ssid.");
        return;
    }
    if (isPskSecurityName(security) && change.password == NULL) {
        replyRefusal(request, refusal(JSONRPC_INVALID_PARAMS));
        return;
    }
    if (isRadiusSecurityName(security) &&
        checkRadiusSettings(change.radiusServer, change.radiusSecret, change.radiusPort) !=
            RADIUS_OK) {
        replyRefusal(request, refusal(JSONRPC_INVALID_PARAMS));
        return;
    }
    if (vlanId != JSON_ABSENT_INT && (vlanId < 1 || vlanId > 4094)) {
        replyRefusal(request, refusal(JSONRPC_INVALID_PARAMS));
        return;
    }
    change.encryption = wifiSecurityUciValue(security);
    if (change.encryption == NULL) {
        replyRefusal(request, refusal(JSONRPC_INVALID_PARAMS));
        return;
    }
    if (isPskEncryption(change.encryption) && !isValidPassphrase(change.password)) {
        replyRefusal(request, refusal(JSONRPC_INVALID_PARAMS));
        return;
    }
    if (refuseIndexOrMode(request, networkIndex))
        return;
    char section[32];
    wlanSectionName(networkIndex, section, sizeof section);
    KC_DEBUG("p_w_idx = %s, vlan_id=%d\n", section, vlanId);
    char *profile = readNetworkProfile();
    if (strstr(profile, section) == NULL) {
        free_text(profile);
        replyRefusal(request, refusal(JSONRPC_INVALID_PARAMS));
        return;
    }

    setTracedOption(section, "ssid", change.ssid);
    int vlanUnchanged = writeVlan(section, change.enabled, vlanId);
    setTracedOption(section, "WLANEnable", change.enabled ? "1" : "0");
    int radio = wlanRadioOfIndex(networkIndex);
    KC_DEBUG("radio_idx = %d\n", radio);
    if (writeEnableFlag(radio, section, change.enabled) < 0) {
        free_text(profile);
        replyRefusal(request, refusal(JSONRPC_INVALID_PARAMS));
        return;
    }
    char *brother = getBrotherIndex(section, profile);
    free_text(profile);
    KC_DEBUG("p_brother_idx = %s\n", brother != NULL ? brother : "(null)");
    if (brother != NULL && writeEnableFlag((radio + 1) % 2, brother, change.enabled) < 0) {
        free_text(brother);
        replyRefusal(request, refusal(JSONRPC_INVALID_PARAMS));
        return;
    }
    setTracedOption(section, "hidden", change.broadcastEnabled ? "0" : "1");
    setTracedOption(section, "isolate", change.separationEnabled ? "1" : "0");
    setWifiSecurity(section, change.encryption, change.password, change.radiusServer,
                    change.radiusPort, change.radiusSecret);
    if (brother != NULL) {
        setTracedOption(brother, "ssid", change.ssid);
        setTracedOption(brother, "WLANEnable", change.enabled ? "1" : "0");
        setTracedOption(brother, "hidden", change.broadcastEnabled ? "0" : "1");
        setTracedOption(brother, "isolate", change.separationEnabled ? "1" : "0");
        setWifiSecurity(brother, change.encryption, change.password, change.radiusServer,
                        change.radiusPort, change.radiusSecret);
        free_text(brother);
    }
    if (!vlanUnchanged)
        runSetVlan();
    replyDeviceId(request);
    cloud_action_apply();
    KC_DEBUG("=== END ===\n");
}

void vekAddNetworkHandler(const cJSON *request)
{
    KC_DEBUG("=== START ===\n");
    const cJSON *params = jsonGetItem(request, "params");
    const char *interface = jsonGetString(params, "interface");
    const char *security = jsonGetString(params, "security");
    NetworkChange change;
    change.ssid = jsonGetString(params, "ssid");
    change.enabled = 1;
    change.broadcastEnabled = jsonGetInt(params, "broadcastEnabled") != 0;
    change.separationEnabled = 0;
    change.password = jsonGetString(params, "password");
    change.radiusServer = jsonGetString(params, "radiusServer");
    change.radiusPort = jsonGetIntOrAbsent(params, "radiusPort");
    change.radiusSecret = jsonGetString(params, "radiusSecret");

    /* one refusal for each missing member */
    int missing = 0;
    if (jsonGetItem(params, "deviceId") == NULL) {
        refuse(request, "Invalid device id.");
        missing = 1;
    }
    if (interface == NULL) {
        refuse(request, "Invalid interface.");
        missing = 1;
    }
    if (change.ssid == NULL) {
        refuse(request, "Invalid ssid.");
        missing = 1;
    }
    if (security == NULL) {
        refuse(request, "Invalid security.");
        missing = 1;
    }
    if (missing)
        return;
    if (!isValidSsid(change.ssid)) {
        refuse(request, "Invalid ssid.");
        return;
    }
    if (!isApOpModeAllowed()) {
        refuse(request, WLAN_NON_AP_MODE_TEXT);
        return;
    }
    int slot0 = -1;
    int slot1 = -1;
    int mode;
    if (strcmp(interface, kInterface5) == 0) {
        if (!g_support5G) {
            refuse(request, "The interface is not supported.");
            return;
        }
        if (!isApOpMode(1)) {
            refuse(request, WLAN_NON_AP_MODE_TEXT);
            return;
        }
        slot1 = getFreeWlanIndex(1);
        mode = 1;
    } else if (strcmp(interface, kInterface24) == 0) {
        if (!isApOpMode(0)) {
            refuse(request, WLAN_NON_AP_MODE_TEXT);
            return;
        }
        slot0 = getFreeWlanIndex(0);
        mode = 0;
    } else if (strcmp(interface, kInterfaceBoth) == 0) {
        if (!g_support5G || !g_support2G) {
            refuse(request, "The interface is not supported.");
            return;
        }
        if (!isApOpMode(0) || !isApOpMode(1)) {
            refuse(request, WLAN_NON_AP_MODE_TEXT);
            return;
        }
        slot0 = getFreeWlanIndex(0);
        slot1 = getFreeWlanIndex(1);
        mode = 2;
    } else {
        refuse(request, "Unknown interface.");
        return;
    }
    int enough = (mode == 1 || slot0 >= 0) && (mode == 0 || slot1 >= 0);
    KC_DEBUG("available_pf2 = %d, available_pf5 = %d, pf_is_enough[%d]\n", slot0, slot1,
             enough);
    if (!enough) {
        refuse(request, "Insufficient interface.");
        return;
    }
    if (isPskSecurityName(security) && change.password == NULL) {
        refuse(request, "Invalid password.");
        return;
    }
    if (isRadiusSecurityName(security)) {
        int radius = checkRadiusSettings(change.radiusServer, change.radiusSecret,
                                         change.radiusPort);
        if (radius == RADIUS_NO_SERVER) {
            refuse(request, "Invalid server.");
            return;
        }
        if (radius == RADIUS_BAD_SECRET) {
            refuse(request, "Invalid secret.");
            return;
        }
        if (radius == RADIUS_BAD_PORT) {
            refuse(request, "Invalid port number.");
            return;
        }
    }
    change.encryption = wifiSecurityUciValue(security);
    if (change.encryption == NULL) {
        refuse(request, "Invalid security.");
        return;
    }
    if (isPskEncryption(change.encryption) && !isValidPassphrase(change.password)) {
        refuse(request, "Invalid password.");
        return;
    }

    replyDeviceId(request);
    addNetworkProfile(mode, slot0, slot1);
    /* a free slot 0 is listed but gets no options: only slots above 0 do */
    char section[32];
    if (slot0 > 0) {
        snprintf(section, sizeof section, "w0_index%d", slot0);
        writeNewNetwork(section, &change);
    }
    if (slot1 > 0) {
        snprintf(section, sizeof section, "w1_index%d", slot1);
        writeNewNetwork(section, &change);
    }
    cloud_action_apply();
    KC_DEBUG("=== END ===\n");
}

void vekDeleteNetworkHandler(const cJSON *request)
{
    KC_DEBUG("=== START ===\n");
    const cJSON *params = jsonGetItem(request, "params");
    if (jsonGetItem(params, "deviceId") == NULL) {
        refuse(request, "Invalid device id.");
        return;
    }
    int networkIndex = jsonGetInt(params, "networkIndex");
    (void)jsonGetString(params, "ssid"); /* read, not used */
    if (refuseIndexOrMode(request, networkIndex))
        return;
    char section[32];
    wlanSectionName(networkIndex, section, sizeof section);
    if (strcmp(section, "w0_index0") == 0 || strcmp(section, "w1_index0") == 0) {
        KC_DEBUG("cannot delete p_w_idx = %s\n", section);
        refuse(request, "Network index 0/50 cannot be deleted.");
        return;
    }
    char *profile = readNetworkProfile();
    if (strstr(profile, section) == NULL) {
        free_text(profile);
        refuse(request, "Network index is not in the profile.");
        return;
    }
    char *brother = getBrotherIndex(section, profile);
    free_text(profile);
    KC_DEBUG("p_brother_idx = %s\n", brother != NULL ? brother : "(null)");

    replyDeviceId(request);
    removeNetwork(section);
    runRemoveWifiConfig(section);
    if (brother != NULL) {
        removeNetwork(brother);
        runRemoveWifiConfig(brother);
        free_text(brother);
    }
    char cmd[128];
    snprintf(cmd, sizeof cmd, "%s setVlan", KAPRI_UTIL_SCRIPT);
    run_system_command(cmd);
    cloud_action_apply();
    KC_DEBUG("=== END ===\n");
}
