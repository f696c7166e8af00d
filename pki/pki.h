// Umbrella header of the PKI objects and flat interface.
#pragma once
