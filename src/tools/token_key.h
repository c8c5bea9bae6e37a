#pragma once

// A signing key that stays inside a PKCS#11 token (an HSM, a smart card, SoftHSM in tests).

#include <string>

#include "tools/openssl_handles.h"

// Whether text names a key in a token (an RFC 7512 URI) rather than a file.
bool LDIsTokenKeyURI(const std::string& text);

// The key named by an RFC 7512 URI ("pkcs11:token=...;object=...;pin-source=file:..."), through
// the PKCS#11 module at modulePath. The key is a handle: every signature is made by the token.
// On failure returns an empty key and one line in *error.
ldssl::Key LDLoadTokenKey(const std::string& uri, const std::string& modulePath, std::string* error);
