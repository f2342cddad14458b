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

/* The writes of the network setter print "uci_path" lines in the
 * handler's name, with the line of the write. */
static const char kSetter[] = "vekSetNetworkConfigHandler";
#define TRACED (OptionTrace{KC_MODULE, kSetter, __LINE__})

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

/* The members of a request that changes or adds a network; "enabled" and
 * "separationEnabled" as an added network has them (on, off). */
static void readNetworkChange(const cJSON *params, NetworkChange *change)
{
    change->ssid = jsonGetString(params, "ssid");
    change->enabled = 1;
    change->broadcastEnabled = jsonGetInt(params, "broadcastEnabled") != 0;
    change->separationEnabled = 0;
    change->encryption = NULL;
    change->password = jsonGetString(params, "password");
    change->radiusServer = jsonGetString(params, "radiusServer");
    change->radiusPort = jsonGetIntOrAbsent(params, "radiusPort");
    change->radiusSecret = jsonGetString(params, "radiusSecret");
}

/* A refused request parameter with its "data" text. */
static Refusal invalid(const char *text)
{
    return refusal(JSONRPC_INVALID_PARAMS, text);
}

/* The "data" texts of the security refusals: a pre-shared key mode
 * without a pass-phrase or with a bad one, a RADIUS mode without server,
 * with a bad secret or a bad port, and a mode the device does not know. */
struct SecurityTexts {
    const char *password;
    const char *server;
    const char *secret;
    const char *port;
    const char *security;
};
static const SecurityTexts kAddTexts = {"Invalid password.", "Invalid server.",
                                        "Invalid secret.", "Invalid port number.",
                                        "Invalid security."};
/* a change of a network refuses its security without a text */
static const SecurityTexts kChangeTexts = {"", "", "", "", ""};

/* The security of a change, checked in this order; sets its encryption
 * (the UCI value of security). */
static Refusal checkSecurity(const char *security, NetworkChange *change,
                             const SecurityTexts &texts)
{
    if (isPskSecurityName(security) && change->password == NULL)
        return invalid(texts.password);
    if (isRadiusSecurityName(security)) {
        int radius = checkRadiusSettings(change->radiusServer, change->radiusSecret,
                                         change->radiusPort);
        if (radius == RADIUS_NO_SERVER)
            return invalid(texts.server);
        if (radius == RADIUS_BAD_SECRET)
            return invalid(texts.secret);
        if (radius == RADIUS_BAD_PORT)
            return invalid(texts.port);
    }
    change->encryption = wifiSecurityUciValue(security);
    if (change->encryption == NULL)
        return invalid(texts.security);
    if (isPskEncryption(change->encryption) && !isValidPassphrase(change->password))
        return invalid(texts.password);
    return accepted();
}

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
        setWirelessOption(section, "WLANVLANID", vlanId, TRACED);
        setWirelessOption(section, "WLANVLANEnable", 1, TRACED);
        return 0;
    }
    setWirelessOption(section, "WLANVLANID", "", TRACED);
    setWirelessOption(section, "WLANVLANEnable", 0, TRACED);
    return 0;
}

/* The checks of a networkIndex request, in their order: a valid index,
 * then the operation mode. */
static Refusal checkIndexAndMode(int networkIndex)
{
    if (!isValidNetworkIndex(networkIndex))
        return invalid("Invalid network index.");
    if (!isApOpModeAllowed())
        return invalid(WLAN_NON_AP_MODE_TEXT);
    return accepted();
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
    setWirelessOption(section, "ssid", change->ssid);
    setWirelessOption(section, "WLANEnable", "1");
    setWirelessOption(section, "hidden", change->broadcastEnabled ? "0" : "1");
    setWirelessOption(section, "isolate", "0");
    setWifiSecurity(section, change->encryption, change->password, change->radiusServer,
                    change->radiusPort, change->radiusSecret);
}

/* The options a change writes on both halves of a pair, after the enable
 * flags: visibility, isolation and security. */
static void writeVisibilityAndSecurity(const char *section, const NetworkChange *change)
{
    setWirelessOption(section, "hidden", change->broadcastEnabled ? "0" : "1", TRACED);
    setWirelessOption(section, "isolate", change->separationEnabled ? "1" : "0", TRACED);
    setWifiSecurity(section, change->encryption, change->password, change->radiusServer,
                    change->radiusPort, change->radiusSecret);
}

/* ---- "vekSetNetworkConfig": checked, then written ---- */

/* A checked change of one network: where it goes and what it writes. */
struct NetworkConfigRequest {
    int networkIndex;
    int vlanId;
    char section[32];
    char *profile; /* the network profile as read (free_text), or NULL */
    NetworkChange change;
};

/* Every check of a change, in its order, before the first write; fills
 * req (req->profile to be released also after a refusal). */
static Refusal checkNetworkConfig(const cJSON *params, NetworkConfigRequest *req)
{
    req->profile = NULL;
    req->networkIndex = jsonGetInt(params, "networkIndex");
    const char *security = jsonGetString(params, "security");
    readNetworkChange(params, &req->change);
    req->change.enabled = jsonGetInt(params, "enabled") != 0;
    req->change.separationEnabled = jsonGetInt(params, "separationEnabled") != 0;
    req->vlanId = jsonGetIntOrAbsent(params, "vlanId");

    if (req->change.ssid == NULL || security == NULL)
        return refusal(JSONRPC_INVALID_PARAMS);
    if (!isValidSsid(req->change.ssid))
        return invalid("Invalid ssid.");
    Refusal why = checkSecurity(security, &req->change, kChangeTexts);
    if (isRefused(why))
        return why;
    int vlanId = req->vlanId;
    if (vlanId != JSON_ABSENT_INT && (vlanId < 1 || vlanId > 4094)) {
        return refusal(JSONRPC_INVALID_PARAMS);
    }
    why = checkIndexAndMode(req->networkIndex);
    if (isRefused(why))
        return why;
    wlanSectionName(req->networkIndex, req->section, sizeof req->section);
    KC_DEBUG_FOR(kSetter, "p_w_idx = %s, vlan_id=%d\n", req->section,
                 vlanId);
    req->profile = readNetworkProfile();
    if (strstr(req->profile, req->section) == NULL)
        return refusal(JSONRPC_INVALID_PARAMS);
    return accepted();
}

/*
 * The writes of a checked change: the network, then its brother (the
 * profile is split in place to find it), then the VLANs.  Enable lists that
 * do not come back refuse the request after the first writes, with those
 * writes staged.
 */
static Refusal writeNetworkConfig(NetworkConfigRequest *req)
{
    const char *section = req->section;
    const NetworkChange *change = &req->change;
    setWirelessOption(section, "ssid", change->ssid, TRACED);
    int vlanUnchanged = writeVlan(section, change->enabled, req->vlanId);
    setWirelessOption(section, "WLANEnable", change->enabled ? "1" : "0", TRACED);
    int radio = wlanRadioOfIndex(req->networkIndex);
    KC_DEBUG_FOR(kSetter, "radio_idx = %d\n", radio);
    if (writeEnableFlag(radio, section, change->enabled) < 0)
        return refusal(JSONRPC_INVALID_PARAMS);
    char *brother = getBrotherIndex(section, req->profile);
    KC_DEBUG_FOR(kSetter, "p_brother_idx = %s\n",
                 brother != NULL ? brother : "(null)");
    if (brother != NULL && writeEnableFlag((radio + 1) % 2, brother, change->enabled) < 0) {
        free_text(brother);
        return refusal(JSONRPC_INVALID_PARAMS);
    }
    writeVisibilityAndSecurity(section, change);
    if (brother != NULL) {
        setWirelessOption(brother, "ssid", change->ssid, TRACED);
        setWirelessOption(brother, "WLANEnable", change->enabled ? "1" : "0", TRACED);
        writeVisibilityAndSecurity(brother, change);
        free_text(brother);
    }
    if (!vlanUnchanged)
        runSetVlan();
    return accepted();
}

/* ---- "vekAddNetwork": checked, then written ---- */

/* Interface names of "vekAddNetwork". */
static const char kInterface24[] = "2.4GHz";
static const char kInterface5[] = "5GHz";
static const char kInterfaceBoth[] = "BOTH";

/* A network to add: its members, and the free slots it takes (-1 for a
 * radio it does not use) as addNetworkProfile's mode 0, 1 or 2. */
struct NewNetwork {
    const char *interface;
    const char *security;
    NetworkChange change;
    int mode;
    int slot0;
    int slot1;
};

static void readNewNetwork(const cJSON *params, NewNetwork *add)
{
    add->interface = jsonGetString(params, "interface");
    add->security = jsonGetString(params, "security");
    readNetworkChange(params, &add->change);
    add->mode = -1;
    add->slot0 = -1;
    add->slot1 = -1;
}

/* The refusals of the members the request lacks, in this order, into
 * missing (room for four); how many. */
static int missingMembers(const cJSON *params, const NewNetwork *add, Refusal *missing)
{
    int count = 0;
    if (jsonGetItem(params, "deviceId") == NULL)
        missing[count++] = invalid("Invalid device id.");
    if (add->interface == NULL)
        missing[count++] = invalid("Invalid interface.");
    if (add->change.ssid == NULL)
        missing[count++] = invalid("Invalid ssid.");
    if (add->security == NULL)
        missing[count++] = invalid("Invalid security.");
    return count;
}

/* The radios of the interface, their operation mode and a free slot on
 * each. */
static Refusal chooseSlots(NewNetwork *add)
{
    const char *interface = add->interface;
    if (strcmp(interface, kInterface5) == 0) {
        if (!g_support5G)
            return invalid("The interface is not supported.");
        if (!isApOpMode(1))
            return invalid(WLAN_NON_AP_MODE_TEXT);
        add->slot1 = getFreeWlanIndex(1);
        add->mode = 1;
    } else if (strcmp(interface, kInterface24) == 0) {
        if (!isApOpMode(0))
            return invalid(WLAN_NON_AP_MODE_TEXT);
        add->slot0 = getFreeWlanIndex(0);
        add->mode = 0;
    } else if (strcmp(interface, kInterfaceBoth) == 0) {
        if (!g_support5G || !g_support2G)
            return invalid("The interface is not supported.");
        if (!isApOpMode(0) || !isApOpMode(1))
            return invalid(WLAN_NON_AP_MODE_TEXT);
        add->slot0 = getFreeWlanIndex(0);
        add->slot1 = getFreeWlanIndex(1);
        add->mode = 2;
    } else {
        return invalid("Unknown interface.");
    }
    int mode = add->mode;
    int enough = (mode == 1 || add->slot0 >= 0) && (mode == 0 || add->slot1 >= 0);
    KC_DEBUG_FOR("vekAddNetworkHandler",
                 "available_pf2 = %d, available_pf5 = %d, pf_is_enough[%d]\n", add->slot0,
                 add->slot1, enough);
    if (!enough)
        return invalid("Insufficient interface.");
    return accepted();
}

/* Every check of a request with all its members, in its order, before the
 * first write; fills the slots of add. */
static Refusal checkNewNetwork(NewNetwork *add)
{
    if (!isValidSsid(add->change.ssid))
        return invalid("Invalid ssid.");
    if (!isApOpModeAllowed())
        return invalid(WLAN_NON_AP_MODE_TEXT);
    Refusal why = chooseSlots(add);
    if (isRefused(why))
        return why;
    return checkSecurity(add->security, &add->change, kAddTexts);
}

/* The new network in the lists and the profile, and its options. */
static void writeNewNetworks(const NewNetwork *add)
{
    addNetworkProfile(add->mode, add->slot0, add->slot1);
    /* a free slot 0 is listed but gets no options: only slots above 0 do */
    char section[32];
    if (add->slot0 > 0) {
        snprintf(section, sizeof section, "w0_index%d", add->slot0);
        writeNewNetwork(section, &add->change);
    }
    if (add->slot1 > 0) {
        snprintf(section, sizeof section, "w1_index%d", add->slot1);
        writeNewNetwork(section, &add->change);
    }
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
    NetworkConfigRequest change;
    Refusal why = checkNetworkConfig(params, &change);
    if (!isRefused(why))
        why = writeNetworkConfig(&change);
    free_text(change.profile);
    if (isRefused(why)) {
        replyRefusal(request, why);
        return;
    }
    replyDeviceId(request);
    cloud_action_apply();
    KC_DEBUG("=== END ===\n");
}

void vekAddNetworkHandler(const cJSON *request)
{
    KC_DEBUG("=== START ===\n");
    const cJSON *params = jsonGetItem(request, "params");
    NewNetwork add;
    readNewNetwork(params, &add);
    /* the agent's own way: one refusal for each missing member */
    Refusal missing[4];
    int count = missingMembers(params, &add, missing);
    for (int i = 0; i < count; i++)
        replyRefusal(request, missing[i]);
    if (count > 0)
        return;
    Refusal why = checkNewNetwork(&add);
    if (isRefused(why)) {
        replyRefusal(request, why);
        return;
    }
    replyDeviceId(request);
    writeNewNetworks(&add);
    cloud_action_apply();
    KC_DEBUG("=== END ===\n");
}

void vekDeleteNetworkHandler(const cJSON *request)
{
    KC_DEBUG("=== START ===\n");
    const cJSON *params = jsonGetItem(request, "params");
    if (jsonGetItem(params, "deviceId") == NULL) {
        replyRefusal(request, invalid("Invalid device id."));
        return;
    }
    int networkIndex = jsonGetInt(params, "networkIndex");
    (void)jsonGetString(params, "ssid"); /* read, not used */
    Refusal why = checkIndexAndMode(networkIndex);
    if (isRefused(why)) {
        replyRefusal(request, why);
        return;
    }
    char section[32];
    wlanSectionName(networkIndex, section, sizeof section);
    if (strcmp(section, "w0_index0") == 0 || strcmp(section, "w1_index0") == 0) {
        KC_DEBUG("cannot delete p_w_idx = %s\n", section);
        replyRefusal(request, invalid("Network index 0/50 cannot be deleted."));
        return;
    }
    char *profile = readNetworkProfile();
    if (strstr(profile, section) == NULL) {
        free_text(profile);
        replyRefusal(request, invalid("Network index is not in the profile."));
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
