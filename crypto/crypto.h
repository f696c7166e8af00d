// Umbrella header of the cryptographic toolkit: digests, ciphers and the RSA engine.
#pragma once

#include "crypto/cbc.h"
#include "crypto/des.h"
#include "crypto/md2.h"
#include "crypto/md5.h"
#include "crypto/rc2.h"
#include "crypto/rc4.h"
#include "crypto/sha1.h"
#include "crypto/rsa.h"
