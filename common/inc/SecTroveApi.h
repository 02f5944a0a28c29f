/**
 * The node's credential library, libsec_trove_api.so: keeps stored passwords encrypted with a key of the node. Loaded
 * with dlopen; the functions are looked up by the names below.
 */
#ifndef SEC_TROVE_API_H
#define SEC_TROVE_API_H

#include <stddef.h>
#include <stdint.h>

#include "VelaMgmtSpi.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Opens the library's store in a folder (made, mode 700, with a key of mode 600, when missing). */
typedef VelaReturnT (*secTroveOpenT)(const char* directory);
/** Releases the store; wipes the key from memory. */
typedef void (*secTroveCloseT)(void);
/** Encrypts a NUL-terminated text. The result (printable ASCII) is freed with secTroveFree. */
typedef VelaReturnT (*secTroveEncryptT)(const char* clearText, char** cipherText);
/** Decrypts what secTroveEncrypt made. VELA_NOT_AUTHENTIC when damaged or not made with this node's key. */
typedef VelaReturnT (*secTroveDecryptT)(const char* cipherText, char** clearText);
/** Wipes and frees a text of this library. */
typedef void (*secTroveFreeT)(char* text);
/** Descriptor that becomes readable when the node's key has changed; -1 if there is none. */
typedef int (*secTroveGetDescriptorT)(void);
/** Handles what made the descriptor readable. 1: stored passwords must be read again, 0: no change. */
typedef int (*secTroveDispatchT)(void);

#define SEC_TROVE_LIBRARY "libsec_trove_api.so"
#define SEC_TROVE_OPEN "secTroveOpen"
#define SEC_TROVE_CLOSE "secTroveClose"
#define SEC_TROVE_ENCRYPT "secTroveEncrypt"
#define SEC_TROVE_DECRYPT "secTroveDecrypt"
#define SEC_TROVE_FREE "secTroveFree"
#define SEC_TROVE_GET_DESCRIPTOR "secTroveGetDescriptor"
#define SEC_TROVE_DISPATCH "secTroveDispatch"

#ifdef __cplusplus
}
#endif
#endif
