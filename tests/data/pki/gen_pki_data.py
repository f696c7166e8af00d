#!/usr/bin/python3
"""Makes the certificates the PKI object tests read. Run by hand with the
Debian Python (python3-cryptography, python3-pycryptodome and the openssl
command are needed), from the repository root:

    /usr/bin/python3 tests/data/pki/gen_pki_data.py

OpenSSL signs the SHA-1, MD5 and SHA-256 certificates; MD2, which OpenSSL
no longer has, is signed by pycryptodome over a TBSCertificate that Python
cryptography built. certs.txt lists each certificate with its validity
bounds as Unix times, read back by Python cryptography.
"""
import datetime
import os
import subprocess
import tempfile

from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import rsa
from cryptography.x509.oid import NameOID
from Cryptodome.Hash import MD2
from Cryptodome.PublicKey import RSA
from Cryptodome.Signature import pkcs1_15

HERE = os.path.dirname(os.path.abspath(__file__))


def openssl(*args):
    subprocess.run(["openssl", *args], check=True, capture_output=True)


def der_len(n):
    if n < 0x80:
        return bytes([n])
    b = n.to_bytes((n.bit_length() + 7) // 8, "big")
    return bytes([0x80 | len(b)]) + b


def tlv(tag, content):
    return bytes([tag]) + der_len(len(content)) + content


SHA1_RSA = bytes.fromhex("06092a864886f70d010105")
MD2_RSA = bytes.fromhex("06092a864886f70d010102")


def md2_certificate(builder, subject_key, issuer_key):
    """A certificate signed md2WithRSAEncryption by issuer_key."""
    draft = builder.public_key(subject_key.public_key()).sign(issuer_key, hashes.SHA1())
    tbs = draft.tbs_certificate_bytes
    assert tbs.count(SHA1_RSA) == 1
    tbs = tbs.replace(SHA1_RSA, MD2_RSA)
    pem = issuer_key.private_bytes(serialization.Encoding.PEM,
                                   serialization.PrivateFormat.TraditionalOpenSSL,
                                   serialization.NoEncryption())
    signer = pkcs1_15.new(RSA.import_key(pem))
    signature = signer.sign(MD2.new(tbs))
    # Self-check with pycryptodome before the file is written.
    pkcs1_15.new(RSA.import_key(pem).publickey()).verify(MD2.new(tbs), signature)
    alg = tlv(0x30, MD2_RSA + b"\x05\x00")
    return tlv(0x30, tbs + alg + tlv(0x03, b"\x00" + signature))


def name(*pairs):
    return x509.Name([x509.NameAttribute(oid, value) for oid, value in pairs])


def main():
    out = HERE
    with tempfile.TemporaryDirectory() as tmp:
        t = lambda f: os.path.join(tmp, f)
        o = lambda f: os.path.join(out, f)
        root_subj = "/C=CN/O=Korvanta Test/CN=Test Root"
        openssl("req", "-x509", "-newkey", "rsa:1024", "-nodes", "-keyout", t("root.key"),
                "-sha1", "-subj", root_subj, "-days", "9000", "-set_serial", "1",
                "-out", o("root.pem"))
        # Same name, another key: a signature that cannot verify.
        openssl("req", "-x509", "-newkey", "rsa:1024", "-nodes", "-keyout", t("root2.key"),
                "-sha1", "-subj", root_subj, "-days", "9000", "-set_serial", "1",
                "-out", o("root_other_key.pem"))
        openssl("req", "-x509", "-newkey", "rsa:1024", "-nodes", "-keyout", t("r256.key"),
                "-sha256", "-subj", "/CN=SHA-256 Root", "-days", "9000", "-out",
                o("root_sha256.pem"))
        openssl("req", "-newkey", "rsa:1024", "-nodes", "-keyout", t("leaf.key"), "-subj",
                "/C=CN/O=Example/CN=alice/serialNumber=42", "-out", t("leaf.csr"))
        for md, serial in (("sha1", "2"), ("md5", "3")):
            openssl("x509", "-req", "-in", t("leaf.csr"), "-CA", o("root.pem"), "-CAkey",
                    t("root.key"), "-" + md, "-set_serial", serial, "-days", "8000",
                    "-out", o("leaf_%s.pem" % md))
        openssl("req", "-newkey", "rsa:1024", "-nodes", "-keyout", t("inter.key"), "-subj",
                "/C=CN/O=Korvanta Test/CN=Test Intermediate", "-out", t("inter.csr"))
        openssl("x509", "-req", "-in", t("inter.csr"), "-CA", o("root.pem"), "-CAkey",
                t("root.key"), "-sha1", "-set_serial", "4", "-days", "8000",
                "-out", o("inter.pem"))
        openssl("x509", "-req", "-in", t("leaf.csr"), "-CA", o("inter.pem"), "-CAkey",
                t("inter.key"), "-sha1", "-set_serial", "5", "-days", "8000",
                "-out", o("leaf_under_inter.pem"))
        openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
                "-nodes", "-keyout", t("ec.key"), "-subj", "/CN=EC Root", "-days", "9000",
                "-out", o("ec_root.pem"))
        # A 1024-bit RSA key (PKCS#1 DER) for the request tests.
        openssl("genrsa", "-traditional", "-out", t("k.pem"), "1024")
        openssl("rsa", "-in", t("k.pem"), "-traditional", "-outform", "DER", "-out",
                o("key1024.der"))

    # MD2 root and leaf; a certificate whose notAfter is a GeneralizedTime.
    root_key = rsa.generate_private_key(65537, 1024)
    leaf_key = rsa.generate_private_key(65537, 1024)
    root_name = name((NameOID.COUNTRY_NAME, "CN"), (NameOID.COMMON_NAME, "MD2 Root"))
    start = datetime.datetime(2020, 1, 1)
    end = datetime.datetime(2049, 12, 31, 23, 59, 59)
    base = (x509.CertificateBuilder().issuer_name(root_name).not_valid_before(start)
            .not_valid_after(end))
    md2_root = md2_certificate(base.subject_name(root_name).serial_number(7), root_key,
                               root_key)
    md2_leaf = md2_certificate(
        base.subject_name(name((NameOID.COMMON_NAME, "MD2 Leaf"))).serial_number(8), leaf_key,
        root_key)
    with open(os.path.join(out, "md2_root.der"), "wb") as f:
        f.write(md2_root)
    with open(os.path.join(out, "md2_leaf.der"), "wb") as f:
        f.write(md2_leaf)
    gen = (x509.CertificateBuilder().subject_name(root_name).issuer_name(root_name)
           .not_valid_before(datetime.datetime(2049, 6, 1, 12, 0, 0))
           .not_valid_after(datetime.datetime(2051, 1, 1, 0, 0, 0)).serial_number(9)
           .public_key(root_key.public_key()).sign(root_key, hashes.SHA1()))
    with open(os.path.join(out, "generalized_time.der"), "wb") as f:
        f.write(gen.public_bytes(serialization.Encoding.DER))

    epoch = datetime.datetime(1970, 1, 1)
    lines = []
    for f in sorted(os.listdir(out)):
        if not (f.endswith(".pem") or f.endswith(".der")) or f.startswith("key"):
            continue
        data = open(os.path.join(out, f), "rb").read()
        cert = (x509.load_pem_x509_certificate(data) if f.endswith(".pem")
                else x509.load_der_x509_certificate(data))
        nb = int((cert.not_valid_before - epoch).total_seconds())
        na = int((cert.not_valid_after - epoch).total_seconds())
        lines.append("%s %d %d\n" % (f, nb, na))
    with open(os.path.join(out, "certs.txt"), "w") as f:
        f.write("# file notBefore notAfter (Unix times, from Python cryptography)\n")
        f.writelines(lines)


if __name__ == "__main__":
    main()
