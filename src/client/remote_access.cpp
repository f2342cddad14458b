/*
 * Remote access to the device's web interface: the server opens it to the
 * internet for a limited time through a port mapping on the upstream
 * UPnP gateway ("dxEnableRemoteWebUiAccess"), and closes it again
 * ("dxDisableRemoteWebUiAccess"); the maintenance timer closes it when the
 * external web session has expired.
 *
 * Remote access is open while "upnpc.http.enable" is 1; "upnpc.http.
 * ext_port" then names the forwarded port.  A second enable opens a fresh
 * mapping first and closes the earlier one after its reply has gone, so
 * repeated enables move the access to a new port.
 */
#define KC_MODULE "nimb_client.cpp"
#include "client/handlers.h"
#include "client/timer.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "client/reply.h"
#include "json/envelope.h"
#include "json/accessors.h"
#include "sdk/nimb_sdk.h"
#include "upnp/upnp_helper.h"
#include "util/debug.h"
#include "util/shell.h"
#include "util/uci.h"
#include "util/text.h"
#include "util/settings.h"

static const char kRecordFile[] = "/tmp/luci-sessions/external/record_file";

/* ---- helpers ---- */

/* Set while an enable runs: the timer's expiry check waits for it. */
static std::atomic<int> s_enableInProgress{0};

/* Closes the mapping of an earlier enable (only one whose port is in the
 * range this agent uses). */
static void closePreviousForwarding(void)
{
    int oldPort = uci_get_int("upnpc.http.ext_port");
    if (uci_get_int("upnpc.http.enable") != 1) {
        KC_DEBUG("upnpc.http.enable = 0\n");
        return;
    }
    if (oldPort >= 49152 && oldPort <= 65535) {
        KC_DEBUG("close port[%d]\n", oldPort);
        deletePortForwarding(oldPort);
    }
}

static void recordOpenAccess(int externalPort)
{
    char cmd[128];
    snprintf(cmd, sizeof cmd, "uci set upnpc.http.ext_port=%d", externalPort);
    run_system_command(cmd);
    run_system_command("uci set upnpc.http.enable=1");
    run_system_command("uci commit upnpc.http.enable");
    if (access("/tmp/luci-sessions/external", F_OK) != 0) {
        run_system_command("mkdir /tmp/luci-sessions");
        run_system_command("chmod 700 /tmp/luci-sessions");
        run_system_command("mkdir /tmp/luci-sessions/external");
        run_system_command("chmod 700 /tmp/luci-sessions/external");
    }
    snprintf(cmd, sizeof cmd, "touch %s", kRecordFile);
    run_system_command(cmd);
}

/* ---- handlers ---- */

void dxKorvatUpdateEnableRemoteWebUiAccessHandler(const cJSON *request)
{
    KC_DEBUG("=== START ===\n");
    const cJSON *params = deviceParams(request);
    if (params == NULL) {
        replyRefusal(request, missingDeviceId());
        return;
    }
    const cJSON *protocol = jsonGetItem(params, "protocol");
    if (protocol != NULL &&
        !(cJSON_IsString(protocol) && strcmp(protocol->valuestring, "http") == 0)) {
        replyRefusal(request, refusal(KC_ERROR_PROTOCOL_UNSUPPORTED));
        return;
    }
    s_enableInProgress = 1;
    int timeout = jsonGetInt(params, "timeout");
    g_remoteAccessTimeout = timeout;
    uci_set_int("korvatCloud.korvatCloud.remote_access_timeout", timeout);
    run_system_command("uci commit korvatCloud.korvatCloud.remote_access_timeout");

    char *portText = run_shell_command("uci get httpd.httpd.port", 128);
    int webPort = atoi(portText);
    free_text(portText);

    char externalIp[16];
    int externalPort = 0;
    int added = addPortForwarding(webPort, timeout, externalIp, &externalPort);
    if (added != 0) {
        replyRefusal(request, refusal(added == -1 ? KC_ERROR_NOT_UPNP_ROUTER
                                              : KC_ERROR_ROUTER_REFUSED));
        s_enableInProgress = 0;
        return;
    }
    KC_DEBUG("add upnp port(%d).\n", externalPort);
    char externalPortText[8];
    int retCode = snprintf(externalPortText, sizeof externalPortText, "%d", externalPort);
    KC_ASSERT(retCode > 0, "retCode > 0");

    /* the reply leaves before the device is updated */
    cJSON *result = NULL;
    cJSON *reply = deviceResult(request, &result);
    jsonAddString(result, "protocol", "http");
    jsonAddString(result, "ipAddress", externalIp);
    jsonAddString(result, "port", externalPortText);
    replyResult(reply);

    closePreviousForwarding();
    recordOpenAccess(externalPort);
    s_enableInProgress = 0;
    KC_DEBUG("=== END ===\n");
}

void dxUpdateDisableRemoteWebUiAccessHandler(const cJSON *request)
{
    KC_DEBUG("=== START ===\n");
    const cJSON *params = jsonGetItem(request, "params");
    const char *port = jsonGetString(params, "port");
    if (jsonGetItem(params, "deviceId") == NULL || jsonGetString(params, "ipAddress") == NULL ||
        port == NULL) {
        replyRefusal(request, refusal(JSONRPC_INVALID_PARAMS));
        return;
    }
    /* the result is not looked at; the address is not compared */
    deletePortForwarding(atoi(port));
    uci_set("upnpc.http.enable", "0");
    run_system_command("uci commit upnpc.http.enable");
    replyDeviceId(request);
    KC_DEBUG("=== END ===\n");
}

/* ---- periodic check ---- */

/* Once the external web session has expired, the mapping goes and remote
 * access is closed (a check of the utility module, as its lines say). */
void close_timeout_upnp_port(void)
{
    int timeout = g_remoteAccessTimeout;
    if (uci_get_int("upnpc.http.enable") != 1 || timeout == 0)
        return;
    char cmd[128];
    snprintf(cmd, sizeof cmd, "/usr/bin/lua %s %d | tr -d '\\n'", "/usr/sbin/session_timeout.lua",
             timeout);
    char *out = run_shell_command(cmd, 3);
    int verdict = atoi(out);
    free_text(out);
    if (verdict == 0)
        return;
    int port = uci_get_int("upnpc.http.ext_port");
    deletePortForwarding(port);
    KC_DEBUG_MODULE("kapri_util.cpp", "delete upnp port(%d).\n", port);
    uci_set_int("upnpc.http.enable", 0);
    run_system_command("uci commit upnpc.http.enable");
    snprintf(cmd, sizeof cmd, "rm %s", kRecordFile);
    run_system_command(cmd);
}

void remoteAccessExpiryCheck(void)
{
    if (g_remoteAccessTimeout > 0 && !s_enableInProgress)
        close_timeout_upnp_port();
}
