/* Renaming the device: SNMP first, then the system, each committed. */
#define KC_MODULE "kapri_util.cpp"
#include "util/device_name.h"

#include <cstring>

#include "util/text.h"
#include "util/uci.h"

int renameDevice(const char *name)
{
    char *current = uci_get("system.system.SystemName");
    int changed = current != NULL && strcmp(current, name) != 0;
    free_text(current);
    if (!changed)
        return 0;
    uci_set("snmpd.snmpv2.sysName", name);
    uci_commit(NULL);
    uci_set("system.system.SystemName", name);
    uci_commit(NULL);
    return 1;
}
