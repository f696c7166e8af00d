#!/usr/bin/python3
# Writes kdf-openssl.txt (RFC 7292 appendix B key derivation, by the OpenSSL
# command's PKCS12KDF) and hmac-sha1.txt (HMAC-SHA-1 by Python's hmac).
# The BMP form of each password comes from Python's UTF-16 codec.
# Deterministic: rerunning gives the same files.
#   /usr/bin/python3 tests/data/pkcs12/gen_vectors.py
import hashlib
import hmac
import os
import random
import subprocess

here = os.path.dirname(os.path.abspath(__file__))
rng = random.Random(20261123)


def rand_bytes(n):
    return bytes(rng.getrandbits(8) for _ in range(n))


def bmp(text):
    return text.encode("utf-16-be") + b"\0\0"


def kdf(password, salt, iterations, ident, n):
    args = ["openssl", "kdf", "-keylen", str(n), "-kdfopt", "hexpass:" + bmp(password).hex(),
            "-kdfopt", "iter:%d" % iterations, "-kdfopt", "id:%d" % ident,
            "-kdfopt", "digest:SHA1"]
    if salt:
        args += ["-kdfopt", "hexsalt:" + salt.hex()]
    args.append("PKCS12KDF")
    out = subprocess.run(args, check=True, capture_output=True, text=True).stdout
    return out.strip().replace(":", "").lower()


cases = [
    ("smeg", bytes.fromhex("0a58cf64530d823f"), 1, 1, 24),
    ("smeg", bytes.fromhex("0a58cf64530d823f"), 1, 2, 8),
    ("queeg", bytes.fromhex("05dec959acff72f7"), 1000, 1, 24),
    ("queeg", bytes.fromhex("05dec959acff72f7"), 1000, 2, 8),
    ("58203716", rand_bytes(8), 2048, 1, 24),
    ("58203716", rand_bytes(8), 2048, 2, 8),
    ("58203716", rand_bytes(8), 2048, 3, 20),
    ("", rand_bytes(8), 3, 3, 20),
    ("p\u00e4ssw\u00f6rd \u53e3\u4ee4", rand_bytes(8), 2048, 1, 5),
    ("emoji \U0001f511 key", rand_bytes(8), 7, 1, 16),
    # A password of more than one 64-octet block, a salt of 20 octets and an
    # output of four digest lengths: every carry path of step 6C.
    ("x" * 70, rand_bytes(20), 2, 1, 80),
    ("ab", rand_bytes(65), 1, 3, 41),
]

with open(os.path.join(here, "kdf-openssl.txt"), "w") as f:
    f.write("# PKCS #12 key derivation (RFC 7292 appendix B, SHA-1), by gen_vectors.py with\n")
    f.write("# 'openssl kdf ... PKCS12KDF'. PASSWORD is UTF-8 in hex, BMP its BMPString form\n")
    f.write("# with the two closing zeros (Python's UTF-16 codec).\n\n")
    for pw, salt, it, ident, n in cases:
        f.write("PASSWORD = %s\nBMP = %s\nSALT = %s\nITERATIONS = %d\nID = %d\nOUT = %s\n\n" % (
            pw.encode().hex() or "-", bmp(pw).hex(), salt.hex() or "-", it, ident,
            kdf(pw, salt, it, ident, n)))

with open(os.path.join(here, "hmac-sha1.txt"), "w") as f:
    f.write("# HMAC-SHA-1 by Python's hmac module, by gen_vectors.py; the RFC 2202 cases\n")
    f.write("# and random keys around the 64-octet block size.\n\n")
    rfc = [(b"\x0b" * 20, b"Hi There"), (b"Jefe", b"what do ya want for nothing?"),
           (b"\xaa" * 80, b"Test Using Larger Than Block-Size Key - Hash Key First")]
    for n in (0, 1, 20, 63, 64, 65, 200):
        rfc.append((rand_bytes(n), rand_bytes(rng.randrange(0, 300))))
    for key, msg in rfc:
        f.write("KEY = %s\nMSG = %s\nMAC = %s\n\n" % (
            key.hex() or "-", msg.hex() or "-", hmac.new(key, msg, hashlib.sha1).hexdigest()))

# What Python's cryptography reads from the vectors package's PFX files: the
# certificates' friendly names (sorted; "-" for none), the key's type, and
# whether a PBES2 scheme (which the reader refuses with -1006) protects a bag.
from cryptography.hazmat.primitives.asymmetric import rsa  # noqa: E402
from cryptography.hazmat.primitives.serialization import pkcs12  # noqa: E402

vec = "/usr/lib/python3/dist-packages/cryptography_vectors/pkcs12"
with open(os.path.join(here, "vectors-python.txt"), "w") as f:
    f.write("# The cryptography_vectors pkcs12/ files as Python's cryptography reads them,\n")
    f.write("# by gen_vectors.py. PASSWORD '-' means none. STATUS is ours: -1006 where a\n")
    f.write("# bag is under PBES2.\n\n")
    for name in sorted(os.listdir(vec)):
        if not name.endswith(".p12") or name == "no-password.p12":
            continue
        data = open(os.path.join(vec, name), "rb").read()
        for pw in (b"cryptography", b"password", None):
            try:
                p = pkcs12.load_pkcs12(data, pw)
                break
            except ValueError:
                p = None
        certs = ([p.cert] if p.cert else []) + list(p.additional_certs)
        names = sorted(c.friendly_name.decode() if c.friendly_name else "-" for c in certs)
        key = "none" if p.key is None else "rsa" if isinstance(p.key, rsa.RSAPrivateKey) else "other"
        info = subprocess.run(["openssl", "pkcs12", "-legacy", "-info", "-noout", "-in",
                               os.path.join(vec, name), "-passin",
                               "pass:" + (pw or b"").decode()],
                              capture_output=True, text=True).stderr
        f.write("FILE = %s\nPASSWORD = %s\nCERTS = %d\nNAMES = %s\nKEY = %s\nSTATUS = %d\n\n" % (
            name, pw.decode() if pw else "-", len(certs), ",".join(names).encode().hex(), key,
            -1006 if "PBES2" in info else 0))
