#include "openssl_oracle.h"

#include <openssl/cms.h>
#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include "signing/code_signature.h"
#include "tools/code_signer.h"
#include "tools/openssl_handles.h"

LDOpenSSLAnchors::LDOpenSSLAnchors(std::string_view pem) : _store(X509_STORE_new()) {
  ldssl::Bio input(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  while (X509* certificate = PEM_read_bio_X509(input.get(), nullptr, nullptr, nullptr)) {
    X509_STORE_add_cert(_store, certificate);
    X509_free(certificate);
  }
  ERR_clear_error();
}

LDOpenSSLAnchors::~LDOpenSSLAnchors() { X509_STORE_free(_store); }

int32_t LDOpenSSLVerifyBlob(std::string_view blob, X509_STORE* anchors, std::string* team) {
  const auto* cursor = reinterpret_cast<const unsigned char*>(blob.data());
  ldssl::Cms cms(d2i_CMS_ContentInfo(nullptr, &cursor, static_cast<long>(blob.size())));
  ERR_clear_error();
  if (!cms || cursor != reinterpret_cast<const unsigned char*>(blob.data() + blob.size()) ||
      OBJ_obj2nid(CMS_get0_type(cms.get())) != NID_pkcs7_signed || CMS_is_detached(cms.get()) == 1) {
    return errSecCSSignatureInvalid;
  }
  STACK_OF(CMS_SignerInfo)* signers = CMS_get0_SignerInfos(cms.get());
  ldssl::CertificateStack certificates(CMS_get1_certs(cms.get()));
  if (signers == nullptr || sk_CMS_SignerInfo_num(signers) != 1 || !certificates) {
    return errSecCSSignatureInvalid;
  }
  CMS_set1_signers_certs(cms.get(), nullptr, 0);
  ERR_clear_error();
  X509* signer = nullptr;
  CMS_SignerInfo_get0_algs(sk_CMS_SignerInfo_value(signers, 0), nullptr, &signer, nullptr, nullptr);
  if (signer == nullptr) return errSecCSSignatureInvalid;
  ldssl::Bio manifestText(BIO_new(BIO_s_mem()));
  const int verified = CMS_verify(cms.get(), nullptr, nullptr, nullptr, manifestText.get(),
                                  CMS_NO_SIGNER_CERT_VERIFY | CMS_BINARY);
  ERR_clear_error();
  if (verified != 1) return errSecCSSignatureFailed;
  char* text = nullptr;
  const long length = BIO_get_mem_data(manifestText.get(), &text);
  const auto manifest = LDParseManifest(std::string_view(text, static_cast<size_t>(length)));
  const auto leafTeam = LDSingleOrganizationalUnitOf(signer);
  if (!manifest || !leafTeam || *leafTeam != manifest->team) return errSecCSSignatureInvalid;

  ldssl::StoreContext context(X509_STORE_CTX_new());
  X509_STORE_CTX_init(context.get(), anchors, signer, certificates.get());
  X509_VERIFY_PARAM_set_flags(X509_STORE_CTX_get0_param(context.get()), X509_V_FLAG_NO_CHECK_TIME);
  const int trusted = X509_verify_cert(context.get());
  ERR_clear_error();
  if (trusted != 1 || (X509_get_extension_flags(signer) & EXFLAG_XKUSAGE) == 0 ||
      (X509_get_extended_key_usage(signer) & XKU_CODE_SIGN) == 0) {
    return errSecCSSignatureUntrusted;
  }
  if (team) *team = *leafTeam;
  return LDCodeSigningStatusOK;
}

std::optional<std::string> LDDisagreementWithOpenSSL(std::string_view blob, const LDTrustAnchors& ours,
                                                     const LDOpenSSLAnchors& theirs) {
  const LDSignatureContents contents = LDReadSignatureBlob(LDBytesOf(blob));
  std::string detail = contents.detail;
  int32_t status = contents.status;
  bool outsideProfile = contents.outsideProfile;
  if (status == LDCodeSigningStatusOK) status = LDVerifyChain(contents, ours.certificates(), &detail, &outsideProfile);
  std::string theirTeam;
  const int32_t reference = LDOpenSSLVerifyBlob(blob, theirs.store(), &theirTeam);
  if (status == reference) {
    if (status != LDCodeSigningStatusOK || contents.leafTeam == theirTeam) return std::nullopt;
    return "both accept, with teams \"" + contents.leafTeam + "\" and \"" + theirTeam + "\"";
  }
  // A documented refusal of the profile that a general verifier does not make.
  if (status != LDCodeSigningStatusOK && outsideProfile) return std::nullopt;
  return "verifier " + std::to_string(status) + " (" + detail + "), OpenSSL " + std::to_string(reference);
}
