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
 * of | & ; < > $ ( ) \ " ' ` * ? [ ] ~ #, the blank included, and every
 * other character as it is, from at most FW_URL_MAX characters of url, so
 * that the tool gets the URL as one literal argument.  A new text the
 * caller releases with free_text (util/text.h); NULL for NULL.
 */
char *fw_escape_url(const char *url);

/* 1 when url can go to the firmware tool: present, not empty and free of
 * control characters (a newline or tab would end or split the command). */
int fw_url_acceptable(const char *url);

/*
 * Runs "/bin/cli.sh fwupgrade <escaped URL> " and waits for it (the tool
 * downloads, flashes and restarts the device).  A URL that is absent,
 * empty or holds a control character is reported and nothing runs.
 */
void fw_update(const char *url);

/* Starts "udhcpc -i br-lan -R" when the LAN should be on DHCP
 * ("network.lan.proto" is "dhcp") and no udhcpc runs. */
void assert_udhcpc_start(void);

#endif
