#!/usr/bin/python3
# Writes md2-pycryptodome.txt and rc2-cbc-pycryptodome.txt with pycryptodome
# as the independent oracle. Deterministic: rerunning gives the same files.
#   /usr/bin/python3 tests/data/crypto/gen_vectors.py
import os
import random

from Cryptodome.Cipher import ARC2
from Cryptodome.Hash import MD2
from Cryptodome.Util.Padding import pad

here = os.path.dirname(os.path.abspath(__file__))
rng = random.Random(20261123)


def rand_bytes(n):
    return bytes(rng.getrandbits(8) for _ in range(n))


with open(os.path.join(here, "md2-pycryptodome.txt"), "w") as f:
    f.write("# MD2 of random messages, computed with pycryptodome by gen_vectors.py\n\n")
    lengths = list(range(0, 70)) + [127, 128, 129, 255, 256, 1000, 4097]
    for n in lengths:
        msg = rand_bytes(n)
        f.write("Len = %d\nMsg = %s\nMD = %s\n\n" % (8 * n, msg.hex() or "00", MD2.new(msg).hexdigest()))

with open(os.path.join(here, "rc2-cbc-pycryptodome.txt"), "w") as f:
    f.write("# RC2-CBC with PKCS#5 padding, computed with pycryptodome by gen_vectors.py.\n")
    f.write("# CIPHERTEXT encrypts PLAINTEXT after padding.\n\n")
    count = 0
    for key_len in (5, 7, 8, 13, 16, 33, 64, 128):
        for bits in (40, 41, 63, 64, 100, 128, 129, 255, 256, 512, 1023, 1024):
            key = rand_bytes(key_len)
            iv = rand_bytes(8)
            msg = rand_bytes(rng.choice([0, 1, 7, 8, 9, 15, 16, 17, 31, 64, 100]))
            ct = ARC2.new(key, ARC2.MODE_CBC, iv=iv, effective_keylen=bits).encrypt(pad(msg, 8))
            f.write("COUNT = %d\nKEY = %s\nEFFECTIVE_BITS = %d\nIV = %s\nPLAINTEXT = %s\nCIPHERTEXT = %s\n\n"
                    % (count, key.hex(), bits, iv.hex(), msg.hex(), ct.hex()))
            count += 1
