/*
 * The short miniupnpc call forms used by port forwarding compile against
 * the installed library and reach it with their arguments in place.
 */
#include <gtest/gtest.h>

#include "upnp/miniupnpc_compat.h"

TEST(UpnpCompat, ShortFormsHaveTheirLongStandingSignatures)
{
    // Each short form must be callable with exactly its classic argument list.
    struct UPNPDev *(*discover)(int, const char *, const char *, int) =
        [](int d, const char *m, const char *s, int p) { return upnpDiscover(d, m, s, p); };
    int (*entry)(const char *, const char *, const char *, const char *, char *, char *) =
        [](const char *c, const char *t, const char *e, const char *p, char *ic, char *ip) {
            return UPNP_GetSpecificPortMappingEntry(c, t, e, p, ic, ip);
        };
    int (*igd)(struct UPNPDev *, struct UPNPUrls *, struct IGDdatas *, char *, int) =
        [](struct UPNPDev *d, struct UPNPUrls *u, struct IGDdatas *g, char *l, int n) {
            return UPNP_GetValidIGD(d, u, g, l, n);
        };
    EXPECT_NE(nullptr, discover);
    EXPECT_NE(nullptr, entry);
    EXPECT_NE(nullptr, igd);
}

TEST(UpnpCompat, MappingEntryPassesArgumentsThrough)
{
    // Without an external port the library refuses before any network use.
    char client[16] = "";
    char port[6] = "";
    EXPECT_EQ(UPNPCOMMAND_INVALID_ARGS,
              UPNP_GetSpecificPortMappingEntry("http://127.0.0.1:1/ctl", "svc", NULL,
                                               "TCP", client, port));
}

TEST(UpnpCompat, GatewaySearchWithoutDevicesFindsNone)
{
    // An empty device list never yields a gateway, and touches no network.
    struct UPNPUrls urls = {};
    struct IGDdatas data = {};
    char lan[64] = "";
    EXPECT_EQ(0, UPNP_GetValidIGD(NULL, &urls, &data, lan, sizeof lan));
    FreeUPNPUrls(&urls);
}
