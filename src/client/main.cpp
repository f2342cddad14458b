/*
 * korvat-cloud: start-up, the SIGTERM handler and the main loop.
 *
 *   korvat-cloud [-d] <device_server_url> <device_mac_address>
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
#include "linux/thread.h"
#include "sdk/nimb_sdk.h"
#include "util/debug.h"
#include "util/kapri_util.h"

/* Kernel thread id of the main thread (see linux/thread.h). */
static int s_mainProcessId = 0;

static void printWithTime(const char *what)
{
    char *now = get_iso_timestamp(1);
    printf("[%s] %s\n", now, what);
    free_shell_output(now);
}

static void onPingHook(void)
{
    system("echo 1 > /tmp/cloud_conn_state");
}

static void onCloseHook(void)
{
    printWithTime("ACK close.");
    system("echo 0 > /tmp/cloud_conn_state");
}

static void onReconnectionHook(void)
{
    printWithTime("ACK reconnection.");
    system("echo 1 > /tmp/cloud_conn_state");
}

/*
 * The thread that takes the signal decides what happens.  On the device
 * "kill <pid>" reaches exactly the thread with that pid; here kill() on the
 * process may be taken by any thread, so a SIGTERM meant for one thread is
 * sent to it with tgkill (the tests do so).
 */
static void kapri_sig_term(int signum)
{
    (void)signum;
    int pid = currentThreadId();
    if (pid == s_mainProcessId) {
        KC_DEBUG_AT(33, "close web socket.\n");
        if (g_wbsConnection != NULL)
            wbsClose(g_wbsConnection);
    }
    FILE *file = access("/tmp/cloud_timer_pid", F_OK) == 0
                     ? fopen("/tmp/cloud_timer_pid", "r")
                     : NULL;
    if (file == NULL) {
        /* The arguments stand in this order in every such message. */
        printf("Func %s: File %s doesn't exist.\n", "/tmp/cloud_timer_pid",
               "kapri_sig_term");
        return;
    }
    char line[1024];
    while (fgets(line, sizeof line, file) != NULL) {
        if (atoi(line) == pid) {
            backup_all_queues();
            system("killall -9 korvat-cloud");
        }
    }
    fclose(file);
}

int main(int argc, char **argv)
{
    /* Under a service manager or in tests stdout is a pipe or a file:
     * every line must appear when it is printed. */
    setvbuf(stdout, NULL, _IOLBF, 0);

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
    s_mainProcessId = currentThreadId();
    signal(SIGTERM, kapri_sig_term);
    system("echo 0 > /tmp/cloud_conn_state");
    load_settings_to_globals();

    initConnection(url, g_deviceMac, NULL, NULL, onPingHook, onCloseHook,
                   onReconnectionHook);

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
