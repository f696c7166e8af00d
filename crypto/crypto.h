// Umbrella header of the cryptographic toolkit: digests, ciphers, the RSA
// engine, the token operation layer and the key format conversions.
#pragma once

#include "crypto/cbc.h"
#include "crypto/des.h"
#include "crypto/keyconv.h"
#include "crypto/md2.h"
#include "crypto/md5.h"
#include "crypto/p11.h"
#include "crypto/rc2.h"
#include "crypto/rc4.h"
#include "crypto/rsa.h"
#include "crypto/sha1.h"
#include "crypto/t_alloc.h"
