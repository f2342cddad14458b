/*
 * The TLS code is written against the long-standing OpenSSL client calls
 * (SSL_library_init, SSLv23_client_method, SHA1, ...).  OpenSSL 1.1 and 3.x
 * still provide them as compatibility macros or deprecated functions; this
 * header asks for that API level so they stay visible without deprecation
 * warnings, and supplies what a newer library no longer declares.
 */
#ifndef KC_LINUX_OPENSSL_COMPAT_H
#define KC_LINUX_OPENSSL_COMPAT_H

#ifndef OPENSSL_API_COMPAT
#define OPENSSL_API_COMPAT 0x00908000L
#endif

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/sha.h>
#include <openssl/ssl.h>

#if OPENSSL_VERSION_NUMBER >= 0x10100000L
/* Removed as functions in 1.1.0; the library initialises itself. */
#ifndef SSL_library_init
#define SSL_library_init() OPENSSL_init_ssl(0, NULL)
#endif
#ifndef SSL_load_error_strings
#define SSL_load_error_strings() \
    OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS, NULL)
#endif
#ifndef OPENSSL_add_all_algorithms_noconf
#define OPENSSL_add_all_algorithms_noconf() \
    OPENSSL_init_crypto(OPENSSL_INIT_ADD_ALL_CIPHERS | OPENSSL_INIT_ADD_ALL_DIGESTS, NULL)
#endif
#ifndef SSLv23_client_method
#define SSLv23_client_method TLS_client_method
#endif
#endif

#endif
