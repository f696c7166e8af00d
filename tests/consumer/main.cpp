// A program outside the project that uses the library through its umbrella headers.
#include "asn1/asn1.h"
#include "crypto/crypto.h"
#include "pki/pki.h"

int main() { return 0; }
