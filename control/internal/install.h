// Certificate installation steps shared by the install and KMC import
// methods.
#pragma once

#include <string>
#include <vector>

#include "control/platform.h"

namespace kv::control {

// The certificates of a bundle in chain order: the self-signed one in slot 0,
// those that issued another in the middle slots in the order met, the one
// that issued none in the last slot; later ones of a class overwrite earlier
// ones in the first and last slot. Slots nobody filled stay empty.
std::vector<Bytes> ChainOrder(const std::vector<Bytes>& certs);

// Puts the bundle's chain into the stores: the root into "ROOT", those
// between into "CA", the leaf nowhere. False when the bundle cannot be read,
// holds fewer than two certificates, or a store step fails.
bool InstallChain(Platform& p, const Bytes& p7);

}  // namespace kv::control
