#!/usr/bin/python3
# Independent reader and writer of PFX files for the tests, on Python's
# cryptography package.
#   p12_oracle.py read FILE PASSFILE
#       prints "key-n HEX", "key-d HEX", "cert HEX", "name TEXT-HEX" (UTF-8 in
#       hex) and one "other HEX" line per further certificate; exit 3 when the
#       password is wrong or the file unreadable.
#   p12_oracle.py write OUT PASSFILE KEYPEM CERTPEM [CAPEM] ALG NAME
#       ALG is 3des (PBESv1SHA1And3KeyTripleDESCBC) or aes (PBES2 AES-256).
import sys

from cryptography.hazmat.primitives import serialization
from cryptography.hazmat.primitives.serialization import pkcs12


def main():
    mode = sys.argv[1]
    password = open(sys.argv[3], "rb").read()
    if mode == "read":
        try:
            p = pkcs12.load_pkcs12(open(sys.argv[2], "rb").read(), password)
        except ValueError:
            return 3
        if p.key is not None:
            nums = p.key.private_numbers()
            print("key-n %x" % nums.public_numbers.n)
            print("key-d %x" % nums.d)
        if p.cert is not None:
            print("cert " + p.cert.certificate.public_bytes(serialization.Encoding.DER).hex())
            if p.cert.friendly_name is not None:
                print("name " + p.cert.friendly_name.hex())
        for c in p.additional_certs:
            print("other " + c.certificate.public_bytes(serialization.Encoding.DER).hex())
        return 0
    out, keyfile, certfile = sys.argv[2], sys.argv[4], sys.argv[5]
    cas = [] if len(sys.argv) < 9 else [sys.argv[6]]
    alg, name = sys.argv[-2], sys.argv[-1].encode()
    from cryptography import x509
    key = serialization.load_pem_private_key(open(keyfile, "rb").read(), None)
    cert = x509.load_pem_x509_certificate(open(certfile, "rb").read())
    others = [x509.load_pem_x509_certificate(open(c, "rb").read()) for c in cas]
    if alg == "3des":
        enc = (serialization.PrivateFormat.PKCS12.encryption_builder()
               .kdf_rounds(2048)
               .key_cert_algorithm(pkcs12.PBES.PBESv1SHA1And3KeyTripleDESCBC)
               .hmac_hash(__import__("cryptography.hazmat.primitives.hashes",
                                     fromlist=["SHA1"]).SHA1())
               .build(password))
    else:
        enc = serialization.BestAvailableEncryption(password)
    data = pkcs12.serialize_key_and_certificates(name or None, key, cert, others or None, enc)
    open(out, "wb").write(data)
    return 0


sys.exit(main())
