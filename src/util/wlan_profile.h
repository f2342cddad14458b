/*
 * The wireless networks of the access point as kept in the UCI package
 * "wireless", and the helpers with which the network, add/delete and guest
 * commands read and edit them.
 *
 * Radios and slots: radio 0 is "wifi0" (2.4 GHz), radio 1 is "wifi1"
 * (5 GHz); each has eight network slots 0..7 whose interface sections are
 * "w0_index%d" and "w1_index%d".  A request's networkIndex 0..7 addresses
 * radio 0, 50..57 radio 1 (slot = index modulo 10).  The guest networks
 * live outside the slots, in "w0_index25" and "w1_index25".
 *
 * Three list options say which slots are in use, each plain text edited as
 * a whole (read with "uci get ... | tr -d '\n'", rebuilt, set again):
 *   wireless.wifi%d.wlanlist       slots in use, single digits: "0,1,3"
 *   wireless.wifi%d.enlist         enable flag per wlanlist entry: "1,0,1"
 *   wireless.wifi0.network_profile the networks as the user sees them:
 *                                  "w0_index0:w1_index0,w0_index1,w1_index2"
 * A profile entry "w0_index%d:w1_index%d" pairs one network on both radios;
 * the other half is the network's brother.
 *
 * Buffer limits are part of the behaviour and cut long data: appended and
 * rebuilt texts are at most 255 characters (256-byte buffers); the list
 * reads of getFreeWlanIndex and addWlanIndex take up to 16384 bytes, those
 * of addNetworkProfile, removeNetworkProfile and removeWlanIndex 256.
 *
 * None of these helpers commits or applies anything.
 *
 * Ownership: texts returned here are new heap texts the caller releases
 * with free_text (util/text.h); the helpers release the shell output they
 * read themselves.  Texts passed in are only read.
 */
#ifndef KC_UTIL_WLAN_PROFILE_H
#define KC_UTIL_WLAN_PROFILE_H

#include <cstddef>

/* Slots per radio; sizes and read limits of the list edits. */
#define WLAN_SLOT_COUNT 8
#define WLAN_RESULT_SIZE 256
#define WLAN_LIST_READ_LIMIT 16384
#define WLAN_PROFILE_READ_LIMIT 256

/* A RADIUS port that was not given (the value the JSON accessors read for
 * an absent member). */
#define WLAN_ABSENT_PORT (-999)

/* The refusal text of the operation-mode gate. */
#define WLAN_NON_AP_MODE_TEXT "This method is not supported in Non-AP operation mode."

/* ---- list and profile editing ---- */

/* A new buffer of size bytes: oriStr, then appendStr, every
 * newline dropped, cut to size - 1 characters.  NULL texts read as empty. */
char *appendToString(const char *oriStr, const char *appendStr, int size);

/* Lowest slot 0..7 missing from the radio's wlanlist; -1 when all are used. */
int getFreeWlanIndex(int radio);

/* Appends ",slot" to the radio's wlanlist and ",1" to its enlist. */
void addWlanIndex(int radio, int slot);

/* Records a new network: mode 0 on radio 0 (slot0), mode 1 on radio 1
 * (slot1), any other mode on both as a pair; appends its profile entry.
 * Returns 0. */
int addNetworkProfile(int mode, int slot0, int slot1);

/* Drops every profile entry that contains text (a substring test: removing
 * "w0_index2" also drops "w0_index2:w1_index4", the whole pair).  Returns 0. */
int removeNetworkProfile(const char *text);

/* Drops the slot from the radio's wlanlist and the enable flag at the same
 * position from its enlist.  -1, with nothing written, when the slot is not
 * in the wlanlist; else 0. */
int removeWlanIndex(int radio, int slot);

/* Removes the network of section name ("w0_index3") from the profile and
 * its radio's lists.  -1 for NULL; else 0 (a name whose radio is not 0 or 1,
 * or too short to hold a slot digit, changes nothing). */
int removeNetwork(const char *section);

/* Sets the enable flag of section's slot in enlist (by the slot's position
 * in wlanlist) to "1"/"0" and writes the enlist to path, also when the slot
 * is not listed.  -1, with nothing written, when either list text is NULL or
 * empty; else 1. */
int setEnlistFlag(const char *enlist, const char *wlanlist, const char *section,
                  int enabled, const char *path);

/* The section paired with section in profile (which is split in place), as
 * a new text without newlines; NULL when the network is not paired. */
char *getBrotherIndex(const char *section, char *profile);

/* Where the "uci_path = %s" debug line of a write is printed from: the
 * module and function it names, and its line.  A write with kUntraced
 * (module NULL) prints no line. */
struct OptionTrace {
    const char *module;
    const char *func;
    int line;
};
inline const OptionTrace kUntraced = {NULL, NULL, 0};

/* The one setter of the wireless networks' options: uci set
 * wireless.SECTION.OPTION="VALUE" (a text, as uci_set writes it) or
 * wireless.SECTION.OPTION=N (a number, as uci_set_int), after the
 * "uci_path = %s" debug line when a trace is given.  A NULL value text is
 * not written. */
void setWirelessOption(const char *section, const char *option, const char *value,
                       const OptionTrace &trace = kUntraced);
void setWirelessOption(const char *section, const char *option, int value,
                       const OptionTrace &trace = kUntraced);

/* Writes the security of section: the encryption value, then for the
 * pre-shared key modes the key, for the RADIUS modes the server, the port
 * (unless port is WLAN_ABSENT_PORT) and the secret.  Options of other modes
 * stay as they were.  NULL texts are not written. */
void setWifiSecurity(const char *section, const char *encryption, const char *password,
                     const char *radiusServer, int radiusPort, const char *radiusSecret);

/* ---- checks ---- */

/* 1 when the SSID is 1 to 32 bytes long. */
int isValidSsid(const char *ssid);

/* 1 when the radio works as access point: radios other than 0 and 1 do; a
 * missing or empty wireless.wifi%d.opmode counts as "ap". */
int isApOpMode(int radio);
/* isApOpMode of the radio of a request networkIndex (below 50: radio 0;
 * 50 and above: radio 1); a negative index counts as access point. */
int isApOpModeForIndex(int networkIndex);
/* The operation-mode gate of the configuration changes: 1 when radio 0 is
 * an access point and, with a 5 GHz radio present, radio 1 is too. */
int isApOpModeAllowed(void);

/* 1 for networkIndex 0..7, and 50..57 when the 5 GHz radio is present. */
int isValidNetworkIndex(int networkIndex);
/* Radio of a networkIndex: 0 below 8, else 1. */
int wlanRadioOfIndex(int networkIndex);
/* "w0_index%d" (networkIndex below 8) or "w1_index%d" (modulo 10) into out. */
void wlanSectionName(int networkIndex, char *out, size_t size);

/* ---- security modes ---- */

/* The UCI "encryption" value of a request's security name:
 *   "WPA2-PSK" -> "psk2 aes", "WPA-PSK MIXED" -> "psk-mixed tkip+aes",
 *   "OPEN" -> "none", "WPA2" -> "wpa2 aes", "WPA MIXED" -> "wpa-mixed tkip+aes".
 * The five UCI values are given back as they are; NULL for anything else.
 * The result is a constant text (never freed). */
const char *wifiSecurityUciValue(const char *name);
/* 1 for the request names "WPA2-PSK" and "WPA-PSK MIXED". */
int isPskSecurityName(const char *name);
/* 1 for the request names "WPA2" and "WPA MIXED". */
int isRadiusSecurityName(const char *name);
/* 1 for the UCI values "psk2 aes" and "psk-mixed tkip+aes". */
int isPskEncryption(const char *encryption);
/* 1 for the UCI values "wpa2 aes" and "wpa-mixed tkip+aes". */
int isRadiusEncryption(const char *encryption);

/* The pass-phrase is 8 to 64 bytes; a 64-byte one must be hexadecimal
 * (either case).  1 when key keeps to that; NULL breaks it. */
int isValidPassphrase(const char *key);

/* The RADIUS settings, checked in this order: the server is given; the
 * secret is given, not empty and shorter than 65 bytes; the port, unless
 * WLAN_ABSENT_PORT, is 1 to 65535. */
enum RadiusCheck {
    RADIUS_OK = 0,
    RADIUS_NO_SERVER = 1,
    RADIUS_BAD_SECRET = 2,
    RADIUS_BAD_PORT = 3,
};
int checkRadiusSettings(const char *server, const char *secret, int port);

#endif
