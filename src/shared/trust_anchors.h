#pragma once

// The roots that signed code must chain to. The helper and the application trust only the
// roots compiled into them (the build option LD_CODE_SIGNING_ANCHOR), never the system's TLS
// store and never a file or variable read at run time.

#include <string>
#include <string_view>

#include "shared/openssl_handles.h"

class LDTrustAnchors {
 public:
  // The roots compiled into this program.
  static const LDTrustAnchors& compiledIn();

  // Roots from PEM text (one or more certificates); an empty set when it holds none, with the
  // reason in *error.
  static LDTrustAnchors fromPEM(std::string_view pem, std::string* error = nullptr);

  bool isEmpty() const { return _count == 0; }
  X509_STORE* store() const { return _store.get(); }

 private:
  LDTrustAnchors();
  ldssl::Store _store;
  int _count = 0;
};

// Defined by the build from LD_CODE_SIGNING_ANCHOR.
extern const std::string_view LDCompiledInAnchorsPEM;
