#include "shared/trust_anchors.h"

#include <openssl/err.h>
#include <openssl/pem.h>

LDTrustAnchors::LDTrustAnchors() : _store(X509_STORE_new()) {}

const LDTrustAnchors& LDTrustAnchors::compiledIn() {
  static const LDTrustAnchors anchors = fromPEM(LDCompiledInAnchorsPEM);
  return anchors;
}

LDTrustAnchors LDTrustAnchors::fromPEM(std::string_view pem, std::string* error) {
  LDTrustAnchors anchors;
  ldssl::Bio input(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  while (input) {
    ldssl::Certificate certificate(PEM_read_bio_X509(input.get(), nullptr, nullptr, nullptr));
    if (!certificate) break;
    if (X509_STORE_add_cert(anchors._store.get(), certificate.get()) == 1) ++anchors._count;
  }
  ERR_clear_error();  // the read that ends the loop leaves a "no start line" behind
  if (anchors._count == 0 && error) *error = "no certificate in the anchor PEM";
  return anchors;
}
