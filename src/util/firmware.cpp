/* Firmware update and the LAN's DHCP client. */
#define KC_MODULE "kapri_util.cpp"
#include "util/firmware.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "util/debug.h"
#include "util/shell.h"
#include "util/uci.h"
#include "util/text.h"

/* ---- helpers ---- */

/* The characters of a URL that get a backslash on the command line: the
 * shell's operators, quotes and expansions, the blank (one argument), the
 * glob characters and the comment sign. */
static const char kFwSpecial[] = "|&;<>$()\\\"'` *?[]~#";

int fw_url_acceptable(const char *url)
{
    if (url == NULL || url[0] == '\0')
        return 0;
    for (const unsigned char *p = (const unsigned char *)url; *p != '\0'; p++) {
        if (*p < 0x20 || *p == 0x7f)
            return 0;
    }
    return 1;
}

char *fw_escape_url(const char *url)
{
    if (url == NULL)
        return NULL;
    size_t n = strnlen(url, FW_URL_MAX);
    /* every character may take a backslash */
    char *escaped = static_cast<char *>(malloc(2 * n + 1));
    size_t at = 0;
    for (size_t i = 0; i < n; i++) {
        if (strchr(kFwSpecial, url[i]) != NULL)
            escaped[at++] = '\\';
        escaped[at++] = url[i];
    }
    escaped[at] = '\0';
    return escaped;
}

/* ---- firmware and DHCP ---- */

void fw_update(const char *url)
{
    if (!fw_url_acceptable(url)) {
        printf("\nfirmware URL error!\n");
        return;
    }
    char *escaped = fw_escape_url(url);
    char cmd[2 * FW_URL_MAX + 64];
    snprintf(cmd, sizeof cmd, "/bin/cli.sh fwupgrade %s ", escaped);
    free_text(escaped);
    KC_DEBUG("=== Download firmware and update, cmd = \"%s\" ===\n", cmd);
    run_system_command(cmd);
}

void assert_udhcpc_start(void)
{
    char *proto = uci_get("network.lan.proto");
    int dhcp = proto != NULL && strcmp(proto, "dhcp") == 0;
    free_text(proto);
    if (dhcp && is_process_running("udhcpc") == 0) {
        KC_DEBUG("execute system cmd [udhcpc -i br-lan -R]\n");
        run_system_command("udhcpc -i br-lan -R");
    }
}
