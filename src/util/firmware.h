/*
 * Device-side helpers of the maintenance commands: the firmware update
 * through the device's own tool, and the restart of the LAN's DHCP client.
 */
#ifndef KC_UTIL_FIRMWARE_H
#define KC_UTIL_FIRMWARE_H

/* Longest image URL taken (longer ones are cut). */
#define FW_URL_MAX 127

/*
 * The URL escaped for the firmware command line: a backslash before each
 * of | & ; < > $ ( ) \ " ' and every other character as it is, from at
 * most FW_URL_MAX characters of url.  A new text the caller frees; NULL
 * for NULL.
 */
char *fw_escape_url(const char *url);

/*
 * Runs "/bin/cli.sh fwupgrade <escaped URL> " and waits for it (the tool
 * downloads, flashes and restarts the device).  An absent or empty URL is
 * reported and nothing runs.
 */
void fw_update(const char *url);

/* Starts "udhcpc -i br-lan -R" when the LAN should be on DHCP
 * ("network.lan.proto" is "dhcp") and no udhcpc runs. */
void assert_udhcpc_start(void);

#endif
