#!/usr/bin/python3
"""Independent checks of PKCS #7 messages for the tests, on Python
cryptography and pycryptodome. Only a minimal DER reader and writer is ours.

  verify-signed MSG CONTENT CERT
      checks the one signer of a signedData over CONTENT with CERT's key;
      prints "<digest> ok"
  make-sae CONTENT SIGNER-CERT SIGNER-KEY RECIPIENT-CERT OUT
      writes a signedAndEnvelopedData (DES-EDE3-CBC, SHA-1, authenticated
      attributes, the encrypted digest enciphered again under the content key)
  open-sae MSG RECIPIENT-KEY SIGNER-CERT OUT
      decrypts a signedAndEnvelopedData as that recipient, checks its signer
      and writes the content; prints "ok"
  parts-sae MSG DIR
      writes the first recipient's encrypted key (key.enc), the content IV in
      hex (iv.hex) and the encrypted content (content.enc) into DIR
"""
import os
import sys

from cryptography import x509
from cryptography.hazmat.primitives import serialization
from cryptography.hazmat.primitives.asymmetric import padding
from Cryptodome.Cipher import ARC2, ARC4, DES, DES3
from Cryptodome.Hash import MD2, MD5, SHA1
from Cryptodome.Util.Padding import pad, unpad

OID_DATA = "1.2.840.113549.1.7.1"
OID_SAE = "1.2.840.113549.1.7.4"
HASHES = {"1.3.14.3.2.26": ("sha1", SHA1), "1.2.840.113549.2.5": ("md5", MD5),
          "1.2.840.113549.2.2": ("md2", MD2)}


# ---- DER -------------------------------------------------------------------

def tlv_at(b, i):
    """(tag, start of content, end) of the element at i."""
    tag = b[i]
    i += 1
    n = b[i]
    i += 1
    if n & 0x80:
        k = n & 0x7F
        n = int.from_bytes(b[i:i + k], "big")
        i += k
    return tag, i, i + n


def kids(b):
    """The elements inside the content octets b: (tag, whole, content)."""
    out, i = [], 0
    while i < len(b):
        tag, s, e = tlv_at(b, i)
        out.append((tag, b[i:e], b[s:e]))
        i = e
    return out


def content_of(whole):
    _, s, e = tlv_at(whole, 0)
    return whole[s:e]


def oid_text(content):
    arcs, v = [], 0
    for c in content:
        v = (v << 7) | (c & 0x7F)
        if not c & 0x80:
            arcs.append(v)
            v = 0
    first = min(arcs[0] // 40, 2)
    return ".".join(str(x) for x in [first, arcs[0] - 40 * first] + arcs[1:])


def enc(tag, content):
    n = len(content)
    if n < 0x80:
        head = bytes([n])
    else:
        d = n.to_bytes((n.bit_length() + 7) // 8, "big")
        head = bytes([0x80 | len(d)]) + d
    return bytes([tag]) + head + content


def seq(*items):
    return enc(0x30, b"".join(items))


def set_of(*items):
    return enc(0x31, b"".join(sorted(items)))


def oid(text):
    arcs = [int(x) for x in text.split(".")]
    out = bytearray()
    for a in [arcs[0] * 40 + arcs[1]] + arcs[2:]:
        chunk = [a & 0x7F]
        a >>= 7
        while a:
            chunk.append(0x80 | (a & 0x7F))
            a >>= 7
        out += bytes(reversed(chunk))
    return enc(0x06, bytes(out))


def integer(v):
    return enc(0x02, v.to_bytes(v.bit_length() // 8 + 1, "big"))


NULL = b"\x05\x00"


# ---- helpers ---------------------------------------------------------------

def read(path):
    with open(path, "rb") as f:
        return f.read()


def load_cert(path):
    data = read(path)
    return x509.load_pem_x509_certificate(data) if b"-----" in data else \
        x509.load_der_x509_certificate(data)


def load_key(path):
    return serialization.load_pem_private_key(read(path), None)


def issuer_and_serial(cert):
    der = cert.public_bytes(serialization.Encoding.DER)
    tbs = kids(content_of(der))[0][2]
    parts = kids(tbs)
    if parts[0][0] == 0xA0:
        parts = parts[1:]
    return seq(parts[2][1], parts[0][1])  # issuer, serialNumber


def digest_info(hash_oid, md):
    return seq(seq(oid(hash_oid), NULL), enc(0x04, md))


def recover(cert, sig):
    return cert.public_key().recover_data_from_signature(sig, padding.PKCS1v15(), None)


def check_signer(si, content, cert, unwrap=None):
    """Checks a SignerInfo over content; returns the digest name."""
    parts = kids(si)
    hash_oid = oid_text(kids(parts[2][2])[0][2])
    name, H = HASHES[hash_oid]
    md = H.new(content).digest()
    covered = md
    i = 3
    if parts[i][0] == 0xA0:
        attrs = parts[i][1]
        found = None
        for _, _, a in kids(parts[i][2]):
            t, vals = kids(a)
            if oid_text(t[2]) == "1.2.840.113549.1.9.4":
                found = kids(vals[2])[0][2]
        if found != md:
            sys.exit("message digest attribute does not match")
        covered = H.new(b"\x31" + attrs[1:]).digest()
        i += 1
    sig = parts[i + 1][2]
    if unwrap:
        sig = unwrap(sig)
    if recover(cert, sig) != digest_info(hash_oid, covered):
        sys.exit("signature does not verify")
    return name


# ---- commands --------------------------------------------------------------

def verify_signed(msg_path, content_path, cert_path):
    ci = kids(content_of(read(msg_path)))
    sd = kids(kids(ci[1][2])[0][2])
    signer_infos = kids(sd[-1][2])
    if len(signer_infos) != 1:
        sys.exit("expected one signer")
    print(check_signer(signer_infos[0][2], read(content_path), load_cert(cert_path)), "ok")


def cbc3(key, iv):
    return DES3.new(key, DES3.MODE_CBC, iv)


def make_sae(content_path, signer_cert, signer_key, recip_cert, out_path):
    content = read(content_path)
    scert, rcert = load_cert(signer_cert), load_cert(recip_cert)
    key = DES3.adjust_key_parity(os.urandom(24))
    iv = os.urandom(8)
    md = SHA1.new(content).digest()
    attrs = [seq(oid("1.2.840.113549.1.9.3"), set_of(oid(OID_DATA))),
             seq(oid("1.2.840.113549.1.9.4"), set_of(enc(0x04, md)))]
    attr_set = set_of(*attrs)
    covered = SHA1.new(attr_set).digest()
    from cryptography.hazmat.primitives import hashes
    from cryptography.hazmat.primitives.asymmetric import utils
    sig = load_key(signer_key).sign(covered, padding.PKCS1v15(),
                                    utils.Prehashed(hashes.SHA1()))
    sealed_sig = cbc3(key, iv).encrypt(pad(sig, 8))
    sha1_alg = seq(oid("1.3.14.3.2.26"), NULL)
    rsa_alg = seq(oid("1.2.840.113549.1.1.1"), NULL)
    signer_info = seq(integer(1), issuer_and_serial(scert), sha1_alg,
                      enc(0xA0, b"".join(sorted(attrs))), rsa_alg, enc(0x04, sealed_sig))
    wrapped = rcert.public_key().encrypt(key, padding.PKCS1v15())
    recipient_info = seq(integer(0), issuer_and_serial(rcert), rsa_alg, enc(0x04, wrapped))
    eci = seq(oid(OID_DATA), seq(oid("1.2.840.113549.3.7"), enc(0x04, iv)),
              enc(0x80, cbc3(key, iv).encrypt(pad(content, 8))))
    sae = seq(integer(1), set_of(recipient_info), set_of(sha1_alg), eci,
              enc(0xA0, scert.public_bytes(serialization.Encoding.DER)), set_of(signer_info))
    with open(out_path, "wb") as f:
        f.write(seq(oid(OID_SAE), enc(0xA0, sae)))


def open_sae(msg_path, recip_key, signer_cert, out_path):
    ci = kids(content_of(read(msg_path)))
    if oid_text(ci[0][2]) != OID_SAE:
        sys.exit("not signedAndEnvelopedData")
    parts = kids(kids(ci[1][2])[0][2])
    if parts[0][2] != b"\x01":
        sys.exit("version is not 1")
    key = None
    priv = load_key(recip_key)
    for _, _, ri in kids(parts[1][2]):
        try:
            key = priv.decrypt(kids(ri)[3][2], padding.PKCS1v15())
        except ValueError:
            continue
    if key is None:
        sys.exit("no recipient information for this key")
    eci = kids(parts[3][2])
    alg = kids(eci[1][2])
    alg_oid = oid_text(alg[0][2])
    if alg_oid == "1.2.840.113549.3.7":
        make = lambda: DES3.new(key, DES3.MODE_CBC, alg[1][2])
    elif alg_oid == "1.3.14.3.2.7":
        make = lambda: DES.new(key, DES.MODE_CBC, alg[1][2])
    elif alg_oid == "1.2.840.113549.3.2":
        p = kids(alg[1][2])
        bits = {160: 40, 120: 64, 58: 128}[int.from_bytes(p[0][2], "big")]
        make = lambda: ARC2.new(key, ARC2.MODE_CBC, p[1][2], effective_keylen=bits)
    elif alg_oid == "1.2.840.113549.3.4":
        make = lambda: ARC4.new(key)
    else:
        sys.exit("unknown cipher " + alg_oid)
    stream = alg_oid == "1.2.840.113549.3.4"
    def decrypt(data):
        plain = make().decrypt(data)
        return plain if stream else unpad(plain, 8)
    content = decrypt(eci[2][2])
    cert = load_cert(signer_cert)
    for _, _, si in kids(parts[-1][2]):
        check_signer(si, content, cert, decrypt)
    with open(out_path, "wb") as f:
        f.write(content)
    print("ok")


def parts_sae(msg_path, out_dir):
    ci = kids(content_of(read(msg_path)))
    parts = kids(kids(ci[1][2])[0][2])
    first = kids(kids(parts[1][2])[0][2])
    eci = kids(parts[3][2])
    for name, data in (("key.enc", first[3][2]), ("iv.hex", kids(eci[1][2])[1][2].hex().encode()),
                       ("content.enc", eci[2][2])):
        with open(os.path.join(out_dir, name), "wb") as f:
            f.write(data)


def main():
    cmd, args = sys.argv[1], sys.argv[2:]
    {"verify-signed": verify_signed, "make-sae": make_sae, "open-sae": open_sae,
     "parts-sae": parts_sae}[cmd](*args)


if __name__ == "__main__":
    main()
