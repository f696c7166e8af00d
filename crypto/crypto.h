// Umbrella header of the cryptographic toolkit: digests, ciphers and the RSA engine.
#pragma once

#include "crypto/sha1.h"
#include "crypto/rsa.h"
