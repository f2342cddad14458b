/*
 * The method table and the envelope checks in front of it.  Methods are
 * matched exactly (case-sensitive), first match wins; a method that has no
 * handler answers -32601.
 */
#define KC_MODULE "nimb_client.cpp"
#include "client/handlers.h"

#include <cstdio>
#include <cstring>

#include "client/reply.h"
#include "json/envelope.h"
#include "json/accessors.h"

struct MethodEntry {
    const char *method;
    CommandHandler handler;
};

/*
 * In the published order.  The family of each handler is named at its
 * right; a family's rows are enabled when its file (src/client/) is in.
 */
static const MethodEntry kMethods[] = {
    {"dxGetAbout", dxGetAboutHandler},                          /* settings */
    {"dxGetNetworkSettings", dxGetNetworkSettingsHandler},      /* settings */
    {"dxSetNetworkSettings", dxSetNetworkSettingsHandler},      /* settings */
    {"dxGetTimeSettings", dxGetTimeSettingsHandler},            /* time */
    {"dxSetTimeSettings", dxSetTimeSettingsHandler},            /* time */
    {"dxResetDevice", dxResetDeviceHandler},                    /* maintenance */
    {"dxEnableRemoteWebUiAccess", dxKorvatUpdateEnableRemoteWebUiAccessHandler}, /* remote access */
    {"dxDisableRemoteWebUiAccess", dxUpdateDisableRemoteWebUiAccessHandler},     /* remote access */
    {"dxUpdateFirmware", dxUpdateFirmwareHandler},              /* maintenance */
    {"dxStreamSystemLogs", dxStreamSystemLogsHandler},          /* maintenance */
    {"dxSetLoggingMode", dxSetLoggingModeHandler},              /* maintenance */
    {"dxGetStatusUpdateFrequency", dxGetStatusUpdateFrequencyHandler}, /* maintenance */
    {"dxSetStatusUpdateFrequency", dxSetStatusUpdateFrequencyHandler}, /* maintenance */
    {"dxSetCloudServerUrl", dxSetCloudServerUrlHandler},        /* maintenance */
    {"vekGetSystemConfig", vekGetSystemConfigHandler},          /* access point configuration */
    {"vekSetSystemConfig", vekSetSystemConfigHandler},          /* access point configuration */
    {"vekGetStatus", vekGetStatusHandler},                      /* access point status */
    {"vekGetLanStatus", vekGetLanStatusHandler},                /* access point status */
    {"vekGetRadioStatus", vekGetRadioStatusHandler},            /* access point status */
    {"vekGetGuestNetworkStatus", vekGetGuestNetworkStatusHandler}, /* access point status */
    {"vekGetNetworkStatus", vekGetNetworkStatusHandler},        /* access point status */
    {"vekGetClientStatus", vekGetClientStatusHandler},          /* access point status */
    {"vekGetRadioConfig", vekGetRadioConfigHandler},            /* access point configuration */
    {"vekGetNetworkConfig", vekGetNetworkConfigHandler},        /* access point configuration */
    {"vekSetNetworkConfig", vekSetNetworkConfigHandler},        /* wireless networks */
    {"vekGetClientList", vekGetClientListHandler},              /* guest and clients */
    {"vekGetGuestNetworkConfig", vekGetGuestNetworkConfigHandler}, /* guest and clients */
    {"vekSetGuestNetworkConfig", vekSetGuestNetworkConfigHandler}, /* guest and clients */
    {"vekAddNetwork", vekAddNetworkHandler},                    /* wireless networks */
    {"vekDeleteNetwork", vekDeleteNetworkHandler},              /* wireless networks */
};

void genericCommandHandler(cJSON *request)
{
    const char *version = jsonGetString(request, "jsonrpc");
    const char *method = jsonGetString(request, "method");
    const char *id = jsonGetString(request, "id");
    const cJSON *params = jsonGetItem(request, "params");

    if (version == NULL || method == NULL || id == NULL || params == NULL) {
        printf("Invalid JSON command.\n");
        replyRefusal(request, refusal(JSONRPC_INVALID_REQUEST));
        jsonDelete(request);
        return;
    }
    if (strcmp(version, "2.0") != 0) {
        printf("Invalid JSONRPC version.\n");
        replyRefusal(request, refusal(JSONRPC_INTERNAL_ERROR));
        jsonDelete(request);
        return;
    }
    for (const MethodEntry &entry : kMethods) {
        if (strcmp(method, entry.method) == 0) {
            entry.handler(request);
            jsonDelete(request);
            return;
        }
    }
    printf("Command handler not yet implemented for: %s\n", method);
    replyRefusal(request, refusal(JSONRPC_METHOD_NOT_FOUND));
    jsonDelete(request);
}
