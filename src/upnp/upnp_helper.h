/*
 * Port forwarding on the upstream Internet gateway over UPnP IGD: one TCP
 * mapping from a random high external port (49152..65534) to a local port
 * of this device, its removal, and the gateway's external address.  The
 * gateway is discovered afresh for every operation; nothing is kept in
 * between.  Operations are serialised (the command thread and the
 * maintenance timer both use them).
 */
#ifndef KC_UPNP_UPNP_HELPER_H
#define KC_UPNP_UPNP_HELPER_H

/* Maps a random external port to internalPort for leaseSeconds (0: no
 * expiry).  0 on success, with externalIp (16 bytes, possibly empty when
 * the gateway does not tell) and *externalPort set; -1 when no gateway
 * answered; -2 when 20 attempts were refused or could not be confirmed. */
int addPortForwarding(int internalPort, int leaseSeconds, char externalIp[16],
                      int *externalPort);

/* Removes the TCP mapping of externalPort: the gateway's result (0 on
 * success), or -1 when no gateway answered. */
int deletePortForwarding(int externalPort);

/* The candidate external port for one random value: value modulo 65536,
 * raised by 16383 while below 49152; always within 49152..65534 (65535
 * gives 49152). */
unsigned int externalPortCandidate(unsigned int randomValue);

/* Where addPortForwarding and deletePortForwarding go: the gateway over
 * miniupnpc by default.  Tests and fuzz targets put in their own, which
 * sends nothing; NULL puts the real one back.  Set it before any thread
 * uses the gateway.  Both members are required. */
struct UpnpGateway {
    int (*add)(int internalPort, int leaseSeconds, char externalIp[16], int *externalPort);
    int (*remove)(int externalPort);
};
void setUpnpGateway(const UpnpGateway *gateway);

#endif
