/*
 * The device's name as the system and SNMP know it.
 *
 * Ownership: the name is only read.  The change is committed at once
 * (each commit commits every package).
 */
#ifndef KC_UTIL_DEVICE_NAME_H
#define KC_UTIL_DEVICE_NAME_H

/* When "system.system.SystemName" reads back as a text other than name
 * (the shell runner's "ERROR" counts as such a text; no answer at all does
 * not), sets "snmpd.snmpv2.sysName" and commits, then
 * "system.system.SystemName" and commits.  1 when it renamed, else 0. */
int renameDevice(const char *name);

#endif
