#pragma once

// Signing an executable in place with an appended signature.

#include <optional>
#include <string>

#include "tools/openssl_handles.h"

struct LDSigningIdentity {
  ldssl::Key key;
  ldssl::Certificate leaf;
  ldssl::CertificateStack chain;  // intermediates to carry in the signature; may be empty
  std::string team;               // the leaf's single subject OU
};

// Loads and checks a key, its certificate and optional intermediates (PEM files). On failure
// returns nothing and one line in *error.
std::optional<LDSigningIdentity> LDLoadSigningIdentity(const std::string& keyPath,
                                                       const std::string& certificatePath,
                                                       const std::string& chainPath,
                                                       std::string* error);

// The text of the certificate subject's only OU, read with libcrypto; nothing when it has none
// or several.
std::optional<std::string> LDSingleOrganizationalUnitOf(X509* certificate);

// Reverse-DNS: letters, digits, '.', '-' and '_', at most 255 characters.
bool LDIsValidSigningIdentifier(const std::string& identifier);

// A CMS SignedData blob (DER) over manifestText, carrying the leaf and the chain.
std::optional<std::string> LDMakeSignatureBlob(const std::string& manifestText,
                                               const LDSigningIdentity& identity,
                                               std::string* error);

// The same with a key already loaded (from a token: tools/token_key.h); keyName names it in
// messages.
std::optional<LDSigningIdentity> LDLoadSigningIdentityWithKey(ldssl::Key key, const std::string& keyName,
                                                              const std::string& certificatePath,
                                                              const std::string& chainPath,
                                                              std::string* error);

// Signs path in place as identifier: an existing signature is replaced, the file's mode (and,
// where permitted, its owner) is kept, and the file is swapped in atomically. One line in *error
// on failure, with the file unchanged.
bool LDSignFile(const std::string& path, const std::string& identifier,
                const LDSigningIdentity& identity, std::string* error);
