// Umbrella header of the PKI objects and flat interface.
#pragma once
#include "pki/base64.h"
#include "pki/errors.h"
#include "pki/flat.h"
#include "pki/certificate.h"
#include "pki/dn.h"
#include "pki/name.h"
#include "pki/pkcs10.h"
#include "pki/pkcs7.h"
#include "pki/pkcs12.h"
