// Key format conversions between the platform's key blobs (PUBLICKEYBLOB,
// PRIVATEKEYBLOB), the toolkit's RSA key records and PKCS#1 DER, and RSA over
// data longer than one modulus block.
//
// Statuses: 0 success; -1006 key shape not supported by the conversion,
// -1008 blob bit length other than 512/1024/2048, -1010 null argument,
// -1019 output buffer too small, -1031 memory exhausted; the PKCS#1 decoders
// also -1001 (a required field is missing) and -1002 (not DER of the type);
// lower statuses of the token layer and RSA engine are passed through.
//
// Output buffers follow one rule: a null output pointer asks only for the size,
// written to the length argument with result 0; a non-null output whose length
// argument is smaller than needed gives -1019; otherwise the output is written
// and the length argument set to its size.
#pragma once

#include "crypto/t_alloc.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
  KV_CONV_ERR_MISSING = -1001,
  KV_CONV_ERR_DECODE = -1002,
  KV_CONV_ERR_SHAPE = -1006,
  KV_CONV_ERR_BITLEN = -1008,
  KV_CONV_ERR_ARGUMENT = -1010,
  KV_CONV_ERR_BUFFER = -1019,
  KV_CONV_ERR_MEMORY = -1031
};

/* The library context of the flat functions (PKCS_Initialize, PKCS_CreateCtx
 * and PKCS_DestroyCtx belong to the PKI objects); the conversions accept it
 * and do not use it, so a null context is fine. */
typedef struct PKCS_CONTEXT PKCS_CONTEXT;
typedef PKCS_CONTEXT* PKCS_CTX;

/* RSA public key record: unsigned big-endian integers in buffers of
 * T_malloc. Zeroed by PKCS_InitPubKey, released by PKCS_FreePubKey. */
typedef struct PKCS_PUBKEY {
  unsigned char* modulus;
  unsigned int modulusLen;
  unsigned char* exponent;
  unsigned int exponentLen;
} PKCS_PUBKEY;

/* RSA private key record: eight (buffer, length) pairs in this order, each an
 * unsigned big-endian integer in a buffer of T_malloc. */
typedef struct PKCS_PRIKEY {
  unsigned char* modulus; /* n */
  unsigned int modulusLen;
  unsigned char* publicExponent; /* e */
  unsigned int publicExponentLen;
  unsigned char* privateExponent; /* d */
  unsigned int privateExponentLen;
  unsigned char* prime1; /* p */
  unsigned int prime1Len;
  unsigned char* prime2; /* q */
  unsigned int prime2Len;
  unsigned char* exponent1; /* dP */
  unsigned int exponent1Len;
  unsigned char* exponent2; /* dQ */
  unsigned int exponent2Len;
  unsigned char* coefficient; /* qInv */
  unsigned int coefficientLen;
} PKCS_PRIKEY;

/* Record life cycle. Free releases every non-null buffer with T_free (wiping
 * private components first) and zeroes the record. A null record is ignored.
 * All return 0. */
int PKCS_InitPubKey(PKCS_CTX ctx, PKCS_PUBKEY* key);
int PKCS_FreePubKey(PKCS_CTX ctx, PKCS_PUBKEY* key);
int PKCS_InitPriKey(PKCS_CTX ctx, PKCS_PRIKEY* key);
int PKCS_FreePriKey(PKCS_CTX ctx, PKCS_PRIKEY* key);

/* Platform blobs <-> records. The readers take the blob's size from its own
 * header, as the platform does; the ...Ex forms take the blob length too and
 * refuse (-1010) a blob shorter than its header says. The record given to a
 * reader is released and refilled; each buffer has one spare octet. */
int KV_MSPubKeyToIPK(PKCS_CTX ctx, const unsigned char* blob, PKCS_PUBKEY* key);
int KV_MSPubKeyToIPKEx(PKCS_CTX ctx, const unsigned char* blob, unsigned int blobLen,
                       PKCS_PUBKEY* key);
int KV_MSPriKeyToIPK(PKCS_CTX ctx, const unsigned char* blob, PKCS_PRIKEY* key);
int KV_MSPriKeyToIPKEx(PKCS_CTX ctx, const unsigned char* blob, unsigned int blobLen,
                       PKCS_PRIKEY* key);
/* 276-octet PUBLICKEYBLOB of a 2048-bit key with a three-octet exponent. */
int KV_IPKToMSPubKey(PKCS_CTX ctx, const PKCS_PUBKEY* key, unsigned char* blob,
                     unsigned int* length);
/* 1172-octet (2048-bit) and 596-octet (1024-bit) PRIVATEKEYBLOB; the slots are
 * not cleared first, so pass a zeroed buffer. */
int KV_IPKToMSPriKey(PKCS_CTX ctx, const PKCS_PRIKEY* key, unsigned char* blob,
                     unsigned int* length);
int KV_IPKToMSPriKey1024(PKCS_CTX ctx, const PKCS_PRIKEY* key, unsigned char* blob,
                         unsigned int* length);

/* PKCS#1 DER (RSAPublicKey, RSAPrivateKey) <-> records. */
int KV_PKCS1PubKeyEncode(PKCS_CTX ctx, const PKCS_PUBKEY* key, unsigned char* der,
                         unsigned int* length);
int KV_PKCS1PubKeyDecode(PKCS_CTX ctx, const unsigned char* der, unsigned int derLen,
                         PKCS_PUBKEY* key);
int KV_PKCS1PriKeyEncode(PKCS_CTX ctx, const PKCS_PRIKEY* key, unsigned char* der,
                         unsigned int* length);
int KV_PKCS1PriKeyDecode(PKCS_CTX ctx, const unsigned char* der, unsigned int derLen,
                         PKCS_PRIKEY* key);

/* Platform blobs <-> PKCS#1 DER. */
int KV_MSPubKeyToP1Der(const unsigned char* blob, unsigned char* der, unsigned int* length);
int KV_P1DerToMSPubKey(const unsigned char* der, unsigned int derLen, unsigned char* blob,
                       unsigned int* length);
int KV_MSPriKeyToP1Der(const unsigned char* blob, unsigned char* der, unsigned int* length);
int KV_P1DerToMSPriKey(const unsigned char* der, unsigned int derLen, unsigned char* blob,
                       unsigned int* length);

/* RSA PKCS#1 v1.5 (block type 2) over data of any length: the plaintext is cut
 * into chunks of at most k - 11 octets, each encrypted into one k-octet block;
 * decryption takes a whole number of k-octet blocks (anything else fails) and
 * joins the plaintexts. Runs through the token layer on the soft token. Output
 * buffer rule as above; the size a null output reports for decryption is the
 * upper bound (blocks x (k - 11)), the written length is exact. */
int KV_RSABigEncrypt(PKCS_CTX ctx, const PKCS_PUBKEY* key, const unsigned char* in,
                     unsigned int inLen, unsigned char* out, unsigned int* outLen);
int KV_RSABigDecrypt(PKCS_CTX ctx, const PKCS_PRIKEY* key, const unsigned char* in,
                     unsigned int inLen, unsigned char* out, unsigned int* outLen);

#ifdef __cplusplus
}  // extern "C"
#endif
