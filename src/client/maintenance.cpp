/*
 * Device maintenance: "dxResetDevice", "dxUpdateFirmware",
 * "dxStreamSystemLogs", "dxSetLoggingMode", "dxGetStatusUpdateFrequency",
 * "dxSetStatusUpdateFrequency" and "dxSetCloudServerUrl".
 *
 * A success reply holds only the device id.  Where a command disrupts the
 * device (reboot, firmware flash, restart of the agent, apply) the reply is
 * queued first and the action follows.  "dxStreamSystemLogs" is the odd
 * one: it switches streaming before it looks at "deviceId" and sends no
 * reply of its own; the maintenance timer sends the captured lines as
 * results of that request (events.cpp).
 */
#define KC_MODULE "nimb_client.cpp"
#include "client/handlers.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "client/reply.h"
#include "client/events.h"
#include "client/log_capture.h"
#include "json/envelope.h"
#include "json/accessors.h"
#include "sdk/nimb_sdk.h"
#include "sdk/queue_backup.h"
#include "util/apply.h"
#include "util/debug.h"
#include "util/firmware.h"
#include "util/shell.h"
#include "util/uci.h"

/* ---- helpers ---- */

/*
 * Keeps the request "id" as the log stream's: a string as it is, a number
 * as its decimal text (cJSON's printing: 7 gives "7", 2.5 gives "2.5");
 * anything else as "" (no stream).
 */
static void keepStreamId(const cJSON *request)
{
    const cJSON *id = jsonGetItem(request, "id");
    if (cJSON_IsString(id)) {
        setLogStreamId(id->valuestring);
    } else if (cJSON_IsNumber(id)) {
        char *text = jsonPrint(id);
        setLogStreamId(text != NULL ? text : "");
        jsonFreeText(text);
    } else {
        setLogStreamId("");
    }
}

/* ---- handlers ---- */

void dxResetDeviceHandler(const cJSON *request)
{
    KC_DEBUG("=== START ===\n");
    if (deviceParams(request) == NULL) {
        replyRefusal(request, missingDeviceId());
        return;
    }
    replyDeviceId(request);
    reboot_with_backup();
    KC_DEBUG("=== END ===\n");
}

void dxUpdateFirmwareHandler(const cJSON *request)
{
    KC_DEBUG("=== START ===\n");
    const cJSON *params = deviceParams(request);
    if (params == NULL) {
        replyRefusal(request, missingDeviceId());
        return;
    }
    const char *url = jsonGetString(params, "url");
    /* a control character (newline, tab, ...) would end or split the
     * firmware command line: such a URL is refused like a missing one */
    if (!fw_url_acceptable(url)) {
        replyRefusal(request, refusal(JSONRPC_INVALID_PARAMS));
        return;
    }
    int saveAndRestore = jsonGetInt(params, "saveAndRestore");
    replyDeviceId(request);
    if (saveAndRestore != 0)
        KC_DEBUG("Save configurations before firmware update...(Not Implement Yet!)\n");
    else
        KC_DEBUG("No need to save configurations before firmware update...(Not Implement "
                 "Yet!)\n");
    fw_update(url);
    KC_DEBUG("=== END ===\n");
}

void dxStreamSystemLogsHandler(const cJSON *request)
{
    KC_DEBUG("=== START ===\n");
    const cJSON *params = jsonGetItem(request, "params");
    const cJSON *deviceId = jsonGetItem(params, "deviceId");
    int enable = jsonGetInt(params, "enable");
    if (enable != 0) {
        setLogStreaming(1);
        startLogCapture();
    } else {
        setLogStreaming(0);
        stopLogCapture();
    }
    /* streaming is switched whatever the parameters say */
    if (deviceId == NULL) {
        replyRefusal(request, refusal(JSONRPC_INVALID_PARAMS));
        return;
    }
    /* no reply on success: the streamed lines are the results */
    keepStreamId(request);
    KC_DEBUG("=== END ===\n");
}

void dxSetLoggingModeHandler(const cJSON *request)
{
    KC_DEBUG("=== START ===\n");
    const cJSON *params = deviceParams(request);
    if (params == NULL) {
        replyRefusal(request, missingDeviceId());
        return;
    }
    const char *mode = jsonGetString(params, "mode");
    int production = mode != NULL && strcmp(mode, "PRODUCTION") == 0;
    int debug = mode != NULL && strcmp(mode, "DEBUG") == 0;
    if (!production && !debug) {
        replyRefusal(request, refusal(JSONRPC_INVALID_PARAMS));
        return;
    }
    uci_set("korvatCloud.korvatCloud.syslog_mode", mode);
    run_system_command(production ? "echo 0 > /proc/sys/kernel/printk"
                                  : "echo 7 > /proc/sys/kernel/printk");
    run_system_command("uci commit korvatCloud.korvatCloud.syslog_mode");
    replyDeviceId(request);
    cloud_action_apply();
    KC_DEBUG("=== END ===\n");
}

void dxGetStatusUpdateFrequencyHandler(const cJSON *request)
{
    KC_DEBUG("=== START ===\n");
    if (deviceParams(request) == NULL) {
        replyRefusal(request, missingDeviceId());
        return;
    }
    cJSON *result = NULL;
    cJSON *reply = deviceResult(request, &result);
    jsonAddInt(result, "frequency", uci_get_int("korvatCloud.korvatCloud.auto_update"));
    replyResult(reply);
    KC_DEBUG("=== END ===\n");
}

void dxSetStatusUpdateFrequencyHandler(const cJSON *request)
{
    KC_DEBUG("=== START ===\n");
    const cJSON *params = deviceParams(request);
    if (params == NULL) {
        replyRefusal(request, missingDeviceId());
        return;
    }
    int frequency = jsonGetInt(params, "frequency");
    if (frequency <= 0) {
        replyRefusal(request, refusal(JSONRPC_INVALID_PARAMS));
        return;
    }
    replyDeviceId(request);
    uci_set_int("korvatCloud.korvatCloud.auto_update", frequency);
    run_system_command("uci commit korvatCloud.korvatCloud.auto_update");
    KC_DEBUG("=== END ===\n");
}

void dxSetCloudServerUrlHandler(const cJSON *request)
{
    KC_DEBUG("=== START ===\n");
    const cJSON *params = deviceParams(request);
    if (params == NULL) {
        replyRefusal(request, missingDeviceId());
        return;
    }
    const char *url = jsonGetString(params, "url");
    int port = jsonGetInt(params, "port");
    if (url == NULL || port < 1 || port > 65535) {
        replyRefusal(request, refusal(JSONRPC_INVALID_PARAMS));
        return;
    }
    replyDeviceId(request);
    uci_set_int("korvatCloud.korvatCloud.port_number", port);
    /* every commit commits all packages, whatever name it is given */
    uci_commit("korvatCloud.korvatCloud.auto_update");
    uci_set("korvatCloud.korvatCloud.server_url", url);
    uci_commit("korvatCloud.korvatCloud.auto_update");
    /* the agent restarts itself in the background */
    run_system_command("/etc/init.d/korvatCloud restart &");
    KC_DEBUG("=== END ===\n");
}
