#pragma once

// Owners for the OpenSSL objects the code-signature code holds, so that every path frees them.

#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include <memory>

namespace ldssl {

template <auto Free>
struct Deleter {
  template <class T>
  void operator()(T* object) const noexcept {
    Free(object);
  }
};

using Bio = std::unique_ptr<BIO, Deleter<BIO_free_all>>;
using Cms = std::unique_ptr<CMS_ContentInfo, Deleter<CMS_ContentInfo_free>>;
using Key = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
using DigestContext = std::unique_ptr<EVP_MD_CTX, Deleter<EVP_MD_CTX_free>>;
using Certificate = std::unique_ptr<X509, Deleter<X509_free>>;
using Store = std::unique_ptr<X509_STORE, Deleter<X509_STORE_free>>;
using StoreContext = std::unique_ptr<X509_STORE_CTX, Deleter<X509_STORE_CTX_free>>;

struct CertificateStackDeleter {
  void operator()(STACK_OF(X509)* stack) const noexcept { sk_X509_pop_free(stack, X509_free); }
};
using CertificateStack = std::unique_ptr<STACK_OF(X509), CertificateStackDeleter>;

}  // namespace ldssl
