#include "shared/code_signature.h"

#include <openssl/objects.h>
#include <openssl/x509v3.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <memory>

namespace {

constexpr std::string_view kManifestHeader = "ld-codesign-manifest 1";
constexpr uint8_t kInfoPrefix[8] = {0, 0, 2, 0, 0, 0, 0, 0};

// A manifest value: non-empty, no control characters (which also rules out LF and NUL).
bool isPlainValue(std::string_view value) {
  if (value.empty()) return false;
  for (const char c : value) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) return false;
  }
  return true;
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;  // upper case is not accepted: one spelling per digest
}

// Takes the next line (without its LF) off the front of text; false if no LF is left.
bool takeLine(std::string_view& text, std::string_view& line) {
  const size_t end = text.find('\n');
  if (end == std::string_view::npos) return false;
  line = text.substr(0, end);
  text.remove_prefix(end + 1);
  return true;
}

bool takeField(std::string_view& text, std::string_view name, std::string_view& value) {
  std::string_view line;
  if (!takeLine(text, line)) return false;
  if (line.size() <= name.size() || line.substr(0, name.size()) != name || line[name.size()] != ' ') {
    return false;
  }
  value = line.substr(name.size() + 1);
  return true;
}

LDSignatureContents failed(LDSignatureContents&& contents, int32_t status, std::string detail) {
  contents.status = status;
  contents.detail = std::move(detail);
  return std::move(contents);
}

}  // namespace

std::optional<std::string> LDSingleOrganizationalUnit(X509* certificate) {
  X509_NAME* subject = X509_get_subject_name(certificate);
  const int first = X509_NAME_get_index_by_NID(subject, NID_organizationalUnitName, -1);
  if (first < 0 || X509_NAME_get_index_by_NID(subject, NID_organizationalUnitName, first) >= 0) {
    return std::nullopt;
  }
  unsigned char* utf8 = nullptr;
  const int length =
      ASN1_STRING_to_UTF8(&utf8, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, first)));
  if (length < 0) return std::nullopt;
  std::string text(reinterpret_cast<const char*>(utf8), static_cast<size_t>(length));
  OPENSSL_free(utf8);
  return text;
}

namespace {

// Large enough to keep the digest near the speed of memory, small enough for a helper that is
// meant to stay within a few MiB.
constexpr size_t kHashBufferSize = 256 * 1024;

}  // namespace

// Reads exactly length bytes at offset; false on a short read or an error.
bool LDReadFully(int fd, uint64_t offset, char* buffer, size_t length) {
  while (length > 0) {
    const ssize_t got = ::pread(fd, buffer, length, static_cast<off_t>(offset));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    buffer += got;
    offset += static_cast<uint64_t>(got);
    length -= static_cast<size_t>(got);
  }
  return true;
}

bool LDDigestOfDescriptor(int fd, uint64_t size, std::array<uint8_t, 32>& digest) {
  ldssl::DigestContext context(EVP_MD_CTX_new());
  if (!context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) return false;
  (void)::posix_fadvise(fd, 0, static_cast<off_t>(size), POSIX_FADV_SEQUENTIAL);
  const std::unique_ptr<char[]> buffer(new char[kHashBufferSize]);
  uint64_t offset = 0;
  while (offset < size) {
    const size_t chunk = static_cast<size_t>(std::min<uint64_t>(kHashBufferSize, size - offset));
    if (!LDReadFully(fd, offset, buffer.get(), chunk)) return false;
    if (EVP_DigestUpdate(context.get(), buffer.get(), chunk) != 1) return false;
    offset += chunk;
  }
  unsigned int length = 0;
  return EVP_DigestFinal_ex(context.get(), digest.data(), &length) == 1 && length == digest.size();
}

std::string LDHex(const uint8_t* bytes, size_t length) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(2 * length);
  for (size_t i = 0; i < length; ++i) {
    hex.push_back(kDigits[bytes[i] >> 4]);
    hex.push_back(kDigits[bytes[i] & 0x0f]);
  }
  return hex;
}

std::string LDFormatManifest(const LDSignatureManifest& manifest) {
  std::string text(kManifestHeader);
  text += "\nidentifier " + manifest.identifier;
  text += "\nteam " + manifest.team;
  text += "\nsize " + std::to_string(manifest.size);
  text += "\nsha256 " + LDHex(manifest.sha256.data(), manifest.sha256.size());
  text += "\n";
  return text;
}

std::optional<LDSignatureManifest> LDParseManifest(std::string_view text) {
  std::string_view header, identifier, team, size, digest;
  if (!takeLine(text, header) || header != kManifestHeader) return std::nullopt;
  if (!takeField(text, "identifier", identifier) || !isPlainValue(identifier)) return std::nullopt;
  if (!takeField(text, "team", team) || !isPlainValue(team)) return std::nullopt;
  if (!takeField(text, "size", size) || !takeField(text, "sha256", digest) || !text.empty()) {
    return std::nullopt;
  }
  LDSignatureManifest manifest;
  manifest.identifier = identifier;
  manifest.team = team;
  // Decimal without sign or leading zeros, so that one size has one spelling.
  if (size.empty() || (size.size() > 1 && size[0] == '0')) return std::nullopt;
  const auto [end, result] = std::from_chars(size.data(), size.data() + size.size(), manifest.size);
  if (result != std::errc() || end != size.data() + size.size()) return std::nullopt;
  if (digest.size() != 2 * manifest.sha256.size()) return std::nullopt;
  for (size_t i = 0; i < manifest.sha256.size(); ++i) {
    const int high = hexValue(digest[2 * i]);
    const int low = hexValue(digest[2 * i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    manifest.sha256[i] = static_cast<uint8_t>(high << 4 | low);
  }
  return manifest;
}

LDSignatureLocation LDLocateSignatureOfDescriptor(int fd, uint64_t fileSize) {
  std::string tail(std::min<uint64_t>(fileSize, LDSignatureTrailerSize), '\0');
  if (!LDReadFully(fd, fileSize - tail.size(), tail.data(), tail.size())) {
    return {errSecCSSignatureNotVerifiable};
  }
  return LDLocateSignature(fileSize, tail);
}

std::string LDFormatSignatureTrailer(uint32_t blobSize) {
  std::string trailer(reinterpret_cast<const char*>(kInfoPrefix), sizeof kInfoPrefix);
  for (const int shift : {24, 16, 8, 0}) {
    trailer.push_back(static_cast<char>((blobSize >> shift) & 0xff));
  }
  trailer += LDSignatureMagic;
  return trailer;
}

LDSignatureLocation LDLocateSignature(uint64_t fileSize, std::string_view tail) {
  if (fileSize < LDSignatureTrailerSize || tail.size() != LDSignatureTrailerSize ||
      tail.substr(LDSignatureInfoSize) != LDSignatureMagic) {
    return {errSecCSUnsigned};
  }
  const auto* info = reinterpret_cast<const uint8_t*>(tail.data());
  if (!std::equal(info, info + sizeof kInfoPrefix, kInfoPrefix)) {
    return {errSecCSSignatureInvalid};
  }
  const uint32_t blobSize = uint32_t{info[8]} << 24 | uint32_t{info[9]} << 16 |
                            uint32_t{info[10]} << 8 | uint32_t{info[11]};
  if (blobSize == 0 || blobSize > LDMaximumSignatureSize ||
      blobSize > fileSize - LDSignatureTrailerSize) {
    return {errSecCSSignatureInvalid};
  }
  return {LDCodeSigningStatusOK, fileSize - LDSignatureTrailerSize - blobSize, blobSize};
}

LDSignatureContents LDReadSignatureBlob(std::string_view blob) {
  LDSignatureContents contents;
  const auto* cursor = reinterpret_cast<const unsigned char*>(blob.data());
  ldssl::Cms cms(d2i_CMS_ContentInfo(nullptr, &cursor, static_cast<long>(blob.size())));
  if (!cms || cursor != reinterpret_cast<const unsigned char*>(blob.data() + blob.size())) {
    return failed(std::move(contents), errSecCSSignatureInvalid,
                  "the signature is not a single DER-encoded CMS object");
  }
  if (OBJ_obj2nid(CMS_get0_type(cms.get())) != NID_pkcs7_signed) {
    return failed(std::move(contents), errSecCSSignatureInvalid, "the signature is not CMS SignedData");
  }
  if (CMS_is_detached(cms.get()) == 1) {
    return failed(std::move(contents), errSecCSSignatureInvalid, "the signature carries no manifest");
  }
  STACK_OF(CMS_SignerInfo)* signers = CMS_get0_SignerInfos(cms.get());
  if (signers == nullptr || sk_CMS_SignerInfo_num(signers) != 1) {
    return failed(std::move(contents), errSecCSSignatureInvalid,
                  "the signature must have exactly one signer");
  }
  contents.certificates.reset(CMS_get1_certs(cms.get()));
  if (!contents.certificates) {
    return failed(std::move(contents), errSecCSSignatureInvalid,
                  "the signature carries no certificates");
  }
  CMS_set1_signers_certs(cms.get(), nullptr, 0);
  X509* signer = nullptr;
  CMS_SignerInfo_get0_algs(sk_CMS_SignerInfo_value(signers, 0), nullptr, &signer, nullptr, nullptr);
  if (signer == nullptr) {
    return failed(std::move(contents), errSecCSSignatureInvalid,
                  "the signer's certificate is not in the signature");
  }
  X509_up_ref(signer);
  contents.leaf.reset(signer);

  // The signature over the manifest only; the chain is judged against the anchors separately.
  ldssl::Bio manifestText(BIO_new(BIO_s_mem()));
  if (!manifestText ||
      CMS_verify(cms.get(), nullptr, nullptr, nullptr, manifestText.get(),
                 CMS_NO_SIGNER_CERT_VERIFY | CMS_BINARY) != 1) {
    return failed(std::move(contents), errSecCSSignatureFailed,
                  "the signature does not verify with the signer's certificate");
  }
  char* text = nullptr;
  const long length = BIO_get_mem_data(manifestText.get(), &text);
  const std::optional<LDSignatureManifest> manifest =
      LDParseManifest(std::string_view(text, static_cast<size_t>(length)));
  if (!manifest) {
    return failed(std::move(contents), errSecCSSignatureInvalid, "the signed manifest is malformed");
  }
  contents.manifest = *manifest;
  const std::optional<std::string> team = LDSingleOrganizationalUnit(signer);
  if (!team) {
    return failed(std::move(contents), errSecCSSignatureInvalid,
                  "the signer's certificate must name exactly one organisational unit (the team)");
  }
  contents.leafTeam = *team;
  if (contents.leafTeam != contents.manifest.team) {
    return failed(std::move(contents), errSecCSSignatureInvalid,
                  "the manifest's team \"" + contents.manifest.team +
                      "\" is not the signer's organisational unit \"" + contents.leafTeam + "\"");
  }
  return contents;
}

int32_t LDVerifyChain(const LDSignatureContents& contents, X509_STORE* anchors, std::string* detail) {
  ldssl::StoreContext context(X509_STORE_CTX_new());
  if (!context || X509_STORE_CTX_init(context.get(), anchors, contents.leaf.get(),
                                      contents.certificates.get()) != 1) {
    if (detail) *detail = "the certificate chain could not be evaluated";
    return errSecCSSignatureUntrusted;
  }
  // An expired certificate does not make signed code untrusted: the code was signed while it
  // was valid, and there is no time-stamp authority to say when.
  X509_VERIFY_PARAM_set_flags(X509_STORE_CTX_get0_param(context.get()), X509_V_FLAG_NO_CHECK_TIME);
  if (X509_verify_cert(context.get()) != 1) {
    if (detail) {
      *detail = std::string("the signer's certificate chain is not trusted: ") +
                X509_verify_cert_error_string(X509_STORE_CTX_get_error(context.get()));
    }
    return errSecCSSignatureUntrusted;
  }
  X509* leaf = contents.leaf.get();
  if ((X509_get_extension_flags(leaf) & EXFLAG_XKUSAGE) == 0 ||
      (X509_get_extended_key_usage(leaf) & XKU_CODE_SIGN) == 0) {
    if (detail) *detail = "the signer's certificate is not for code signing";
    return errSecCSSignatureUntrusted;
  }
  return LDCodeSigningStatusOK;
}
