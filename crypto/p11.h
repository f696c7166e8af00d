// The token operation layer: the one way every higher object of the toolkit
// runs a digest, cipher, signature or key operation, whether the key lives in
// memory (the soft token) or on a hardware token behind a PKCS#11 module.
//
//   KV_P11_Alg  names an algorithm and carries its parameters (IV, RC2 bits);
//   KV_P11_Key  holds one key: session key, RSA public or private key, or a
//               reference to a key object on the token by its label;
//   KV_P11_OP   the operation object; owns the opened key store ("chooser").
//
// Statuses: 0 success; the object layer's -1001 .. -1031 (below); the soft
// token's -1 .. -21 (KV_P11_ErrorText gives their GBK messages); the RSA
// engine's -101 .. -115 passed through unchanged.
#pragma once

#include "crypto/t_alloc.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Object-layer statuses of the token layer. */
enum {
  KV_P11_ERR_NO_ALGORITHM = -1001,  /* AlgorithmIdentifier without an algorithm */
  KV_P11_ERR_NO_MATERIAL = -1003,   /* key lacks its material / nothing to return */
  KV_P11_ERR_UNSUPPORTED = -1006,   /* algorithm, RC2 version or key kind */
  KV_P11_ERR_RC2_SIZE = -1007,      /* RC2 size value exceeds the key length */
  KV_P11_ERR_ARGUMENT = -1010,      /* required argument null or empty */
  KV_P11_ERR_RC2_NO_PARAMS = -1016, /* RC2 identifier without parameters */
  KV_P11_ERR_CERT_LABEL_TAKEN = -1028,
  KV_P11_ERR_PUB_LABEL_TAKEN = -1029,
  KV_P11_ERR_PRIV_LABEL_TAKEN = -1030,
  KV_P11_ERR_MEMORY = -1031
};

/* Algorithm kinds (KV_P11_Alg::setAlgType). */
enum {
  KV_ALG_SHA1 = 1,
  KV_ALG_MD5 = 2,
  KV_ALG_MD2 = 3,
  KV_ALG_DES_CBC = 4,
  KV_ALG_DES_EDE3_CBC = 5,
  KV_ALG_RC2_CBC = 6,
  KV_ALG_RC4 = 7,
  KV_ALG_RSA = 8,
  KV_ALG_SHA1_RSA = 9,
  KV_ALG_MD5_RSA = 10,
  KV_ALG_MD2_RSA = 11
};

/* Key kinds (KV_P11_Key::setKeyType) and the access kinds getAK reports. */
enum {
  KV_KEY_DES3 = 1, /* three-key DES-EDE3, 24 bytes */
  KV_KEY_DES = 2,
  KV_KEY_RC2 = 3,
  KV_KEY_RC4 = 4,
  KV_KEY_RSA_PUBLIC = 5,
  KV_KEY_RSA_PRIVATE = 6,
  KV_KEY_DES3_2KEY = 7 /* two-key DES-EDE3, 16 bytes */
};
enum { KV_AK_SECRET = 1, KV_AK_PUBLIC = 2, KV_AK_PRIVATE = 3 };

/* Object classes of CheckLabelExistInToken. */
enum { KV_OBJ_CERTIFICATE = 1, KV_OBJ_PUBLIC_KEY = 2, KV_OBJ_PRIVATE_KEY = 3 };

/* Plain structures exchanged with callers. Getters fill them with buffers of
 * T_malloc; the caller releases each with T_free. */
typedef struct KV_PKCS11_SESSION_KEY {
  unsigned char* key;
  unsigned int keyLen;
  int size; /* the size value: effective length for RC2, 16 or 24 for DES-EDE3 */
} KV_PKCS11_SESSION_KEY;

typedef struct KV_PKCS11_RSA_PUBLIC_KEY {
  unsigned char* modulus;
  unsigned int modulusLen;
  unsigned char* exponent;
  unsigned int exponentLen;
} KV_PKCS11_RSA_PUBLIC_KEY;

typedef struct KV_PKCS11_RSA_PRIVATE_KEY {
  unsigned char* modulus;
  unsigned int modulusLen;
  unsigned char* publicExponent;
  unsigned int publicExponentLen;
  unsigned char* privateExponent;
  unsigned int privateExponentLen;
  unsigned char* prime1;
  unsigned int prime1Len;
  unsigned char* prime2;
  unsigned int prime2Len;
  unsigned char* exponent1;
  unsigned int exponent1Len;
  unsigned char* exponent2;
  unsigned int exponent2Len;
  unsigned char* coefficient;
  unsigned int coefficientLen;
} KV_PKCS11_RSA_PRIVATE_KEY;

/* Store selector: the first word of KV_PKCS11_S. */
enum {
  /* The loaded module whose token carries the chooser's label (the module
   * loaded last when no label is given); the soft token when no module is
   * loaded. The usual choice. */
  KV_P11_STORE_AUTO = 0,
  /* Always the soft token, even when a module is loaded. */
  KV_P11_STORE_SOFT = 1,
  /* A loaded module is required: -15 when none matches. */
  KV_P11_STORE_MODULE = 2
};

/* The chooser description handed to KV_P11_OP::createChooser. Label and PIN
 * are byte strings with their lengths; both zero when absent. */
typedef struct KV_PKCS11_S {
  unsigned int selector;
  unsigned char* label;
  unsigned int labelLen;
  unsigned char* pin;
  unsigned int pinLen;
} KV_PKCS11_S;

/* Loads a PKCS#11 module by path (once per process: a second call for the same
 * path reuses the loaded module), calls C_Initialize with the locking flags
 * value 2 (CKR_CRYPTOKI_ALREADY_INITIALIZED accepted), finds the slot whose
 * token carries `tokenLabel` (the first slot with a token when the label is
 * null), opens a session and logs in with `pin` to prove it, and keeps the
 * module in the table of loaded modules. The session is closed again; choosers
 * open their own. Returns 0, or a negative status of the soft token's table:
 * -17 library missing or not a module, C_GetFunctionList or C_Initialize
 * failed; -15 no token with that label, or the session could not be opened;
 * -9 login refused. Each failure also reports the module's text ("can not find
 * the library\n", "initialize fail...,errno=%x(h)\n", "can not find the
 * demanded token\n", "error at opening sesseion,errno=%x(h)\n",
 * "error at login,errno=%x(h)\n") to the diagnostics sink. */
int KV_P11_LoadModule(const char* modulePath, const char* tokenLabel, const char* pin);

/* Finalizes and unloads every loaded module (also done at process exit).
 * Choosers still open keep working on the soft token only. */
void KV_P11_UnloadModules(void);

/* Where module failure texts go. The default sink writes them to standard
 * error; null restores it. Nothing is ever written to standard output. */
typedef void (*KV_P11_DIAG_FN)(void* arg, const char* text);
void KV_P11_SetDiagnostics(KV_P11_DIAG_FN fn, void* arg);
/* The last text reported to the sink by this thread ("" when none). */
const char* KV_P11_LastDiagnostic(void);

/* The soft token's message for a status of its table (0 and -1 .. -21), as GBK
 * octets; null for any other status. */
const char* KV_P11_ErrorText(int status);

#ifdef __cplusplus
}  // extern "C"

class MiByte;
class AlgorithmIdentifier;
class RSAPublicKey;
class RSAPrivateKey;

namespace kv::p11 {
class Store;
}

// An algorithm and its parameters. Plain value: copies are deep.
class KV_P11_Alg {
 public:
  KV_P11_Alg() = default;
  KV_P11_Alg(const KV_P11_Alg& other);
  KV_P11_Alg& operator=(const KV_P11_Alg& other);
  ~KV_P11_Alg();

  int setAlgType(int kind);
  // -1 for any stored value outside 1 .. 11.
  int getAlgType(int& kind) const;
  // -1010 for an empty source, -1031 when memory runs out.
  int setIV(MiByte& iv);
  int setEffectiveBits(int bits);
  int getEffectiveBits(int& bits) const;
  int getIV(MiByte& iv) const;
  // Clears the object, then takes kind, IV and effective bits from the
  // identifier: -1001 no algorithm, -1006 unknown identifier or RC2 version,
  // -1016 RC2 without parameters.
  int setAlgorithmIdentifier(AlgorithmIdentifier& alg);
  int getAlgorithmIdentifier(AlgorithmIdentifier& alg);
  // The crypto core's algorithm descriptor (internal layout); release it with
  // FreeICKAIObj.
  int GetICKAIObj(unsigned char** out, int keyAccessKind);
  static void FreeICKAIObj(unsigned char* obj);

 private:
  void Clear();

  int kind_ = -1;
  int effectiveBits_ = 0;
  unsigned char* iv_ = nullptr;
  unsigned int ivLen_ = 0;
};

// One key. Plain value: copies are deep; every setter first frees what it
// replaces; Reset returns to the empty state.
class KV_P11_Key {
 public:
  KV_P11_Key() = default;
  KV_P11_Key(const KV_P11_Key& other);
  KV_P11_Key& operator=(const KV_P11_Key& other);
  ~KV_P11_Key();
  void Reset();

  int setKeyType(int kind);
  // -1 for any stored value outside the kind table.
  int getKeyType(int& kind) const;
  // 2 for kind 5, 3 for kind 6, 1 otherwise.
  int getAK() const;
  // Copies the NUL-terminated label and marks the key as a token key.
  int setTokenKeyLabel(unsigned char* label);
  bool isTokenKey() const { return tokenKey_ != 0; }
  const char* getTokenKeyLabel() const { return label_; }

  int setSessionKey(KV_PKCS11_SESSION_KEY* key);
  int getSessionKey(KV_PKCS11_SESSION_KEY* key);
  int setPublicKey(KV_PKCS11_RSA_PUBLIC_KEY* key);
  int getPublicKey(KV_PKCS11_RSA_PUBLIC_KEY* key);
  int setPrivateKey(KV_PKCS11_RSA_PRIVATE_KEY* key);
  int getPrivateKey(KV_PKCS11_RSA_PRIVATE_KEY* key);
  // Kind from the identifier: DES-CBC 2; DES-EDE3-CBC 7 for size 16, else 1;
  // RC2-CBC 3; RC4 4; anything else leaves the kind at -1 (still 0).
  int setSessionKey(MiByte& key, int size, AlgorithmIdentifier& alg);
  int getSessionKey(MiByte& key, int& size, AlgorithmIdentifier& alg);
  int setRSAPublicKey(RSAPublicKey& key);
  int getRSAPublicKey(RSAPublicKey& key);
  int setRSAPrivateKey(RSAPrivateKey& key);
  int getRSAPrivateKey(RSAPrivateKey& key);
  // The crypto core's key descriptor (internal layout); release it with
  // FreeICKKIObj. -1003 missing material, -1006 unknown kind, -1007 RC2 size.
  int GetICKKIObj(unsigned char** out, int keyAccessKind);
  static void FreeICKKIObj(unsigned char* obj);

 private:
  struct Part {
    unsigned char* data = nullptr;
    unsigned int len = 0;
  };
  void FreeAll();
  void CopyFrom(const KV_P11_Key& other);

  int kind_ = -1;
  unsigned char tokenKey_ = 0;
  char* label_ = nullptr;
  Part session_;
  int sessionSize_ = 0;
  Part public_[2];   // modulus, exponent
  Part private_[8];  // n, e, d, p, q, dP, dQ, qInv
};

// The operation object. Unusable until createChooser succeeds; closed by
// destroyChooser, Reset or the destructor. Copies share one body with
// assignment: a copy opens its own chooser on the same store.
class KV_P11_OP {
 public:
  KV_P11_OP();
  KV_P11_OP(const KV_P11_OP& other);
  KV_P11_OP& operator=(const KV_P11_OP& other);
  ~KV_P11_OP();
  void Reset();

  // `chooser` is a KV_PKCS11_S; null gives -2.
  int createChooser(void* chooser);
  int destroyChooser();

  int Digest(KV_P11_Alg& alg, MiByte& in, MiByte& out);
  int GenerateRandom(MiByte& out, int len, MiByte& seed);
  int Encrypt(KV_P11_Alg& alg, KV_P11_Key& key, MiByte& in, MiByte& out);
  int Decrypt(KV_P11_Alg& alg, KV_P11_Key& key, MiByte& in, MiByte& out);
  int Sign(KV_P11_Alg& alg, KV_P11_Key& key, MiByte& in, MiByte& out);
  int Verify(KV_P11_Alg& alg, KV_P11_Key& key, MiByte& data, MiByte& signature);
  int SignRecover(KV_P11_Alg& alg, KV_P11_Key& key, MiByte& in, MiByte& out);
  // PKCS#1 v1.5 over data of any length: chunks of at most k - 11 octets, each
  // into one k-octet block; decryption takes whole k-octet blocks only.
  int RSABigEncrypt(KV_P11_Key& key, MiByte& in, MiByte& out);
  int RSABigDecrypt(KV_P11_Key& key, MiByte& in, MiByte& out);
  int GetHardPubKey(MiByte& label, KV_P11_Key& key);
  int GetCertFromToken(unsigned char* label, unsigned len, unsigned char* out, unsigned* outLen);
  int SetCertIntoToken(unsigned char* label, unsigned len, unsigned char* cert, unsigned certLen);
  bool CheckLabelExistInToken(unsigned char* label, unsigned len, unsigned kind);
  bool CheckRSAKeyPair(RSAPublicKey& pub, unsigned char* label, unsigned len);
  // bits other than 512, 1024, 2048 become 1024; any nonzero onToken is 1.
  int GenRSAKeyPair(KV_P11_Key& pub, MiByte& pubLabel, KV_P11_Key& priv, MiByte& privLabel,
                    int bits, int onToken);

  // True while a PKCS#11 module backs this chooser (token keys and token
  // objects go there; digests, in-memory keys and the ciphers a module lacks
  // run on the soft token).
  bool onModule() const;

 private:
  kv::p11::Store* store_ = nullptr;
  KV_PKCS11_S* desc_ = nullptr;  // copy of the chooser description, for copies
};
#endif
