#pragma once

#include <optional>
#include <string>

#include "platform/foundation/NSData.h"

namespace kestrowan::FPBridge {

/// The DER bytes of the one certificate in a PEM text: armour lines and line ends are taken out
/// wherever they stand, and the rest is decoded as strict base64. Nothing when anything else is
/// left in between, a blank included.
std::optional<NSData> derFromPEM(std::string pem);

}  // namespace kestrowan::FPBridge
