/*
 * The device server's URL: ws://host[:port][/path] and
 * wss://host[:port][/path].  Writes into the caller's buffers (host and
 * path of WBS_FIELD_SIZE bytes); allocates nothing.
 */
#ifndef KC_WEBSOCKET_URL_H
#define KC_WEBSOCKET_URL_H

/* Host, port, path and transport of a server URL; 1 if one form matched. */
int parseServerUrl(const char *url, char *host, int *port, char *path,
                   int *useTls);

#endif
