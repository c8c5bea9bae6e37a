#include "support/test_pki.h"

#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cctype>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace ldtest {

namespace {

void check(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(std::string("test PKI: ") + what);
}

// name and value as in openssl.cnf: "keyUsage", "critical,digitalSignature".
void addExtension(X509* certificate, X509* issuer, const std::string& name, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_nconf(nullptr, &context, name.c_str(), value.c_str());
  check(extension != nullptr, "extension");
  X509_add_ext(certificate, extension, -1);
  X509_EXTENSION_free(extension);
}

template <class Write>
std::string pemText(Write write) {
  ldssl::Bio out(BIO_new(BIO_s_mem()));
  write(out.get());
  char* data = nullptr;
  const long length = BIO_get_mem_data(out.get(), &data);
  return std::string(data, static_cast<size_t>(length));
}

}  // namespace

TestIdentity TestIdentity::load(const std::string& keyPath, const std::string& certificatePath) {
  TestIdentity identity{nullptr, nullptr, keyPath, certificatePath};
  const ldssl::Bio key(BIO_new_file(keyPath.c_str(), "r")), certificate(BIO_new_file(certificatePath.c_str(), "r"));
  if (key) identity.key.reset(PEM_read_bio_PrivateKey(key.get(), nullptr, nullptr, nullptr));
  if (certificate) identity.certificate.reset(PEM_read_bio_X509(certificate.get(), nullptr, nullptr, nullptr));
  return identity;
}

std::string TestPki::pemOf(const TestIdentity& identity) {
  return pemText([&](BIO* out) { PEM_write_bio_X509(out, identity.certificate.get()); });
}

TestIdentity TestPki::make(const TestIdentity* issuer, const std::string& name, bool authority,
                           const LeafOptions& options) {
  TestIdentity identity;
  identity.key.reset(options.key.rfind("RSA-", 0) == 0
                         ? EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", std::stoul(options.key.substr(4)))
                         : EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", options.key.c_str()));
  check(identity.key != nullptr, "key");
  identity.certificate.reset(X509_new());
  X509* certificate = identity.certificate.get();
  X509_set_version(certificate, 2);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate), _serial++);
  const long year = 365L * 24 * 3600;
  X509_gmtime_adj(X509_getm_notBefore(certificate), options.expired ? -2 * year : -3600);
  X509_gmtime_adj(X509_getm_notAfter(certificate), options.expired ? -year : 10 * year);
  X509_set_pubkey(certificate, identity.key.get());
  X509_NAME* subject = X509_get_subject_name(certificate);
  const auto add = [subject](const char* field, const std::string& value) {
    X509_NAME_add_entry_by_txt(subject, field, MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(value.c_str()), -1, -1, 0);
  };
  add("O", "Quillfern Test");
  if (!authority && options.team) add("OU", *options.team);
  if (!authority && options.secondOrganizationalUnit) add("OU", "SECONDUNIT");
  add("CN", name);
  X509* issuerCertificate = issuer ? issuer->certificate.get() : certificate;
  X509_set_issuer_name(certificate, X509_get_subject_name(issuerCertificate));
  const auto extend = [&](const std::string& extensionName, const std::string& value) {
    if (!value.empty()) addExtension(certificate, issuerCertificate, extensionName, value);
  };
  extend("basicConstraints", authority ? "critical,CA:TRUE" : "critical,CA:FALSE");
  extend("keyUsage", authority ? "critical,keyCertSign,cRLSign" : options.keyUsage);
  if (!authority) extend("extendedKeyUsage", options.extendedUsage);
  extend("subjectKeyIdentifier", "hash");
  if (const size_t equals = options.extraExtension.find('='); equals != std::string::npos) {
    extend(options.extraExtension.substr(0, equals), options.extraExtension.substr(equals + 1));
  }
  EVP_PKEY* signingKey = issuer ? issuer->key.get() : identity.key.get();
  check(X509_sign(certificate, signingKey, EVP_sha256()) > 0, "sign");

  std::string file = name;
  for (char& c : file) if (!std::isalnum(static_cast<unsigned char>(c))) c = '-';
  identity.keyPath = _directory + "/" + file + ".key";
  identity.certificatePath = _directory + "/" + file + ".pem";
  writeFile(identity.keyPath, pemText([&](BIO* out) {
              PEM_write_bio_PrivateKey(out, identity.key.get(), nullptr, nullptr, 0, nullptr, nullptr);
            }), 0600);
  writeFile(identity.certificatePath, pemOf(identity), 0644);
  return identity;
}

TemporaryDirectory::TemporaryDirectory() {
  std::string pattern = "/tmp/ld-test-XXXXXX";
  check(::mkdtemp(pattern.data()) != nullptr, "mkdtemp");
  _path = pattern;
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(_path, ignored);
}

std::string readFile(const std::string& path) {
  std::ifstream input(path, std::ios::binary);
  std::ostringstream content;
  content << input.rdbuf();
  return content.str();
}

void writeFile(const std::string& path, const std::string& content, unsigned mode) {
  {
    std::ofstream output(path, std::ios::binary | std::ios::trunc);
    output << content;
    check(static_cast<bool>(output), "write");
  }
  ::chmod(path.c_str(), mode);
}

void rewriteInPlaceKeepingTimes(const std::string& path, size_t offset) {
  struct stat before {};
  check(::stat(path.c_str(), &before) == 0, "stat");
  for (timespec now{}; ::clock_gettime(CLOCK_REALTIME_COARSE, &now) == 0 &&
                       (now.tv_sec < before.st_ctim.tv_sec ||
                        (now.tv_sec == before.st_ctim.tv_sec && now.tv_nsec <= before.st_ctim.tv_nsec));) {
  }
  const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
  check(fd >= 0, "open");
  char byte = 0;
  bool flipped = ::pread(fd, &byte, 1, static_cast<off_t>(offset)) == 1;
  byte = static_cast<char>(byte ^ 0x40);
  flipped = flipped && ::pwrite(fd, &byte, 1, static_cast<off_t>(offset)) == 1;
  ::close(fd);
  const timespec times[2] = {before.st_atim, before.st_mtim};
  check(flipped && ::utimensat(AT_FDCWD, path.c_str(), times, 0) == 0, "rewrite in place");
}

}  // namespace ldtest
