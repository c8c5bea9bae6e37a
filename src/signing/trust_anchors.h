#pragma once

// The roots that signed code must chain to. The helper and the application trust only the
// roots compiled into them (the build option LD_CODE_SIGNING_ANCHOR), never the system's TLS
// store and never a file or variable read at run time.

#include <string>
#include <string_view>
#include <vector>

#include "signing/certificate.h"

class LDTrustAnchors {
 public:
  // The roots compiled into this program, parsed on first use. Built once and never destroyed,
  // so that exit() on another thread cannot pull them from under a verification.
  static const LDTrustAnchors& compiledIn();

  // Roots from PEM text (one or more certificates); an empty set when it holds none, or any that
  // is outside the signing profile, with the reason in *error.
  static LDTrustAnchors fromPEM(std::string_view pem, std::string* error = nullptr);

  // Copies re-parse their own bytes (the certificates point into them); a move is a copy.
  LDTrustAnchors(const LDTrustAnchors& other) { *this = other; }
  LDTrustAnchors& operator=(const LDTrustAnchors& other);

  bool isEmpty() const { return _certificates.empty(); }
  const std::vector<LDCertificate>& certificates() const { return _certificates; }

 private:
  LDTrustAnchors() = default;
  void reparse();
  std::string _der;  // the certificates, one after the other; _certificates point into it
  std::vector<LDCertificate> _certificates;
};

// Defined by the build from LD_CODE_SIGNING_ANCHOR.
extern const std::string_view LDCompiledInAnchorsPEM;
