/*
 * IPv4 address and mask checks shared by the LAN settings and the guest
 * network: whether two addresses lie in one network (the utility script's
 * "getNetwordId" decides), and whether a mask is a contiguous prefix.
 */
#ifndef KC_UTIL_IP_NETWORK_H
#define KC_UTIL_IP_NETWORK_H

/* 1 when "getNetwordId" gives byte-for-byte the same answer for (a, mask)
 * and (b, mask), else 0.  Every argument reaches the shell as one literal
 * word; an absent one is passed as an empty word. */
int bothIpInSameNetwork(const char *a, const char *b, const char *mask);

/* 1 for a dotted mask whose ones are a contiguous prefix of 5 to 31 bits,
 * else 0. */
int checkSubnetValidation(const char *mask);

#endif
