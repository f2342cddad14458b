/*
 * Base64 (with "=" padding) into the caller's buffer; allocates nothing.
 */
#ifndef KC_WEBSOCKET_BASE64_H
#define KC_WEBSOCKET_BASE64_H

/* Characters written (terminated), or -1 when outCap is too small. */
int base64Encode(const unsigned char *in, int inLen, char *out, int outCap);

#endif
