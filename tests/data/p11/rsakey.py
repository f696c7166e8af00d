#!/usr/bin/env python3
"""RSA key helper for the token layer's tests, on Python's cryptography.

  rsakey.py dump KEY.pem          eight hex lines: n e d p q dP dQ qInv
  rsakey.py pem OUT.pem HEX...    PEM of a public (n e) or private key
                                  (n e d p q dP dQ qInv); a private key also
                                  writes OUT.pem.pub with its public half
"""
import sys

from cryptography.hazmat.primitives import serialization
from cryptography.hazmat.primitives.asymmetric import rsa


def main():
    if sys.argv[1] == "dump":
        with open(sys.argv[2], "rb") as f:
            key = serialization.load_pem_private_key(f.read(), password=None)
        p = key.private_numbers()
        for v in (p.public_numbers.n, p.public_numbers.e, p.d, p.p, p.q, p.dmp1, p.dmq1, p.iqmp):
            print("%x" % v)
        return
    out = sys.argv[2]
    v = [int(h, 16) for h in sys.argv[3:]]
    pub = rsa.RSAPublicNumbers(v[1], v[0])
    pub_pem = pub.public_key().public_bytes(
        serialization.Encoding.PEM, serialization.PublicFormat.SubjectPublicKeyInfo)
    if len(v) == 2:
        open(out, "wb").write(pub_pem)
        return
    priv = rsa.RSAPrivateNumbers(v[3], v[4], v[2], v[5], v[6], v[7], pub).private_key()
    open(out, "wb").write(priv.private_bytes(serialization.Encoding.PEM,
                                             serialization.PrivateFormat.TraditionalOpenSSL,
                                             serialization.NoEncryption()))
    open(out + ".pub", "wb").write(pub_pem)


main()
