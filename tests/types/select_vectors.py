#!/usr/bin/python3
"""Chooses the real-data files of the round-trip test and writes their list.

Run by hand with the Debian Python (it needs python3-cryptography):
    /usr/bin/python3 tests/types/select_vectors.py > tests/data/types/vectors.lst
Files that cannot round-trip exactly by the system's own rules are given
their expectation and reason in OVERRIDES below.

A file is well-formed when every PEM block (or the file itself) is strict
DER (definite, minimal lengths; constructed encodings nest exactly) and
python-cryptography loads it as its type. Everything else under the chosen
folders is listed as "malformed".
"""

import base64
import os
import re
import subprocess
import sys

from cryptography import x509
from cryptography.hazmat.primitives import serialization
from cryptography.hazmat.primitives.serialization import pkcs12

VECTORS = "/usr/lib/python3/dist-packages/cryptography_vectors"
FOLDERS = ["x509", "pkcs7", "pkcs12", "asymmetric/PKCS8", "asymmetric/PEM_Serialization",
           "asymmetric/Traditional_OpenSSL_Serialization", "asymmetric/public/PKCS1"]
KEY_FOLDER = "asymmetric/"
SKIP_DIRS = {"x509/ocsp", "x509/PKITS_data/smime"}
SKIP_SUFFIXES = (".ldif", ".schema", ".txt", ".eml")
PEM_TYPES = {
    "CERTIFICATE": "Certificate",
    "X509 CERTIFICATE": "Certificate",
    "X509 CRL": "CertificateList",
    "CERTIFICATE REQUEST": "CertificationRequest",
    "NEW CERTIFICATE REQUEST": "CertificationRequest",
    "PKCS7": "ContentInfo",
    "RSA PRIVATE KEY": "RSAPrivateKey",
    "RSA PUBLIC KEY": "RSAPublicKey",
    "PRIVATE KEY": "PrivateKeyInfo",
    "ENCRYPTED PRIVATE KEY": "EncryptedPrivateKeyInfo",
    "PUBLIC KEY": "SubjectPublicKeyInfo",
}
# Keys count only in the key folders; beside a certificate they are not ours.
KEY_TYPES = {"RSAPrivateKey", "RSAPublicKey", "PrivateKeyInfo", "EncryptedPrivateKeyInfo",
             "SubjectPublicKeyInfo"}
PEM_RE = re.compile(rb"-----BEGIN ([A-Z0-9 ]+)-----(.*?)-----END \1-----", re.S)
PASSWORDS = [None, b"cryptography", b"password"]

HEADER = """\
# Real-data round trips: path (under the python-cryptography vectors, or
# mozilla/NAME for a system root), type, pem|der, expectation.
# Written by tests/types/select_vectors.py: edit that script, not this list.
#
# Expectations:
#   exact            decodes, and every nested structure the test knows
#                    (extensions, SignedData, PFX bags, keys) re-encodes to
#                    the same octets.
#   malformed        refused by the oracles (not strict DER, or not loadable
#                    by python-cryptography/OpenSSL): decoding may succeed
#                    (our reading is lax by design) or raise a MiException,
#                    never anything else.
#   refused:REASON   well-formed outside, but a nested value cannot be read
#                    as its type: a MiException is raised.
#   differs:REASON   decodes, but our rules re-encode it otherwise; our
#                    encoding then round-trips exactly.
# Reasons used:
#   x400address-holds-no-ORAddress  the x400Address name carries a bare
#                    PrintableString where an ORAddress SEQUENCE belongs.
#   empty-extension-value  a certificateIssuer entry extension with an empty
#                    OCTET STRING: decoding an empty input is an invalid
#                    argument.
# System roots not listed are expected to be exact."""

OVERRIDES = {
    "x509/san_x400address.der": "refused:x400address-holds-no-ORAddress",
    "x509/custom/crl_inval_cert_issuer_entry_ext.pem": "refused:empty-extension-value",
}


def strict_der(data, pos=0, end=None):
    """Position after one TLV at pos, or None when it is not strict DER."""
    end = len(data) if end is None else end
    if pos + 2 > end:
        return None
    ident = data[pos]
    pos += 1
    if ident & 0x1F == 0x1F:
        while True:
            if pos >= end:
                return None
            b = data[pos]
            pos += 1
            if not b & 0x80:
                break
    first = data[pos]
    pos += 1
    if first < 0x80:
        length = first
    else:
        k = first & 0x7F
        if k == 0 or k > 4 or pos + k > end or data[pos] == 0:
            return None
        length = int.from_bytes(data[pos:pos + k], "big")
        pos += k
        if length < 0x80:
            return None
    if pos + length > end:
        return None
    if ident & 0x20:
        inner = pos
        while inner < pos + length:
            inner = strict_der(data, inner, pos + length)
            if inner is None:
                return None
    return pos + length


def whole_der(data):
    return strict_der(data) == len(data)


def loads(kind, der):
    try:
        if kind == "Certificate":
            c = x509.load_der_x509_certificate(der)
            c.serial_number, c.subject, c.issuer, c.not_valid_before
        elif kind == "CertificateList":
            x509.load_der_x509_crl(der).issuer
        elif kind == "CertificationRequest":
            x509.load_der_x509_csr(der).subject
        elif kind == "ContentInfo":
            # Any content type, enveloped data too.
            return subprocess.run(["openssl", "pkcs7", "-inform", "DER", "-noout"],
                                  input=der, capture_output=True).returncode == 0
        elif kind in ("RSAPrivateKey", "PrivateKeyInfo"):
            serialization.load_der_private_key(der, None)
        elif kind in ("RSAPublicKey", "SubjectPublicKeyInfo"):
            serialization.load_der_public_key(der)
        elif kind == "EncryptedPrivateKeyInfo":
            return True  # password unknown: strict DER is the test
        elif kind == "CertificatePair":
            return True  # no reader of its own: strict DER is the test
        elif kind == "PFX":
            for pw in PASSWORDS:
                try:
                    pkcs12.load_pkcs12(der, pw)
                    return True
                except ValueError:
                    continue
            return False
        return True
    except Exception:  # any refusal means "not well-formed" here
        return False


def guess_der_kind(rel, der):
    if rel.endswith((".p12", ".pfx")):
        return ["PFX"]
    if rel.endswith(".cp"):
        return ["CertificatePair"]
    if rel.endswith(".crl") or "crl" in os.path.basename(rel):
        return ["CertificateList"]
    if rel.startswith("pkcs7/") or rel.endswith((".p7b", ".p7c")):
        return ["ContentInfo"]
    return ["Certificate", "CertificateList", "CertificationRequest", "ContentInfo"]


def classify(path, rel):
    data = open(path, "rb").read()
    blocks = PEM_RE.findall(data)
    if blocks:
        # Keys and other blocks beside the structures are not ours.
        in_keys = rel.startswith(KEY_FOLDER)
        blocks = [(label, body) for label, body in blocks
                  if label.decode() in PEM_TYPES
                  and (PEM_TYPES[label.decode()] in KEY_TYPES) == in_keys
                  and b"Proc-Type:" not in body]
        kinds = {PEM_TYPES[label.decode()] for label, _ in blocks}
        if len(kinds) != 1:
            return None, "pem", None
        kind = kinds.pop()
        ok = True
        for _, body in blocks:
            try:
                der = base64.b64decode(b"".join(body.split()), validate=True)
            except ValueError:
                return kind, "pem", "malformed"
            ok = ok and whole_der(der) and loads(kind, der)
        return kind, "pem", "exact" if ok else "malformed"
    if rel.startswith(KEY_FOLDER):
        return None, "der", None
    candidates = guess_der_kind(rel, data)
    if whole_der(data):
        for kind in candidates:
            if loads(kind, data):
                return kind, "der", "exact"
    return candidates[0], "der", "malformed"


def main():
    rows = []
    for folder in FOLDERS:
        for root, dirs, files in os.walk(os.path.join(VECTORS, folder)):
            dirs.sort()
            rel_root = os.path.relpath(root, VECTORS)
            if rel_root in SKIP_DIRS:
                dirs[:] = []
                continue
            for name in sorted(files):
                rel = os.path.join(rel_root, name)
                if name.endswith(SKIP_SUFFIXES):
                    continue
                kind, form, verdict = classify(os.path.join(root, name), rel)
                if verdict is None:
                    continue
                rows.append((rel, kind, form, verdict))
    rows = [(r[0], r[1], r[2], OVERRIDES.get(r[0], r[3])) for r in rows]
    print(HEADER)
    for row in rows:
        print("%s %s %s %s" % row)
    counts = {}
    for row in rows:
        counts[(row[1], row[3])] = counts.get((row[1], row[3]), 0) + 1
    for k in sorted(counts):
        sys.stderr.write("%-22s %-10s %d\n" % (k[0], k[1], counts[k]))


if __name__ == "__main__":
    main()
