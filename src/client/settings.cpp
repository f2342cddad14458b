/*
 * The device's identity and LAN settings: "dxGetAbout",
 * "dxGetNetworkSettings" and "dxSetNetworkSettings".  New LAN settings are
 * staged in UCI and applied only once their success reply has left the
 * device, because applying them may cut the agent's own connection; a reply
 * that cannot leave within 10 seconds is followed by error 10001 and nothing
 * is applied.
 */
#define KC_MODULE "nimb_client.cpp"
#include "client/handlers.h"

#include <pthread.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "client/reply.h"
#include "json/envelope.h"
#include "json/accessors.h"
#include "sdk/nimb_sdk.h"
#include "util/apply.h"
#include "util/debug.h"
#include "util/device_name.h"
#include "util/ip_network.h"
#include "util/shell.h"
#include "util/uci.h"
#include "util/text.h"
#include "util/facts.h"
#include "util/shell_quote.h"
#include "util/radios.h"

/* ---- helpers ---- */

/* The pending slot: the reply (compared by address only, never read
 * through: the sending thread deletes it once sent) and a copy of its "id"
 * text, which is what a sent tree is matched against. */
static pthread_mutex_t s_pendingLock = PTHREAD_MUTEX_INITIALIZER;
static const cJSON *s_pendingReply = NULL;
static char *s_pendingId = NULL; /* NULL: "" */

/* Empties the pending slot; s_pendingLock held. */
static void clearPendingLocked(void)
{
    s_pendingReply = NULL;
    free(s_pendingId);
    s_pendingId = NULL;
}

void setPendingAckReply(const cJSON *reply)
{
    const char *id = jsonGetString(reply, "id");
    char *copy = strdup(id != NULL ? id : "");
    pthread_mutex_lock(&s_pendingLock);
    char *old = s_pendingId;
    s_pendingReply = reply;
    s_pendingId = copy;
    pthread_mutex_unlock(&s_pendingLock);
    free(old);
}

const cJSON *pendingAckReply(void)
{
    pthread_mutex_lock(&s_pendingLock);
    const cJSON *pending = s_pendingReply;
    pthread_mutex_unlock(&s_pendingLock);
    return pending;
}

void abandonPendingAckReply(const cJSON *reply)
{
    pthread_mutex_lock(&s_pendingLock);
    if (s_pendingReply == reply)
        clearPendingLocked();
    pthread_mutex_unlock(&s_pendingLock);
}

int pendingAckReplySent(const cJSON *sent)
{
    const char *id = jsonGetString(sent, "id");
    if (id == NULL)
        return 0; /* notifications never match */
    pthread_mutex_lock(&s_pendingLock);
    int match = s_pendingReply != NULL &&
                strcmp(s_pendingId != NULL ? s_pendingId : "", id) == 0;
    if (match)
        clearPendingLocked();
    pthread_mutex_unlock(&s_pendingLock);
    return match;
}

/* The LAN settings as read from the running device and written to UCI. */
struct NetworkSettings {
    char deviceName[21];
    char ipAddress[65];
    char subnetMask[65];
    char defaultGateway[65];
    int32_t dhcpEnabled;
    char dnsServer1[65];
    char dnsServer2[65];
    int32_t autoResolver;
};

/* The one record, zeroed before every read. */
static NetworkSettings s_networkSettings;

static const char kAutoResolvFile[] = "/tmp/resolv.conf.auto";
static const char kFixedResolvFile[] = "/tmp/resolv.conf";

/* Copies at most size - 1 characters of text (none for NULL) and ends it. */
static void copyField(char *field, size_t size, const char *text)
{
    snprintf(field, size, "%s", text != NULL ? text : "");
}

/* Copies a runner's or uci_get's text into a field and frees it. */
static void takeField(char *field, size_t size, char *text)
{
    copyField(field, size, text);
    free_text(text);
}

/* The nameserver on line `line` of the resolver file (not 127.0.0.1). */
static char *readNameServer(const char *resolvFile, int line)
{
    char *file = shell_quote(resolvFile);
    char cmd[512];
    snprintf(cmd, sizeof cmd,
             "cat %s | grep -E '^nameserver.*.' | grep -v '127.0.0.1' | "
             "sed -n '%d,1p' | cut -d ' ' -f 2 | tr -d '\\n'",
             file, line);
    free_text(file);
    return run_shell_command(cmd, 100);
}

static int read_network_settings(NetworkSettings *settings)
{
    if (settings == NULL) {
        printf("Error!\n");
        return -1;
    }
    memset(settings, 0, sizeof *settings);
    takeField(settings->deviceName, sizeof settings->deviceName,
              uci_get("system.system.SystemName"));

    char *proto = uci_get("network.lan.proto");
    settings->dhcpEnabled = proto != NULL && strcmp(proto, "static") == 0 ? 0 : 1;
    free_text(proto);

    char *resolvFile = uci_get("dhcp.@dnsmasq[0].resolvfile");
    if (resolvFile != NULL && strcmp(resolvFile, kAutoResolvFile) == 0)
        settings->autoResolver = 1;
    takeField(settings->dnsServer1, sizeof settings->dnsServer1,
              readNameServer(resolvFile != NULL ? resolvFile : "", 1));
    takeField(settings->dnsServer2, sizeof settings->dnsServer2,
              readNameServer(resolvFile != NULL ? resolvFile : "", 2));
    free_text(resolvFile);

    takeField(settings->ipAddress, sizeof settings->ipAddress, get_lan_ip_address());
    takeField(settings->subnetMask, sizeof settings->subnetMask,
              run_shell_command("ifconfig br-lan | grep 'Mask:' | sed -e 's/.*Mask://g' | "
                                "tr -d '\\n'",
                                100));
    takeField(settings->defaultGateway, sizeof settings->defaultGateway,
              run_shell_command("ip route | grep 'default via' | sed -e 's/.*via //g' | "
                                "sed -e 's/ .*//g' | tr -d '\\n'",
                                100));
    return 0;
}

/* Stages the record in UCI (no commit). */
static int write_network_settings(const NetworkSettings *settings)
{
    if (settings == NULL)
        return -1;
    uci_set("system.system.SystemName", settings->deviceName);
    uci_set("network.lan.ipaddr", settings->ipAddress);
    uci_set("network.lan.netmask", settings->subnetMask);
    uci_set("network.lan.gateway", settings->defaultGateway);
    uci_set("network.lan.proto", settings->dhcpEnabled != 0 ? "dhcp" : "static");
    char dns[sizeof settings->dnsServer1 + 1 + sizeof settings->dnsServer2];
    snprintf(dns, sizeof dns, "%s %s", settings->dnsServer1, settings->dnsServer2);
    uci_set("network.lan.dns", dns);
    uci_set("dhcp.@dnsmasq[0].resolvfile",
            settings->autoResolver == 1 ? kAutoResolvFile : kFixedResolvFile);
    return 0;
}

/* 1 when the requested LAN address would fall into the guest DHCP range
 * of an enabled guest network. */
static int collidesWithGuestRange(const NetworkSettings *settings)
{
    /* a missing option reads -1: counted as enabled */
    int enabled = uci_get_int("wireless.w0_index25.WLANEnable") != 0 ||
                  (g_support5G && uci_get_int("wireless.w1_index25.WLANEnable") != 0);
    if (!enabled)
        return 0;
    char *start = uci_get("dhcp.guest.start");
    char *stop = uci_get("dhcp.guest.dhcp_stop_addr");
    char *guestAddress = uci_get("network.guest.ipaddr"); /* read, not compared */
    char *guestMask = uci_get("network.guest.netmask");
    const char *address = settings->ipAddress;
    const char *mask = settings->subnetMask;
    int collides = bothIpInSameNetwork(address, start, mask) ||
                   bothIpInSameNetwork(address, start, guestMask) ||
                   bothIpInSameNetwork(address, stop, mask) ||
                   bothIpInSameNetwork(address, stop, guestMask);
    free_text(start);
    free_text(stop);
    free_text(guestAddress);
    free_text(guestMask);
    return collides;
}

/* Waits up to 10 seconds for the pending reply to leave the device; the
 * seconds waited, or -1. */
static int waitForPendingReply(const cJSON *reply)
{
    for (int waited = 0; waited < 10; waited++) {
        if (pendingAckReply() != reply)
            return waited;
        sleep(1);
    }
    /* the wait is over: the slot no longer refers to the reply, which the
     * sending thread deletes whenever it goes out */
    abandonPendingAckReply(reply);
    return -1;
}

/* Adds a getter's text and frees it (the runner's error text is kept). */
static void addOwnedText(cJSON *object, const char *name, char *text)
{
    jsonAddString(object, name, text);
    free_text(text);
}

/* ---- handlers ---- */

void dxGetAboutHandler(const cJSON *request)
{
    KC_DEBUG("=== START ===\n");
    if (deviceParams(request) == NULL) {
        replyRefusal(request, missingDeviceId());
        return;
    }
    cJSON *result = NULL;
    cJSON *reply = deviceResult(request, &result);
    jsonAddString(result, "macAddress", g_deviceMac);
    addOwnedText(result, "firmware", get_firmware_version(3));
    addOwnedText(result, "model", get_model_name());
    addOwnedText(result, "serviceTag", run_shell_command("sntool | tr -d '\\n'", 100));
    addOwnedText(result, "lanAddress", get_lan_ip_address());
    replyResult(reply);
    KC_DEBUG("=== END ===\n");
}

void dxGetNetworkSettingsHandler(const cJSON *request)
{
    KC_DEBUG("=== START ===\n");
    if (deviceParams(request) == NULL) {
        replyRefusal(request, missingDeviceId());
        return;
    }
    NetworkSettings *settings = &s_networkSettings;
    if (read_network_settings(settings) != 0)
        return;
    cJSON *result = NULL;
    cJSON *reply = deviceResult(request, &result);
    jsonAddString(result, "deviceName", settings->deviceName);
    jsonAddString(result, "deviceIpAddress", settings->ipAddress);
    jsonAddString(result, "deviceSubnetMask", settings->subnetMask);
    jsonAddString(result, "deviceDefaultGateway", settings->defaultGateway);
    jsonAddBool(result, "dhcpEnabled", settings->dhcpEnabled);
    jsonAddString(result, "dnsServer1", settings->dnsServer1);
    if (settings->dnsServer2[0] != '\0')
        jsonAddString(result, "dnsServer2", settings->dnsServer2);
    replyResult(reply);
    KC_DEBUG("=== END ===\n");
}

void dxSetNetworkSettingsHandler(const cJSON *request)
{
    KC_DEBUG("=== START ===\n");
    const cJSON *params = deviceParams(request);
    if (params == NULL) {
        replyRefusal(request, missingDeviceId());
        return;
    }
    const char *name = jsonGetString(params, "deviceName");
    const char *address = jsonGetString(params, "deviceIpAddress");
    const char *mask = jsonGetString(params, "deviceSubnetMask");
    const char *gateway = jsonGetString(params, "deviceDefaultGateway");
    const char *dns1 = jsonGetString(params, "dnsServer1");
    const char *dns2 = jsonGetString(params, "dnsServer2");
    int dhcp = jsonGetInt(params, "dhcpEnabled") != 0 ? 1 : 0;

    if (!dhcp && (address == NULL || mask == NULL || gateway == NULL || dns1 == NULL)) {
        replyRefusal(request, refusal(JSONRPC_INVALID_PARAMS));
        return;
    }
    NetworkSettings *settings = &s_networkSettings;
    if (read_network_settings(settings) != 0)
        return;
    if (name != NULL) {
        copyField(settings->deviceName, sizeof settings->deviceName, name);
        renameDevice(settings->deviceName);
    }
    if (address != NULL)
        copyField(settings->ipAddress, sizeof settings->ipAddress, address);
    if (mask != NULL)
        copyField(settings->subnetMask, sizeof settings->subnetMask, mask);
    if (gateway != NULL)
        copyField(settings->defaultGateway, sizeof settings->defaultGateway, gateway);
    if (!bothIpInSameNetwork(settings->ipAddress, settings->defaultGateway,
                             settings->subnetMask)) {
        replyRefusal(request, refusal(JSONRPC_INVALID_PARAMS));
        return;
    }
    if (collidesWithGuestRange(settings)) {
        replyRefusal(request, refusal(JSONRPC_INVALID_PARAMS));
        return;
    }
    if (dns1 != NULL)
        copyField(settings->dnsServer1, sizeof settings->dnsServer1, dns1);
    if (dns2 != NULL && dns2[0] != '\0')
        copyField(settings->dnsServer2, sizeof settings->dnsServer2, dns2);
    settings->dhcpEnabled = dhcp;
    settings->autoResolver = dhcp;
    if (write_network_settings(settings) != 0) {
        replyRefusal(request, refusal(KC_ERROR_DEVICE_STATE));
        return;
    }

    cJSON *result = NULL;
    cJSON *reply = deviceResult(request, &result);
    /* the sending thread clears the slot once this very reply is out */
    setPendingAckReply(reply);
    replyResult(reply);
    int waited = waitForPendingReply(reply);
    if (waited < 0) {
        KC_DEBUG("dxSetNetworkSettingsHandler: reply ack message timeout!\n");
        /* the one handler with a second reply: its success could not
         * leave, so 10001 follows it and nothing is applied */
        replyRefusal(request, refusal(KC_ERROR_DEVICE_STATE));
        return;
    }
    KC_DEBUG("dxSetNetworkSettingsHandler: reply ack is sent after waiting %d seconds in "
             "reply command queue\n",
             waited);
    cloud_action_apply();
    KC_DEBUG("=== END ===\n");
}
