// The flat C interface's base: library initialisation, contexts and lists.
// Every flat function has C linkage, returns 0 or a negative status of
// pki/errors.h (lower layers' statuses passed through) and lets no C++
// exception escape. Buffers handed to callers come from T_malloc.
#pragma once

#include "crypto/keyconv.h"
#include "crypto/t_alloc.h"
#include "pki/errors.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Library initialisation, counted: every PKCS_Initialize is matched by one
 * PKCS_Finalize. Functions that need it report -1004 before it. */
int PKCS_Initialize(void);
int PKCS_Finalize(void);

/* A library context: holds the soft-token chooser the flat functions run
 * their cryptography on. -1004 before PKCS_Initialize, -1010 for null. */
int PKCS_CreateCtx(PKCS_CTX* ctx);
int PKCS_DestroyCtx(PKCS_CTX ctx);

/* A list of octet strings (DER items: certificates, CRLs, recipients). */
typedef struct KV_LIST KV_LIST;

int KV_CreateList(KV_LIST** list);
/* Releases the list and every item; null is ignored. */
int KV_DestroyList(KV_LIST* list);
/* Appends a copy of n octets. */
int KV_ListAppend(KV_LIST* list, const unsigned char* data, unsigned int n);
int KV_ListCount(const KV_LIST* list, unsigned int* count);
/* Item i by reference (valid until the list changes); -1017 out of range. */
int KV_ListGet(const KV_LIST* list, unsigned int i, const unsigned char** data, unsigned int* n);
/* Item i copied out, with the output-buffer rule of crypto/keyconv.h. */
int KV_ListCopy(const KV_LIST* list, unsigned int i, unsigned char* out, unsigned int* n);
int KV_ListRemove(KV_LIST* list, unsigned int i);
int KV_ListClear(KV_LIST* list);

#ifdef __cplusplus
}  // extern "C"
#endif
