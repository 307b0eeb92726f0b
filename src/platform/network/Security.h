#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "platform/foundation/NSData.h"

namespace kestrowan {

/// One X.509 certificate, as the peer sent it. Immutable.
struct SecCertificate {
  NSData der;
};

/// What a server presented to prove who it is. Immutable, shared by pointer.
struct SecTrust {
  /// The leaf first; absent when the server sent none.
  std::optional<std::vector<SecCertificate>> certificateChain;
};

/// The certificates that the server of `trust` presented, the leaf first; nothing when none.
inline std::optional<std::vector<SecCertificate>> SecTrustCopyCertificateChain(
    const SecTrust& trust) {
  return trust.certificateChain;
}

/// The DER encoding of the whole certificate.
inline NSData SecCertificateCopyData(const SecCertificate& certificate) {
  return certificate.der;
}

}  // namespace kestrowan
