// Signer information shared by signedData and signedAndEnvelopedData.
#pragma once

#include <ctime>
#include <functional>
#include <vector>

#include "pki/internal/pkcs7_util.h"

namespace kv::pkcs7 {

// Builds the SignerInfo of signer over octets (the content of contentType):
// digest, authenticated attributes when asked for (content type, signing
// time, message digest), and the RSA signature in encryptedDigest.
int MakeSignerInfo(KV_P11_OP& op, const KV_PKCS7_Signer& signer, const Certificate& cert,
                   const MiByte& octets, const char* contentType, time_t signingTime,
                   SignerInfo& info);

// Turns a SignerInfo's encryptedDigest into the signature to check
// (signedAndEnvelopedData encrypts it again under the content key).
using DigestUnwrap = std::function<int(const MiByte& stored, MiByte& signature)>;

// Checks one SignerInfo over octets with the signer's certificate: cert when
// it is the signer's (usedCert then set), else the one of carried that the
// issuer and serial number name (-1011 when none).
int CheckSignerInfo(KV_P11_OP& op, const SignerInfo& info, const std::vector<MiByte>& carried,
                    const MiByte* cert, const MiByte& octets, const AsnOid& contentType,
                    const DigestUnwrap* unwrap, bool* usedCert = nullptr);

// Checks every signer; a given certificate must be the certificate of at
// least one of them (-1011), and there must be a signer (-1011).
int CheckSigners(KV_P11_OP& op, const std::vector<const SignerInfo*>& signers,
                 const std::vector<MiByte>& carried, const MiByte* cert, const MiByte& octets,
                 const AsnOid& contentType, const DigestUnwrap* unwrap);

// The signer infos and certificates of either content type.
std::vector<const SignerInfo*> SignerList(const SignerInfos* infos);
std::vector<MiByte> CarriedCertificates(const AsnSetOf<ExtendedCertificateOrCertificate>* set,
                                        const AsnSequenceOf<ExtendedCertificateOrCertificate>* seq);
// certSet [0] of the given certificates (exact octets kept), deduplicated.
int CertificateSet(const std::vector<MiByte>& certs,
                   AsnSetOf<ExtendedCertificateOrCertificate>& set);
// digestAlgorithms of the given kinds, each once.
DigestAlgorithmIdentifiers DigestSet(const std::vector<int>& kinds);

// Flat-layer helpers: a signer from its C description (flags of the signed
// writers), and the items of a list.
int SignerFromFlat(const PKCS7_SIGNER& s, int flags, KV_PKCS7_Signer& out);
std::vector<MiByte> ListBytes(const KV_LIST* list);

}  // namespace kv::pkcs7
