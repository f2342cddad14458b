/*
 * Port forwarding is written against the long-standing miniupnpc calls:
 *   upnpDiscover(delay, multicastif, minissdpdsock, sameport)
 *   UPNP_GetValidIGD(devlist, urls, data, lanaddr, lanaddrlen)
 *   UPNP_GetSpecificPortMappingEntry(controlURL, servicetype, extPort, proto,
 *                                    intClient, intPort)
 * miniupnpc 2.x added arguments to these.  This header keeps the short
 * forms by mapping each to the current call with the defaults the short
 * form always meant: IPv4, TTL 2, no remote host, no description.
 * Include it instead of the miniupnpc headers.
 */
#ifndef KC_UPNP_MINIUPNPC_COMPAT_H
#define KC_UPNP_MINIUPNPC_COMPAT_H

#include <miniupnpc/miniupnpc.h>
#include <miniupnpc/upnpcommands.h>

#if defined(MINIUPNPC_API_VERSION) && MINIUPNPC_API_VERSION >= 14

static inline struct UPNPDev *kcUpnpDiscover(int delay, const char *multicastif,
                                             const char *minissdpdsock,
                                             int sameport)
{
    int error = 0;
    return upnpDiscover(delay, multicastif, minissdpdsock, sameport, 0, 2,
                        &error);
}
#define upnpDiscover(delay, multicastif, minissdpdsock, sameport) \
    kcUpnpDiscover((delay), (multicastif), (minissdpdsock), (sameport))

static inline int kcGetSpecificPortMappingEntry(const char *controlURL,
                                                const char *servicetype,
                                                const char *extPort,
                                                const char *proto,
                                                char *intClient, char *intPort)
{
    char desc[80];
    char enabled[6];
    char leaseDuration[16];
    return UPNP_GetSpecificPortMappingEntry(controlURL, servicetype, extPort,
                                            proto, NULL, intClient, intPort,
                                            desc, enabled, leaseDuration);
}
#define UPNP_GetSpecificPortMappingEntry(controlURL, servicetype, extPort, \
                                         proto, intClient, intPort)        \
    kcGetSpecificPortMappingEntry((controlURL), (servicetype), (extPort),  \
                                  (proto), (intClient), (intPort))

#endif

#if defined(MINIUPNPC_API_VERSION) && MINIUPNPC_API_VERSION >= 18
/* 2.2.8 also reports the gateway's WAN address; the short form does not. */
static inline int kcGetValidIGD(struct UPNPDev *devlist, struct UPNPUrls *urls,
                                struct IGDdatas *data, char *lanaddr,
                                int lanaddrlen)
{
    return UPNP_GetValidIGD(devlist, urls, data, lanaddr, lanaddrlen, NULL, 0);
}
#define UPNP_GetValidIGD(devlist, urls, data, lanaddr, lanaddrlen) \
    kcGetValidIGD((devlist), (urls), (data), (lanaddr), (lanaddrlen))
#endif

#endif
