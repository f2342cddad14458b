/*
 * korvat-cloud: start-up and the main loop (the SIGTERM behaviour is in
 * sigterm.cpp).
 *
 *   korvat-cloud [-d] <device_server_url> <device_mac_address>
 *   korvat-cloud --help | -h | --version
 *
 * The main thread runs every request handler, one at a time, in the order
 * the requests arrived.
 */
#define KC_MODULE "nimb_client.cpp"
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "client/handlers.h"
#include "client/log_capture.h"
#include "client/sigterm.h"
#include "client/status_updates.h"
#include "client/timer.h"
#include "linux/thread.h"
#include "sdk/nimb_sdk.h"
#include "util/debug.h"
#include "util/shell.h"
#include "util/text.h"
#include "util/facts.h"
#include "util/settings.h"

static void printWithTime(const char *what)
{
    char *now = get_iso_timestamp(1);
    printf("[%s] %s\n", now, what);
    free_text(now);
}

static void onPingHook(void)
{
    run_system_command("echo 1 > /tmp/cloud_conn_state");
}

static void onCloseHook(void)
{
    printWithTime("ACK close.");
    run_system_command("echo 0 > /tmp/cloud_conn_state");
}

static void onReconnectionHook(void)
{
    printWithTime("ACK reconnection.");
    run_system_command("echo 1 > /tmp/cloud_conn_state");
}

int main(int argc, char **argv)
{
    /* Under a service manager or in tests stdout is a pipe or a file:
     * every line must appear when it is printed. */
    setvbuf(stdout, NULL, _IOLBF, 0);

    /* A single --help, -h or --version only prints and ends: nothing has
     * run yet.  Every other command line is as before (a lone other word
     * is a usage error). */
    if (argc == 2 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0)) {
        printf("Usage: %s [-d] <device_server_url> <device_mac_address>\n", argv[0]);
        printf("Cloud-management agent of the access point (version %s).\n"
               "  -d                  debug lines on standard output\n"
               "  device_server_url   ws://host[:port][/path] or wss://host[:port][/path]\n"
               "  device_mac_address  the device id of every reply\n"
               "  -h, --help          this text;  --version  the version\n",
               KC_VERSION);
        return 0;
    }
    if (argc == 2 && strcmp(argv[1], "--version") == 0) {
        printf("korvat-cloud %s\n", KC_VERSION);
        return 0;
    }
    if (argc < 3) {
        printf("Usage: %s [-d] <device_server_url> <device_mac_address>\n", argv[0]);
        return -1;
    }
    if (argc > 4) {
        /* Neither form: refuse instead of running with no URL or MAC. */
        printf("Usage: %s [-d] <device_server_url> <device_mac_address>\n", argv[0]);
        return -1;
    }
    const char *url;
    if (argc == 4) {
        g_debugFlag = strcmp(argv[1], "-d") == 0;
        url = argv[2];
        g_deviceMac = argv[3];
    } else {
        g_debugFlag = 0;
        url = argv[1];
        g_deviceMac = argv[2];
    }
    KC_DEBUG_AT(100, "Starting Korvat Cloud Client\n");
    /* the main thread's id, recorded before any other thread exists */
    startSigtermHandling(currentThreadId());
    run_system_command("echo 0 > /tmp/cloud_conn_state");
    load_settings_to_globals();
    stopLeftoverLogCapture();

    setReplySentHook(pendingAckReplySent);
    setMaintenanceTimer(timerHandler);
    setStatusUpdater(dsLogStatusUpdatesHandler);
    if (initConnection(url, g_deviceMac, NULL, NULL, onPingHook, onCloseHook,
                       onReconnectionHook) != 0) {
        /* none of the URL forms: no attempt could ever succeed */
        fprintf(stderr, "Invalid device server URL: %s\n", url);
        return -1;
    }

    for (;;) {
        cJSON *request = NULL;
        readJsonCommand(&request);
        int paused = 0;
        while (g_luciReloadPause) {
            sleep(1);
            paused = 1;
        }
        if (paused)
            sleep(5);
        KC_DEBUG_AT(126, "processing genericCommandHandler...\n");
        genericCommandHandler(request);
    }
}
