/*
 * Request handlers and the dispatcher.  A handler reads "params" itself,
 * queues its own reply and never deletes or keeps the request.
 */
#ifndef KC_CLIENT_HANDLERS_H
#define KC_CLIENT_HANDLERS_H

struct cJSON;

typedef void (*CommandHandler)(const cJSON *request);

/* The device MAC address from the command line: every reply's deviceId. */
extern const char *g_deviceMac;

/* Checks the envelope, runs the handler, deletes the request. */
void genericCommandHandler(cJSON *request);


/* ---- identity and LAN settings (settings.cpp) ---- */

/*
 * The dxSetNetworkSettings reply that must leave the device before the new
 * settings are applied.  The handler sets the slot before it queues the
 * reply; the sending thread that writes a reply with the same "id" text
 * clears it through pendingAckReplySent (the connection manager's
 * reply-sent hook, installed by main); a handler whose wait ends abandons
 * it.  The slot keeps a copy of the id: the tree itself is never read
 * through the slot, since the sending thread deletes it once sent.
 */
void setPendingAckReply(const cJSON *reply);
/* The reply in the slot (to compare with, not to read), or NULL. */
const cJSON *pendingAckReply(void);
/* Empties the slot if it still holds reply. */
void abandonPendingAckReply(const cJSON *reply);
/* 1 (and the slot emptied) when sent has the pending reply's "id" text. */
int pendingAckReplySent(const cJSON *sent);

void dxGetAboutHandler(const cJSON *request);
void dxGetNetworkSettingsHandler(const cJSON *request);
void dxSetNetworkSettingsHandler(const cJSON *request);

/* ---- time settings (time.cpp) ---- */

void dxGetTimeSettingsHandler(const cJSON *request);
void dxSetTimeSettingsHandler(const cJSON *request);

/* ---- device maintenance (maintenance.cpp) ---- */

void dxResetDeviceHandler(const cJSON *request);
void dxUpdateFirmwareHandler(const cJSON *request);
void dxStreamSystemLogsHandler(const cJSON *request);
void dxSetLoggingModeHandler(const cJSON *request);
void dxGetStatusUpdateFrequencyHandler(const cJSON *request);
void dxSetStatusUpdateFrequencyHandler(const cJSON *request);
void dxSetCloudServerUrlHandler(const cJSON *request);

/* ---- remote web access (remote_access.cpp) ---- */

void dxKorvatUpdateEnableRemoteWebUiAccessHandler(const cJSON *request);
void dxUpdateDisableRemoteWebUiAccessHandler(const cJSON *request);
/* Closes remote access once the external web session has expired. */
void close_timeout_upnp_port(void);

/* ---- access point status (ap_status.cpp) ---- */

void vekGetStatusHandler(const cJSON *request);
void vekGetLanStatusHandler(const cJSON *request);
void vekGetRadioStatusHandler(const cJSON *request);
void vekGetGuestNetworkStatusHandler(const cJSON *request);
void vekGetNetworkStatusHandler(const cJSON *request);
void vekGetClientStatusHandler(const cJSON *request);

/* ---- access point configuration (ap_config.cpp) ---- */

void vekGetSystemConfigHandler(const cJSON *request);
void vekSetSystemConfigHandler(const cJSON *request);
void vekGetRadioConfigHandler(const cJSON *request);
void vekGetNetworkConfigHandler(const cJSON *request);

/* ---- wireless networks (wireless.cpp) ---- */

void vekSetNetworkConfigHandler(const cJSON *request);
void vekAddNetworkHandler(const cJSON *request);
void vekDeleteNetworkHandler(const cJSON *request);

/* ---- guest network and clients (guest.cpp) ---- */

void vekGetClientListHandler(const cJSON *request);
void vekGetGuestNetworkConfigHandler(const cJSON *request);
void vekSetGuestNetworkConfigHandler(const cJSON *request);

#endif
