#!/usr/bin/env python3
"""Reference CA and KMC for the enrolment tests, written with Python
`cryptography` only, so a fault of the toolkit cannot hide on both sides.

  refca.py issue    --out P7 [--pubkey B64|--request B64] [--subject DN]
                    [--intermediates N] [--order root-first|leaf-first|shuffle]
                    [--ca-dir DIR] [--not-after YYYYMMDDhhmmss] [--leaf-out DER]
  refca.py kmc      --tempkey B64 --bits 1024|2048 --out-dir DIR [--subject DN]
                    [--ca-dir DIR] [--wrap-for B64]
  refca.py check-mac --message FILE --authcode TEXT [--codepage cp936]
  refca.py check-ds  --message FILE

Files named B64 hold Base64 text (PKCS#1 RSAPublicKey or PKCS#10 DER).
Bundles are written as Base64 DER PKCS#7 (certificates only). A --ca-dir
keeps the CA's keys and certificates between runs, so several leaves share
one issuer. Exit status 0 success, 1 check failed, 2 usage.
"""
import argparse
import base64
import datetime
import hashlib
import os
import random
import re
import sys

from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import padding, rsa
from cryptography.hazmat.primitives.serialization import pkcs7
from cryptography.x509.oid import NameOID

NOW = datetime.datetime.now(datetime.timezone.utc)


def read_b64(path):
    with open(path, "rb") as f:
        return base64.b64decode(b"".join(f.read().split()))


def write(path, data):
    with open(path, "wb") as f:
        f.write(data)


def parse_name(text):
    """"CN=a,O=b,C=CN" (first RDN last in the encoding, as RFC 4514)."""
    if not text:
        return x509.Name([])
    return x509.Name.from_rfc4514_string(text)


def new_key(bits=2048):
    return rsa.generate_private_key(public_exponent=65537, key_size=bits)


def make_cert(subject, issuer, public_key, signing_key, ca, not_after=None, serial=None):
    builder = (
        x509.CertificateBuilder()
        .subject_name(subject)
        .issuer_name(issuer)
        .public_key(public_key)
        .serial_number(serial or x509.random_serial_number())
        .not_valid_before(NOW - datetime.timedelta(days=1))
        .not_valid_after(not_after or NOW + datetime.timedelta(days=365))
        .add_extension(x509.BasicConstraints(ca=ca, path_length=None), critical=True)
    )
    return builder.sign(signing_key, hashes.SHA256())


class Ca:
    """A root and N intermediates, kept in a folder when one is given."""

    def __init__(self, directory, intermediates):
        self.keys, self.certs = [], []
        if directory and os.path.exists(os.path.join(directory, "ca0.pem")):
            i = 0
            while os.path.exists(os.path.join(directory, "ca%d.pem" % i)):
                with open(os.path.join(directory, "ca%d.key" % i), "rb") as f:
                    self.keys.append(serialization.load_pem_private_key(f.read(), None))
                with open(os.path.join(directory, "ca%d.pem" % i), "rb") as f:
                    self.certs.append(x509.load_pem_x509_certificate(f.read()))
                i += 1
            return
        root_key = new_key()
        root_name = parse_name("CN=Reference Root CA,O=Korvanta Test,C=CN")
        self.keys.append(root_key)
        self.certs.append(make_cert(root_name, root_name, root_key.public_key(), root_key, True))
        for i in range(intermediates):
            key = new_key()
            name = parse_name("CN=Reference Sub CA %d,O=Korvanta Test,C=CN" % (i + 1))
            self.certs.append(
                make_cert(name, self.certs[-1].subject, key.public_key(), self.keys[-1], True))
            self.keys.append(key)
        if directory:
            os.makedirs(directory, exist_ok=True)
            for i, (k, c) in enumerate(zip(self.keys, self.certs)):
                write(os.path.join(directory, "ca%d.key" % i),
                      k.private_bytes(serialization.Encoding.PEM,
                                      serialization.PrivateFormat.TraditionalOpenSSL,
                                      serialization.NoEncryption()))
                write(os.path.join(directory, "ca%d.pem" % i),
                      c.public_bytes(serialization.Encoding.PEM))

    def issue(self, subject, public_key, not_after=None):
        return make_cert(subject, self.certs[-1].subject, public_key, self.keys[-1], False,
                         not_after)


def bundle(certs, order):
    """certs is root first, leaf last."""
    certs = list(certs)
    if order == "leaf-first":
        certs.reverse()
    elif order == "shuffle":
        random.shuffle(certs)
    elif order == "middle":
        # Leaf in the middle, root last: neither end is where it belongs.
        certs = certs[1:-1] + [certs[-1], certs[0]] if len(certs) > 2 else certs[::-1]
    return pkcs7.serialize_certificates(certs, serialization.Encoding.DER)


def public_key_from(args):
    if args.request:
        req = x509.load_der_x509_csr(read_b64(args.request))
        if not req.is_signature_valid:
            sys.stderr.write("refca: request signature does not verify\n")
            sys.exit(1)
        return req.public_key(), req.subject
    der = read_b64(args.pubkey)
    return serialization.load_der_public_key(_spki_from_pkcs1(der)), None


def _spki_from_pkcs1(der):
    # SubjectPublicKeyInfo around a PKCS#1 RSAPublicKey.
    alg = bytes.fromhex("300d06092a864886f70d0101010500")
    bits = b"\x00" + der
    return _tlv(0x30, alg + _tlv(0x03, bits))


def _tlv(tag, content):
    n = len(content)
    if n < 0x80:
        length = bytes([n])
    else:
        b = n.to_bytes((n.bit_length() + 7) // 8, "big")
        length = bytes([0x80 | len(b)]) + b
    return bytes([tag]) + length + content


def parse_time(text):
    if not text:
        return None
    return datetime.datetime.strptime(text, "%Y%m%d%H%M%S").replace(tzinfo=datetime.timezone.utc)


def cmd_issue(args):
    public_key, request_subject = public_key_from(args)
    subject = parse_name(args.subject) if args.subject else (
        request_subject or parse_name("CN=Korvanta User"))
    ca = Ca(args.ca_dir, args.intermediates)
    leaf = ca.issue(subject, public_key, parse_time(args.not_after))
    write(args.out, base64.b64encode(bundle(ca.certs + [leaf], args.order)))
    if args.leaf_out:
        write(args.leaf_out, leaf.public_bytes(serialization.Encoding.DER))
    return 0


def rc4(key, data):
    """RC4 from its published description. The libraries refuse keys shorter
    than 5 octets (or of sizes other than a few), while authorisation codes
    may be any length; this one is cross-checked against pycryptodome's for
    a length both accept (see _check_rc4)."""
    s = list(range(256))
    j = 0
    for i in range(256):
        j = (j + s[i] + key[i % len(key)]) & 0xFF
        s[i], s[j] = s[j], s[i]
    out = bytearray()
    i = j = 0
    for b in data:
        i = (i + 1) & 0xFF
        j = (j + s[i]) & 0xFF
        s[i], s[j] = s[j], s[i]
        out.append(b ^ s[(s[i] + s[j]) & 0xFF])
    return bytes(out)


def _check_rc4():
    try:
        from Cryptodome.Cipher import ARC4  # Debian's python3-pycryptodome
    except ImportError:
        try:
            from Crypto.Cipher import ARC4
        except ImportError:
            return
    key, data = os.urandom(16), os.urandom(64)
    if ARC4.new(key).encrypt(data) != rc4(key, data):
        raise SystemExit("refca: RC4 disagrees with pycryptodome")


def wrap(public_key, data):
    """PKCS#1 v1.5 type 2 per chunk of at most k-11 octets."""
    k = (public_key.key_size + 7) // 8
    out = b""
    for i in range(0, len(data), k - 11):
        out += public_key.encrypt(data[i:i + k - 11], padding.PKCS1v15())
    return out


def cmd_kmc(args):
    temp = serialization.load_der_public_key(_spki_from_pkcs1(read_b64(args.tempkey)))
    user = new_key(args.bits)
    ca = Ca(args.ca_dir, args.intermediates)
    leaf = ca.issue(parse_name(args.subject), user.public_key())
    p1 = user.private_bytes(serialization.Encoding.DER,
                            serialization.PrivateFormat.TraditionalOpenSSL,
                            serialization.NoEncryption())
    content_key = os.urandom(16)
    wrap_for = temp
    if args.wrap_for:
        wrap_for = serialization.load_der_public_key(_spki_from_pkcs1(read_b64(args.wrap_for)))
    os.makedirs(args.out_dir, exist_ok=True)
    d = args.out_dir
    write(os.path.join(d, "p7.b64"), base64.b64encode(bundle(ca.certs + [leaf], args.order)))
    write(os.path.join(d, "encprikey.b64"), base64.b64encode(rc4(content_key, p1)))
    write(os.path.join(d, "tempukek.b64"), base64.b64encode(wrap(wrap_for, content_key)))
    write(os.path.join(d, "user.pem"),
          user.private_bytes(serialization.Encoding.PEM,
                             serialization.PrivateFormat.TraditionalOpenSSL,
                             serialization.NoEncryption()))
    write(os.path.join(d, "leaf.der"), leaf.public_bytes(serialization.Encoding.DER))
    return 0


def source_and(message, name):
    m = re.search(rb"(<source>.*</source>)", message, re.S)
    v = re.search(rb"<" + name + rb">(.*?)</" + name + rb">", message, re.S)
    if not m or not v:
        sys.stderr.write("refca: message without source or %s\n" % name.decode())
        sys.exit(1)
    return m.group(1), v.group(1)


def cmd_check_mac(args):
    with open(args.message, "rb") as f:
        message = f.read()
    source, value = source_and(message, b"signaturevalue")
    key = args.authcode.encode(args.codepage)
    expected = base64.b64encode(rc4(key, hashlib.sha1(source).digest()))
    if value != expected:
        print("MAC BAD")
        return 1
    print("MAC OK")
    return 0


def cmd_check_ds(args):
    with open(args.message, "rb") as f:
        message = f.read()
    source, value = source_and(message, b"signaturevalue")
    _, cert_b64 = source_and(message, b"x509certificate")
    cert = x509.load_der_x509_certificate(base64.b64decode(cert_b64))
    try:
        cert.public_key().verify(base64.b64decode(value), source, padding.PKCS1v15(),
                                 hashes.SHA1())
    except Exception:  # noqa: BLE001 - any failure means the signature is bad
        print("DS BAD")
        return 1
    print("DS OK")
    return 0


def main():
    ap = argparse.ArgumentParser(prog="refca.py")
    sub = ap.add_subparsers(dest="cmd", required=True)
    a = sub.add_parser("issue")
    a.add_argument("--out", required=True)
    a.add_argument("--pubkey")
    a.add_argument("--request")
    a.add_argument("--subject")
    a.add_argument("--intermediates", type=int, default=1)
    a.add_argument("--order", default="root-first")
    a.add_argument("--ca-dir")
    a.add_argument("--not-after")
    a.add_argument("--leaf-out")
    k = sub.add_parser("kmc")
    k.add_argument("--tempkey", required=True)
    k.add_argument("--bits", type=int, required=True)
    k.add_argument("--out-dir", required=True)
    k.add_argument("--subject", default="CN=Korvanta Encryption User,C=CN")
    k.add_argument("--intermediates", type=int, default=1)
    k.add_argument("--order", default="root-first")
    k.add_argument("--ca-dir")
    k.add_argument("--wrap-for")
    m = sub.add_parser("check-mac")
    m.add_argument("--message", required=True)
    m.add_argument("--authcode", required=True)
    m.add_argument("--codepage", default="cp936")
    s = sub.add_parser("check-ds")
    s.add_argument("--message", required=True)
    args = ap.parse_args()
    _check_rc4()
    if args.cmd == "issue":
        if not args.pubkey and not args.request:
            ap.error("issue needs --pubkey or --request")
        return cmd_issue(args)
    return {"kmc": cmd_kmc, "check-mac": cmd_check_mac, "check-ds": cmd_check_ds}[args.cmd](args)


if __name__ == "__main__":
    sys.exit(main())
