/* UPnP IGD port forwarding over miniupnpc. */
#define KC_MODULE "upnp_helper.cpp"
#include "upnp/upnp_helper.h"

#include <pthread.h>

#include <cstdio>
#include <cstring>

#include "upnp/miniupnpc_compat.h"
#include "util/debug.h"
#include "util/random.h"

/* State of one operation, filled by initUpnp and released by freeUpnp. */
static struct UPNPDev *s_devlist = NULL;
static struct UPNPUrls s_urls;
static struct IGDdatas s_data;
static char s_lanAddress[64];
static pthread_mutex_t s_lock = PTHREAD_MUTEX_INITIALIZER;
static const UpnpGateway *s_gateway = NULL; /* NULL: the real gateway */

void setUpnpGateway(const UpnpGateway *gateway)
{
    s_gateway = gateway;
}

static int initUpnp(void)
{
    memset(&s_urls, 0, sizeof s_urls);
    memset(&s_data, 0, sizeof s_data);
    s_lanAddress[0] = '\0';
    s_devlist = upnpDiscover(2000, NULL, NULL, 0);
    if (s_devlist == NULL)
        return -1;
    /* a connected gateway, one that is not connected, or any UPnP device */
    if (UPNP_GetValidIGD(s_devlist, &s_urls, &s_data, s_lanAddress, sizeof s_lanAddress) == 0) {
        freeUPNPDevlist(s_devlist);
        s_devlist = NULL;
        return -1;
    }
    return 0;
}

static void freeUpnp(void)
{
    FreeUPNPUrls(&s_urls);
    freeUPNPDevlist(s_devlist);
    s_devlist = NULL;
}

unsigned int externalPortCandidate(unsigned int randomValue)
{
    unsigned int candidate = randomValue % 65536;
    while (candidate < 49152)
        candidate += 16383;
    /* the ports reported stay within 49152..65534: 65535 itself, the one
     * value the loop leaves above that, takes the lowest port instead */
    if (candidate > 65534)
        candidate = 49152;
    return candidate;
}

int addPortForwarding(int internalPort, int leaseSeconds, char externalIp[16],
                      int *externalPort)
{
    if (s_gateway != NULL)
        return s_gateway->add(internalPort, leaseSeconds, externalIp, externalPort);
    pthread_mutex_lock(&s_lock);
    if (initUpnp() == -1) {
        pthread_mutex_unlock(&s_lock);
        return -1;
    }
    externalIp[0] = '\0';
    UPNP_GetExternalIPAddress(s_urls.controlURL, s_data.first.servicetype, externalIp);

    char internalText[8];
    char leaseText[16];
    int retCode = snprintf(internalText, sizeof internalText, "%d", internalPort);
    KC_ASSERT(retCode > 0, "retCode > 0");
    retCode = snprintf(leaseText, sizeof leaseText, "%d", leaseSeconds);
    KC_ASSERT(retCode > 0, "retCode > 0");

    int result = -2;
    for (int attempt = 0; attempt < 20; attempt++) {
        unsigned int candidate = externalPortCandidate(nextRandom());
        char candidateText[8];
        /* the previous attempt's entry query wrote into internalText */
        retCode = snprintf(internalText, sizeof internalText, "%d", internalPort);
        KC_ASSERT(retCode > 0, "retCode > 0");
        retCode = snprintf(candidateText, sizeof candidateText, "%u", candidate);
        KC_ASSERT(retCode > 0, "retCode > 0");
        if (UPNP_AddPortMapping(s_urls.controlURL, s_data.first.servicetype, candidateText,
                                internalText, s_lanAddress, "nimb:UPnP:port", "TCP", NULL,
                                leaseText) != 0)
            continue;
        char client[16];
        if (UPNP_GetSpecificPortMappingEntry(s_urls.controlURL, s_data.first.servicetype,
                                             candidateText, "TCP", client, internalText) != 0)
            continue;
        *externalPort = (int)candidate;
        result = 0;
        break;
    }
    freeUpnp();
    pthread_mutex_unlock(&s_lock);
    return result;
}

int deletePortForwarding(int externalPort)
{
    if (s_gateway != NULL)
        return s_gateway->remove(externalPort);
    char portText[8];
    int retCode = snprintf(portText, sizeof portText, "%d", externalPort);
    KC_ASSERT(retCode > 0, "retCode > 0");
    pthread_mutex_lock(&s_lock);
    if (initUpnp() == -1) {
        pthread_mutex_unlock(&s_lock);
        return -1;
    }
    int result = UPNP_DeletePortMapping(s_urls.controlURL, s_data.first.servicetype, portText,
                                        "TCP", NULL);
    freeUpnp();
    pthread_mutex_unlock(&s_lock);
    return result;
}
