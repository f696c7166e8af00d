#!/usr/bin/python3
"""RSA oracle of the PKCS#11 tests, on pycryptodome (it has MD2; Debian names
its package Cryptodome).

  rsa_oracle.py verify KIND N E DATA SIG   "ok" or "bad": KIND 9 SHA-1, 10 MD5,
                                           11 MD2 with RSA (PKCS#1 v1.5), 8 a
                                           type-1 block holding DATA as is
  rsa_oracle.py encrypt N E IN OUT         PKCS#1 v1.5 encryption of IN
N and E in hex; DATA, SIG, IN and OUT are file paths.
"""
import sys

from Cryptodome.Cipher import PKCS1_v1_5 as Cipher
from Cryptodome.Hash import MD2, MD5, SHA1
from Cryptodome.PublicKey import RSA
from Cryptodome.Signature import pkcs1_15


def main():
    cmd = sys.argv[1]
    if cmd == "verify":
        kind = int(sys.argv[2])
        key = RSA.construct((int(sys.argv[3], 16), int(sys.argv[4], 16)))
        data = open(sys.argv[5], "rb").read()
        sig = open(sys.argv[6], "rb").read()
        if kind == 8:
            k = (key.n.bit_length() + 7) // 8
            em = pow(int.from_bytes(sig, "big"), key.e, key.n).to_bytes(k, "big")
            ps = em[2:k - len(data) - 1]
            good = (len(sig) == k and em[:2] == b"\x00\x01" and len(ps) >= 8
                    and ps == b"\xff" * len(ps) and em[k - len(data) - 1] == 0
                    and em[k - len(data):] == data)
            print("ok" if good else "bad")
            return
        h = {9: SHA1, 10: MD5, 11: MD2}[kind].new(data)
        try:
            pkcs1_15.new(key).verify(h, sig)
            print("ok")
        except ValueError:
            print("bad")
    elif cmd == "encrypt":
        key = RSA.construct((int(sys.argv[2], 16), int(sys.argv[3], 16)))
        data = open(sys.argv[4], "rb").read()
        open(sys.argv[5], "wb").write(Cipher.new(key).encrypt(data))
    else:
        sys.exit("unknown command " + cmd)


if __name__ == "__main__":
    main()
