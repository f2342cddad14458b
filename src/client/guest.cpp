/*
 * The guest network and the client list: "vekGetClientList" and
 * "vekGetGuestNetworkConfig" pass on selected members of the utility
 * script's JSON answers; "vekSetGuestNetworkConfig" writes the guest
 * network of one radio (sections "w0_index25" / "w1_index25") and its
 * addressing in the "network" and "dhcp" packages, once it has checked that
 * the guest addresses stay out of the LAN.  Every refusal comes before the
 * first write; the changes are applied after the success reply is queued.
 */
#define KC_MODULE "nimb_client.cpp"
#include "client/handlers.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "client/reply.h"
#include "client/script_answers.h"
#include "json/json_filter.h"
#include "json/envelope.h"
#include "json/accessors.h"
#include "sdk/nimb_sdk.h"
#include "util/apply.h"
#include "util/debug.h"
#include "util/ip_network.h"
#include "util/shell.h"
#include "util/uci.h"
#include "util/text.h"
#include "util/facts.h"
#include "util/radios.h"
#include "util/wlan_profile.h"

/* ---- helpers ---- */

static const char kGuest24[] = "w0_index25";
static const char kGuest5[] = "w1_index25";

/* Members of the script's answers that reach the server. */
static const char *const kClientListKeys[] = {"deviceId", "clients", NULL};
static const char *const kClientKeys[] = {"cmac", "networkIndex", "mac", "ssid",
                                          "interface", "name", NULL};
static const char *const kGuestConfigKeys[] = {
    "deviceId", "interface", "ssid", "guestEnabled", "broadcastEnabled", "security",
    "password", "separationEnabled", "gatewayIp", "subnetMask", "startingIp", "endingIp",
    NULL};

/* The LAN mask of the running device. */
static char *readLanMask(void)
{
    return run_shell_command(
        "ifconfig br-lan | grep 'Mask:' | sed -e 's/.*Mask://g' | tr -d '\\n'", 100);
}

/* The guest addressing members of a request; NULL where not given. */
struct GuestAddressing {
    const char *gatewayIp;
    const char *subnetMask;
    const char *startingIp;
    const char *endingIp;
};

/* 1 when address shares a network with the LAN address under the LAN mask
 * or under mask. */
static int inLan(const char *lanAddress, const char *lanMask, const char *address,
                 const char *mask)
{
    return bothIpInSameNetwork(lanAddress, address, lanMask) ||
           bothIpInSameNetwork(lanAddress, address, mask);
}

/* 1 when the guest addresses are acceptable. */
static int checkGuestAddressing(const GuestAddressing *guest, int guestEnabled)
{
    int given = (guest->gatewayIp != NULL) + (guest->subnetMask != NULL) +
                (guest->startingIp != NULL) + (guest->endingIp != NULL);
    if (given > 0 && given < 4)
        return 0;
    if (given == 0 && !guestEnabled)
        return 1;
    if (given == 4 && !checkSubnetValidation(guest->subnetMask)) {
        /* printed whatever the debug setting */
        printf("[%s %d]\n", "vekSetGuestNetworkConfigHandler", 3573);
        return 0;
    }
    char *lanAddress = get_lan_ip_address();
    char *lanMask = readLanMask();
    int ok = 1;
    if (given == 4) {
        if (inLan(lanAddress, lanMask, guest->startingIp, guest->subnetMask) ||
            inLan(lanAddress, lanMask, guest->endingIp, guest->subnetMask) ||
            !bothIpInSameNetwork(guest->startingIp, guest->endingIp, guest->subnetMask) ||
            !bothIpInSameNetwork(guest->startingIp, guest->gatewayIp, guest->subnetMask))
            ok = 0;
    } else {
        /* the stored range; the stored gateway is read but the request's
         * (absent) one is what gets compared */
        char *start = uci_get("dhcp.guest.start");
        char *stop = uci_get("dhcp.guest.dhcp_stop_addr");
        char *storedGateway = uci_get("network.guest.ipaddr");
        char *guestMask = uci_get("network.guest.netmask");
        if (inLan(lanAddress, lanMask, start, guestMask) ||
            inLan(lanAddress, lanMask, stop, guestMask) ||
            inLan(lanAddress, lanMask, guest->gatewayIp, guestMask))
            ok = 0;
        free_text(start);
        free_text(stop);
        free_text(storedGateway);
        free_text(guestMask);
    }
    free_text(lanAddress);
    free_text(lanMask);
    return ok;
}

/* uci set wireless.SECTION.OPTION="value" */
static void setGuestOption(const char *section, const char *option, const char *value)
{
    char path[64];
    snprintf(path, sizeof path, "wireless.%s.%s", section, option);
    uci_set(path, value);
}

/* The option on both guest sections with band steering on, else on section. */
static void setSteeredOption(int bandSteering, const char *section, const char *option,
                             const char *value)
{
    if (bandSteering == 1) {
        setGuestOption(kGuest24, option, value);
        setGuestOption(kGuest5, option, value);
    } else {
        setGuestOption(section, option, value);
    }
}

/* ---- handlers ---- */

void vekGetClientListHandler(const cJSON *request)
{
    KC_DEBUG("=== START ===\n");
    const cJSON *params = deviceParams(request);
    if (params == NULL) {
        replyRefusal(request, missingDeviceId());
        return;
    }
    int networkIndex = JSON_ABSENT_INT;
    if (jsonGetItem(params, "networkIndex") != NULL) {
        networkIndex = jsonGetInt(params, "networkIndex");
        if (!isValidNetworkIndex(networkIndex)) {
            replyRefusal(request, refusal(JSONRPC_INVALID_PARAMS, "Invalid network index."));
            return;
        }
    }
    char cmd[128];
    snprintf(cmd, sizeof cmd, "%s vekGetClientList result %d", KAPRI_UTIL_SCRIPT,
             networkIndex);
    KC_DEBUG("sys_cmd = %s\n", cmd);
    replyFilteredAnswer(request, cmd, kClientListKeys, kClientKeys);
    KC_DEBUG("=== END ===\n");
}

void vekGetGuestNetworkConfigHandler(const cJSON *request)
{
    KC_DEBUG("=== START ===\n");
    const cJSON *params = deviceParams(request);
    if (params == NULL) {
        replyRefusal(request, missingDeviceId());
        return;
    }
    const char *interface = jsonGetString(params, "interface");
    if (interface == NULL || (strcmp(interface, "5GHz") != 0 && strcmp(interface, "2.4GHz") != 0)) {
        replyRefusal(request, refusal(JSONRPC_INVALID_PARAMS));
        return;
    }
    char cmd[128];
    snprintf(cmd, sizeof cmd, "%s vekGetGuestNetworkConfig result %s", KAPRI_UTIL_SCRIPT,
             interface);
    KC_DEBUG("sys_cmd = %s\n", cmd);
    replyFilteredAnswer(request, cmd, kGuestConfigKeys, NULL);
    KC_DEBUG("=== END ===\n");
}

void vekSetGuestNetworkConfigHandler(const cJSON *request)
{
    KC_DEBUG("=== START ===\n");
    const cJSON *params = deviceParams(request);
    if (params == NULL) {
        replyRefusal(request, missingDeviceId());
        return;
    }
    const char *interface = jsonGetString(params, "interface");
    const char *ssid = jsonGetString(params, "ssid");
    const char *security = jsonGetString(params, "security");
    const char *password = jsonGetString(params, "password");
    int guestEnabled = jsonGetInt(params, "guestEnabled") != 0;
    int broadcastEnabled = jsonGetInt(params, "broadcastEnabled") != 0;
    int separationEnabled = jsonGetInt(params, "separationEnabled") != 0;
    GuestAddressing guest;
    guest.gatewayIp = jsonGetString(params, "gatewayIp");
    guest.subnetMask = jsonGetString(params, "subnetMask");
    guest.startingIp = jsonGetString(params, "startingIp");
    guest.endingIp = jsonGetString(params, "endingIp");

    if (interface == NULL || ssid == NULL || security == NULL) {
        replyRefusal(request, refusal(JSONRPC_INVALID_PARAMS));
        return;
    }
    if (!isValidSsid(ssid)) {
        replyRefusal(request, refusal(JSONRPC_INVALID_PARAMS, "Invalid ssid."));
        return;
    }
    const char *section;
    const char *otherSection;
    if (strcmp(interface, "5GHz") == 0) {
        if (!g_support5G) {
            replyRefusal(request, refusal(JSONRPC_INVALID_PARAMS));
            return;
        }
        if (!isApOpMode(1)) {
            replyRefusal(request, refusal(JSONRPC_INVALID_PARAMS, WLAN_NON_AP_MODE_TEXT));
            return;
        }
        section = kGuest5;
        otherSection = kGuest24;
    } else if (strcmp(interface, "2.4GHz") == 0) {
        if (!isApOpMode(0)) {
            replyRefusal(request, refusal(JSONRPC_INVALID_PARAMS, WLAN_NON_AP_MODE_TEXT));
            return;
        }
        section = kGuest24;
        otherSection = kGuest5;
    } else {
        replyRefusal(request, refusal(JSONRPC_INVALID_PARAMS));
        return;
    }
    if (isPskSecurityName(security) && password == NULL) {
        replyRefusal(request, refusal(JSONRPC_INVALID_PARAMS));
        return;
    }
    /* the guest network knows the pre-shared key modes and open only */
    const char *encryption = wifiSecurityUciValue(security);
    if (encryption == NULL || isRadiusEncryption(encryption)) {
        replyRefusal(request, refusal(JSONRPC_INVALID_PARAMS));
        return;
    }
    if (isPskEncryption(encryption) && !isValidPassphrase(password)) {
        replyRefusal(request, refusal(JSONRPC_INVALID_PARAMS));
        return;
    }
    if (!checkGuestAddressing(&guest, guestEnabled)) {
        replyRefusal(request, refusal(JSONRPC_INVALID_PARAMS));
        return;
    }

    int bandSteering = uci_get_int("clientcontrol.bandsteer.enable");
    setSteeredOption(bandSteering, section, "ssid", ssid);
    setGuestOption(section, "WLANEnable", guestEnabled ? "1" : "0");
    if (guestEnabled) {
        uci_set_int("dhcp.guest.ignore", 0);
    } else {
        /* guest DHCP goes off only when both guest networks are off */
        char path[64];
        snprintf(path, sizeof path, "wireless.%s.WLANEnable", otherSection);
        if (uci_get_int(path) == 0)
            uci_set_int("dhcp.guest.ignore", 1);
    }
    setGuestOption(section, "hidden", broadcastEnabled ? "0" : "1");
    setGuestOption(section, "isolate", separationEnabled ? "1" : "0");
    setSteeredOption(bandSteering, section, "encryption", encryption);
    if (isPskEncryption(encryption))
        setSteeredOption(bandSteering, section, "key", password);
    if (guest.gatewayIp != NULL)
        uci_set("network.guest.ipaddr", guest.gatewayIp);
    if (guest.subnetMask != NULL)
        uci_set("network.guest.netmask", guest.subnetMask);
    if (guest.startingIp != NULL)
        uci_set("dhcp.guest.start", guest.startingIp);
    if (guest.endingIp != NULL)
        uci_set("dhcp.guest.dhcp_stop_addr", guest.endingIp);

    replyDeviceId(request);
    cloud_action_apply();
    KC_DEBUG("=== END ===\n");
}
