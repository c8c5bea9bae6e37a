#include "tools/code_signer.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "shared/file_handle.h"
#include "signing/code_signature.h"

namespace {

std::optional<std::string> readText(const std::string& path, std::string* error) {
  std::ifstream input(path, std::ios::binary);
  if (!input) {
    *error = "cannot read " + path + ": " + std::strerror(errno);
    return std::nullopt;
  }
  std::ostringstream text;
  text << input.rdbuf();
  return text.str();
}

ldssl::Bio memoryOf(const std::string& text) {
  return ldssl::Bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

bool writeAll(int fd, const char* data, size_t length) {
  while (length > 0) {
    const ssize_t written = ::write(fd, data, length);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    data += written;
    length -= static_cast<size_t>(written);
  }
  return true;
}

bool copyPrefix(int from, int to, uint64_t size) {
  std::string buffer(256 * 1024, '\0');
  uint64_t offset = 0;
  while (offset < size) {
    const size_t chunk = static_cast<size_t>(std::min<uint64_t>(buffer.size(), size - offset));
    if (!LDReadFully(from, offset, buffer.data(), chunk) || !writeAll(to, buffer.data(), chunk)) {
      return false;
    }
    offset += chunk;
  }
  return true;
}

}  // namespace

std::optional<std::string> LDSingleOrganizationalUnitOf(X509* certificate) {
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

bool LDIsValidSigningIdentifier(const std::string& identifier) {
  if (identifier.empty() || identifier.size() > 255) return false;
  for (const char c : identifier) {
    const bool allowed = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                         (c >= '0' && c <= '9') || c == '.' || c == '-' || c == '_';
    if (!allowed) return false;
  }
  return true;
}

std::optional<LDSigningIdentity> LDLoadSigningIdentity(const std::string& keyPath,
                                                       const std::string& certificatePath,
                                                       const std::string& chainPath,
                                                       std::string* error) {
  const std::optional<std::string> keyText = readText(keyPath, error);
  if (!keyText) return std::nullopt;
  ldssl::Key key(PEM_read_bio_PrivateKey(memoryOf(*keyText).get(), nullptr, nullptr, nullptr));
  if (!key) {
    *error = keyPath + " holds no private key in PEM form (an encrypted key is not supported)";
    return std::nullopt;
  }
  return LDLoadSigningIdentityWithKey(std::move(key), keyPath, certificatePath, chainPath, error);
}

std::optional<LDSigningIdentity> LDLoadSigningIdentityWithKey(ldssl::Key key, const std::string& keyName,
                                                              const std::string& certificatePath,
                                                              const std::string& chainPath,
                                                              std::string* error) {
  LDSigningIdentity identity;
  identity.key = std::move(key);
  const std::optional<std::string> certificateText = readText(certificatePath, error);
  if (!certificateText) return std::nullopt;
  identity.leaf.reset(PEM_read_bio_X509(memoryOf(*certificateText).get(), nullptr, nullptr, nullptr));
  if (!identity.leaf) {
    *error = certificatePath + " holds no certificate in PEM form";
    return std::nullopt;
  }
  if (X509_check_private_key(identity.leaf.get(), identity.key.get()) != 1) {
    *error = keyName + " is not the key of the certificate in " + certificatePath;
    return std::nullopt;
  }
  const std::optional<std::string> team = LDSingleOrganizationalUnitOf(identity.leaf.get());
  if (!team || team->empty()) {
    *error = certificatePath +
             " must name exactly one organisational unit (OU) in its subject: the team identifier";
    return std::nullopt;
  }
  for (const char c : *team) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f || c == '"') {
      *error = certificatePath + ": the team identifier (OU) contains a quote or a control character";
      return std::nullopt;
    }
  }
  identity.team = *team;
  identity.chain.reset(sk_X509_new_null());
  if (!chainPath.empty()) {
    const std::optional<std::string> chainText = readText(chainPath, error);
    if (!chainText) return std::nullopt;
    ldssl::Bio input = memoryOf(*chainText);
    while (X509* certificate = PEM_read_bio_X509(input.get(), nullptr, nullptr, nullptr)) {
      sk_X509_push(identity.chain.get(), certificate);
    }
    if (sk_X509_num(identity.chain.get()) == 0) {
      *error = chainPath + " holds no certificate in PEM form";
      return std::nullopt;
    }
  }
  ERR_clear_error();
  return identity;
}

std::optional<std::string> LDMakeSignatureBlob(const std::string& manifestText,
                                               const LDSigningIdentity& identity,
                                               std::string* error) {
  ldssl::Bio content = memoryOf(manifestText);
  ldssl::Cms cms(CMS_sign(identity.leaf.get(), identity.key.get(), identity.chain.get(),
                          content.get(), CMS_BINARY | CMS_NOSMIMECAP));
  unsigned char* der = nullptr;
  const int derLength = cms ? i2d_CMS_ContentInfo(cms.get(), &der) : -1;
  if (derLength <= 0) {
    *error = "signing failed in libcrypto";
    ERR_clear_error();
    return std::nullopt;
  }
  std::string blob(reinterpret_cast<const char*>(der), static_cast<size_t>(derLength));
  OPENSSL_free(der);
  return blob;
}

namespace {

// The file to sign, open for reading, and its status; an invalid handle when it is no regular file.
LDFileHandle openRegularFile(const std::string& path, struct stat& status, std::string* error) {
  LDFileHandle file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
  if (!file.isValid() || ::fstat(file.fileDescriptor(), &status) != 0) {
    *error = "cannot open " + path + ": " + std::strerror(errno);
    return LDFileHandle();
  }
  if (!S_ISREG(status.st_mode)) {
    *error = path + " is not a regular file";
    return LDFileHandle();
  }
  return file;
}

// The code's first size bytes, then blob and trailer, written beside path and renamed over it, so
// a reader sees the old or the new file, and a running executable is never rewritten under itself.
bool replaceWithSigned(const std::string& path, int original, const struct stat& status, uint64_t size,
                       const std::string& blob, std::string* error) {
  const std::string trailer = LDFormatSignatureTrailer(static_cast<uint32_t>(blob.size()));
  std::string temporary = path + ".ld-codesign-XXXXXX";
  LDFileHandle signedFile(::mkostemp(temporary.data(), O_CLOEXEC));
  if (!signedFile.isValid()) {
    *error = "cannot create a file beside " + path + ": " + std::strerror(errno);
    return false;
  }
  const int fd = signedFile.fileDescriptor();
  // Owner first: a change of owner clears the set-group-ID bit, which the mode then restores.
  if (::geteuid() == 0) (void)::fchown(fd, status.st_uid, status.st_gid);  // best effort
  const bool written = copyPrefix(original, fd, size) && writeAll(fd, blob.data(), blob.size()) &&
                       writeAll(fd, trailer.data(), trailer.size()) && ::fchmod(fd, status.st_mode & 07777) == 0;
  if (!written || ::fsync(fd) != 0 || ::rename(temporary.c_str(), path.c_str()) != 0) {
    *error = "cannot write the signed " + path + ": " + std::strerror(errno);
    ::unlink(temporary.c_str());
    return false;
  }
  return true;
}

}  // namespace

bool LDSignFile(const std::string& path, const std::string& identifier,
                const LDSigningIdentity& identity, std::string* error) {
  if (!LDIsValidSigningIdentifier(identifier)) {
    *error = "identifier \"" + identifier +
             "\" must be a reverse-DNS name of letters, digits, '.', '-' and '_'";
    return false;
  }
  struct stat status {};
  const LDFileHandle original = openRegularFile(path, status, error);
  if (!original.isValid()) return false;
  const auto fileSize = static_cast<uint64_t>(status.st_size);

  // A file signed before keeps only its code; the old signature is replaced.
  const LDSignatureLocation location = LDLocateSignatureOfDescriptor(original.fileDescriptor(), fileSize);
  if (location.status == errSecCSSignatureNotVerifiable) {
    *error = "cannot read " + path;
    return false;
  }
  if (location.status == errSecCSSignatureInvalid) {
    *error = path + " ends in a malformed signature trailer; refusing to sign over it";
    return false;
  }
  LDSignatureManifest manifest;
  manifest.identifier = identifier;
  manifest.team = identity.team;
  manifest.size = location.status == LDCodeSigningStatusOK ? location.codeSize : fileSize;
  if (!LDDigestOfDescriptor(original.fileDescriptor(), manifest.size, manifest.sha256)) {
    *error = "cannot read " + path;
    return false;
  }
  const std::optional<std::string> blob = LDMakeSignatureBlob(LDFormatManifest(manifest), identity, error);
  return blob && replaceWithSigned(path, original.fileDescriptor(), status, manifest.size, *blob, error);
}
