/* Status codes of the toolkit's object layer and flat functions: 0 is
   success, negative values are failures. Lower layers' statuses (the token
   layer's -1 .. -21, the RSA engine's -101 .. -115) pass through unchanged. */
#pragma once

enum {
  KV_ERR_MISSING_FIELD = -1001,   /* a required field is absent */
  KV_ERR_DECODE = -1002,          /* input is not DER of the expected type */
  KV_ERR_NOTHING_HELD = -1003,    /* no certificate/key/material held */
  KV_ERR_NOT_INITIALIZED = -1004, /* PKCS_Initialize has not been called */
  KV_ERR_BAD_CONTEXT = -1005,     /* null or destroyed context */
  KV_ERR_UNSUPPORTED = -1006,     /* algorithm, key shape, label or version */
  KV_ERR_RC2_SIZE = -1007,        /* RC2 size value exceeds the key length */
  KV_ERR_BIT_LENGTH = -1008,      /* key blob bit length not 512/1024/2048 */
  KV_ERR_SIGNATURE = -1009,       /* a signature does not verify */
  KV_ERR_ARGUMENT = -1010,        /* null or empty argument */
  KV_ERR_NOT_FOUND = -1011,       /* no matching signer, recipient, bag or item */
  KV_ERR_CONTENT_TYPE = -1012,    /* wrong PKCS#7 content type */
  KV_ERR_DECRYPT = -1013,         /* decryption failed (bad padding or wrong key) */
  KV_ERR_MAC = -1014,             /* PFX integrity check failed: wrong password */
  KV_ERR_ENCODE = -1015,          /* a value could not be encoded */
  KV_ERR_RC2_NO_PARAMS = -1016,   /* RC2 identifier without parameters */
  KV_ERR_INDEX = -1017,           /* list index out of range */
  KV_ERR_DIGEST = -1018,          /* message digest attribute does not match */
  KV_ERR_BUFFER = -1019,          /* output buffer too small; DN node text too short */
  KV_ERR_SYNTAX = -1020,          /* distinguished-name text does not parse */
  KV_ERR_NO_LEAF = -1021,         /* no certificate of a list is a leaf */
  KV_ERR_CHAIN = -1022,           /* no chain to a trusted certificate */
  KV_ERR_ISSUER = -1023,          /* issuer does not match the issuer certificate */
  KV_ERR_TIME_FORMAT = -1024,     /* validity bound neither GeneralizedTime nor UTCTime */
  KV_ERR_VALIDITY = -1025,        /* current time outside the validity period */
  KV_ERR_CERT_LABEL_TAKEN = -1028,
  KV_ERR_PUB_LABEL_TAKEN = -1029,
  KV_ERR_PRIV_LABEL_TAKEN = -1030,
  /* A block could not be allocated. */
  KV_ERR_MEMORY = -1031
};
