// Umbrella header of the PKI objects and flat interface.
#pragma once
#include "pki/base64.h"
#include "pki/errors.h"
#include "pki/flat.h"
#include "pki/pkcs12.h"
