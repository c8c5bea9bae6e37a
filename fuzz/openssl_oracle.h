#pragma once

// The reference for the verifier: the same checks as LDReadSignatureBlob and LDVerifyChain, made
// by OpenSSL's CMS and X509 verification, and the comparison of the two on one signature blob.
// Used by the differential test and the differential fuzzer; never by the shipped programs.

#include <openssl/x509_vfy.h>

#include <optional>
#include <string>
#include <string_view>

#include "signing/trust_anchors.h"

class LDOpenSSLAnchors {
 public:
  explicit LDOpenSSLAnchors(std::string_view pem);
  ~LDOpenSSLAnchors();
  LDOpenSSLAnchors(const LDOpenSSLAnchors&) = delete;
  LDOpenSSLAnchors& operator=(const LDOpenSSLAnchors&) = delete;
  X509_STORE* store() const { return _store; }

 private:
  X509_STORE* _store;
};

// OpenSSL's status for the blob: 0, errSecCSSignatureInvalid, errSecCSSignatureFailed or
// errSecCSSignatureUntrusted, with the same meanings as the verifier's.
int32_t LDOpenSSLVerifyBlob(std::string_view blob, X509_STORE* anchors, std::string* team);

// Nothing when the verifier and OpenSSL agree on blob: the same status (and team when valid),
// or a refusal by the verifier of something outside the signing profile. Otherwise what differs.
std::optional<std::string> LDDisagreementWithOpenSSL(std::string_view blob, const LDTrustAnchors& ours,
                                                     const LDOpenSSLAnchors& theirs);
