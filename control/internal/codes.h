// Status codes of the enrolment control. A method reports the eight digits
// "22", the two-digit block and the four-digit detail, that is
// 22000000 + 10000 x block + detail (22038202: block 3, detail 8202), where the block is the
// dispatch identifier of the method (or of the method whose block it shares) and the detail a
// four-digit code of one of four bands:
//   80xx  the cryptographic toolkit failed (digest, cipher, conversion)
//   81xx  a platform (CryptoAPI / store) call failed
//   82xx  a bad argument or exhausted memory
//   83xx  a file or the user's signing step failed
#pragma once

#include <cstdint>

namespace kv::control {

// Dispatch identifiers, which are also the status blocks.
enum Block : int32_t {
  kBlockListCSP = 1,
  kBlockSetCSP = 2,
  kBlockGenKeyPair = 3,
  kBlockGenTempKeyPair = 4,
  kBlockGetVersion = 5,
  kBlockWriteClientCert = 6,
  kBlockWriteKmcCert = 7,
  kBlockDownClient = 8,
  kBlockDownKmc = 9,
  kBlockRevoke = 10,
  kBlockUpdate = 11,
  kBlockPublicKeyFromP10 = 12,
  kBlockRestoreKH = 13,
  kBlockWriteKmcCertWithKH = 14,
  kBlockWriteKH = 15,
  kBlockClientCertToPFX = 16,
  kBlockKmcCertToPFX = 17,
  kBlockGenP10 = 18,
  kBlockUpdateClient = 19,
  kBlockUpdateKmc = 20,
  kBlockRestoreKmcCert = 21,
  kBlockGenP10Kex = 22,
  kBlockWriteClientCertKex = 23,
  kBlockGenP10Exp = 24,
  kBlockWriteClientCertExp = 25,
  kBlockWriteClientCertNoProtect = 26,
  kBlockGenP10ExpWithDn = 27,
  kBlockWriteClientCertExpX509 = 28,
  kBlockLeavingMostRecentCert = 29,
};

// Detail codes.
enum Detail : int32_t {
  // 80xx: toolkit
  kLibraryInit = 8001,       // PKCS_Initialize
  kLibraryContext = 8002,    // PKCS_CreateCtx
  kTempKeyRecord = 8003,     // temporary key blob -> private-key record
  kUnwrapContentKey = 8004,  // RSA decryption of the wrapped content key
  kDecryptKmcKey = 8005,     // RC4 decryption of the KMC private key
  kPrivateKeyRecord = 8006,  // PKCS_InitPriKey
  kKeyBlob = 8007,           // private-key record -> platform blob
  kPublicKeyRecord = 8008,   // PKCS_InitPubKey
  kDecomposeRequest = 8009,  // KVPKCS_DecomposePKCS10
  kPublicKeyEncode = 8010,   // public key -> PKCS#1 DER (also blob -> PKCS#1)
  kRequestBuild = 8011,      // the PKCS#10 request could not be built
  kCertificateList = 8012,   // KV_CreateList
  kPfxBuild = 8013,          // KV_GenPFX
  kListEmpty = 8014,         // a certificate bundle without certificates
  kPrivateKeyDecode = 8016,  // KV_PKCS1PriKeyDecode
  kLeafCertificate = 8017,   // no leaf certificate in the bundle
  kMacDigest = 8018,         // SHA-1 step of the MAC
  kMacCipher = 8019,         // RC4 step of the MAC

  // 81xx: platform calls
  kOpenStore = 8101,
  kNegativeIndex = 8102,
  kOpenContainer = 8103,
  kGenerateKey = 8104,
  kGetUserKey = 8105,
  kExportSize = 8106,
  kExportPublicKey = 8107,
  kExportPrivateKey = 8108,
  kSignRequest = 8109,  // hashing or signing the request with the new key
  kAddToStore = 8110,
  kCreateContainer = 8112,
  kCreateContext = 8113,
  kTempExportSize = 8116,
  kImportKey = 8117,
  kSetKeyParam = 8118,
  kKeyMismatch = 8125,        // reported bare, not in a block
  kNoSuchCertificate = 8126,  // reported bare, not in a block

  // 82xx: arguments and memory
  kNoProvider = 8201,
  kBadKeySize = 8202,
  kNoMemory = 8203,
  kEmptyCertificates = 8204,
  kEmptyEncPrikey = 8205,
  kEmptyTempUKEK = 8206,
  kChainInstall = 8207,
  kEmptyRefNo = 8208,
  kEmptyAuthCode = 8209,
  kEmptyPublicKey = 8210,
  kEmptyRequest = 8211,
  kEmptySource = 8212,
  kCipherNoInput = 8213,
  kCipherNoLength = 8214,
  kNoCertificate = 8215,  // also: genP10_exp_withdn's subject text unusable
  kEmptyPassword = 8216,
  kBadKmcKeyLength = 8217,

  // 83xx: files and signing
  kPfxPack = 8302,
  kPfxImport = 8303,
  kSigning = 8306,
  kKeyHistory = 8307,
  kContainerFileWrite = 8308,
  kContainerFileRead = 8309,
};

constexpr int32_t Status(int32_t block, int32_t detail) {
  return 22000000 + 10000 * block + detail;
}

// The detail of a status built by Status().
constexpr int32_t DetailOf(int32_t status) {
  return status % 10000;
}

}  // namespace kv::control
