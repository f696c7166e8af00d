#!/usr/bin/python3
"""Chooses the real-data files of the round-trip test and writes their list.

Run by hand with the Debian Python (it needs python3-cryptography):
    /usr/bin/python3 tests/types/select_vectors.py > tests/data/types/vectors.lst
then move the files that cannot round-trip exactly, by the system's own
rules, from "exact" to their reason (see the list's header).

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
from cryptography.hazmat.primitives.serialization import pkcs12

VECTORS = "/usr/lib/python3/dist-packages/cryptography_vectors"
FOLDERS = ["x509", "pkcs7", "pkcs12"]
SKIP_DIRS = {"x509/ocsp", "x509/PKITS_data/smime"}
SKIP_SUFFIXES = (".ldif", ".schema", ".txt", ".eml")
PEM_TYPES = {
    "CERTIFICATE": "Certificate",
    "X509 CERTIFICATE": "Certificate",
    "X509 CRL": "CertificateList",
    "CERTIFICATE REQUEST": "CertificationRequest",
    "NEW CERTIFICATE REQUEST": "CertificationRequest",
    "PKCS7": "ContentInfo",
}
PEM_RE = re.compile(rb"-----BEGIN ([A-Z0-9 ]+)-----(.*?)-----END \1-----", re.S)
PASSWORDS = [None, b"cryptography", b"password"]


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
        blocks = [(label, body) for label, body in blocks if label.decode() in PEM_TYPES]
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
    print("# Real-data round trips: path (under the python-cryptography vectors),")
    print("# type, pem|der, expectation. Written by tests/types/select_vectors.py.")
    for row in rows:
        print("%s %s %s %s" % row)
    counts = {}
    for row in rows:
        counts[(row[1], row[3])] = counts.get((row[1], row[3]), 0) + 1
    for k in sorted(counts):
        sys.stderr.write("%-22s %-10s %d\n" % (k[0], k[1], counts[k]))


if __name__ == "__main__":
    main()
