#include "client/refusal_diagnosis.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>

#include "platform/socket_activation.h"
#include "signing/code_signing.h"

#ifndef LD_APP_SIGNING_TEAM
#error "LD_APP_SIGNING_TEAM (the team of the build's signing certificate) must be defined by the build"
#endif
#ifndef LD_INSTALLED_HELPER
#error "LD_INSTALLED_HELPER (the helper's installed path) must be defined by the build"
#endif

namespace {

constexpr std::string_view kTeam = LD_APP_SIGNING_TEAM;

// What a signature says of itself, read without hashing the code or judging the chain.
struct Signer {
  std::string identifier, team, subject, issuer;
};

std::optional<Signer> signerOf(int fd) {
  struct stat status {};
  if (::fstat(fd, &status) != 0) return std::nullopt;
  const LDSignatureLocation location = LDLocateSignatureOfDescriptor(fd, static_cast<uint64_t>(status.st_size));
  if (location.status != LDCodeSigningStatusOK) return std::nullopt;
  std::string blob(location.blobSize, '\0');
  if (!LDReadFully(fd, location.codeSize, blob.data(), blob.size())) return std::nullopt;
  const LDSignatureContents contents = LDReadSignatureBlob(LDBytesOf(blob));
  if (contents.status != LDCodeSigningStatusOK) return std::nullopt;
  return Signer{contents.manifest.identifier, contents.leafTeam, LDNameText(contents.leaf().subject),
                LDNameText(contents.certificates.back().issuer)};
}

std::string ownPath() {
  char link[4096];
  const ssize_t length = ::readlink("/proc/self/exe", link, sizeof link - 1);
  return length > 0 ? std::string(link, static_cast<size_t>(length)) : "/proc/self/exe";
}

std::string trustedRoots() {
  std::string names;
  for (const LDCertificate& anchor : LDTrustAnchors::compiledIn().certificates()) {
    names += (names.empty() ? "" : "; ") + LDNameText(anchor.subject);
  }
  return names;
}

// When this program's own signature holds, what is left is the helper: built for another
// identifier, or by another build with another team or root.
std::string anotherHelper(const std::string& socketPath, const Signer& self) {
  std::string text = "this program's signature is what its helper requires (identifier " + self.identifier +
                     ", team " + self.team + ", under " + trustedRoots() + "), so the helper serving " + socketPath +
                     " belongs to another identifier or another build";
  const std::string expected = std::string(LDHelperSigningIdentifier) + " by team " + std::string(kTeam);
  if (socketPath != LDServiceSocketPath()) {
    return text + ": start there the helper built with this program's SDK. `ld-codesign display HELPER` shows what "
                  "the helper started there is signed as; it must be " + expected + ".";
  }
  const LDFileHandle helper(::open(LD_INSTALLED_HELPER, O_RDONLY | O_CLOEXEC));
  const std::optional<Signer> theirs = helper.isValid() ? signerOf(helper.fileDescriptor()) : std::nullopt;
  if (theirs) {
    text += " (" LD_INSTALLED_HELPER " is signed as " + theirs->identifier + " by team " + theirs->team + ", where " +
            expected + " is expected)";
  }
  return text + ": install the helper package built with this program's SDK. `ld-codesign display " LD_INSTALLED_HELPER
                "` shows the helper's identifier and team.";
}

}  // namespace

std::string LDDiagnoseRefusal(const std::string& socketPath) {
  const std::string path = ownPath();
  const std::string prefix = "The helper at " + socketPath + " refused this program: ";
  const std::string display = " `ld-codesign display " + path + "` shows what it is signed as.";
  const std::string required = "identifier " + std::string(LDAppSigningIdentifier) + " by team " + std::string(kTeam);
  const LDFileHandle file(::open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
  if (!file.isValid()) {
    return prefix + "its executable cannot be read to tell why (" + std::strerror(errno) + ").";
  }
  LDSigningInformation information;
  std::string detail;
  const int32_t status =
      LDCheckSignatureOfDescriptor(file.fileDescriptor(), nullptr, LDTrustAnchors::compiledIn(), &detail, &information);
  const std::optional<Signer> signer = signerOf(file.fileDescriptor());
  switch (status) {
    case LDCodeSigningStatusOK:
      break;
    case errSecCSUnsigned:
      return prefix + path + " carries no signature, where one as " + required +
             " is required: it was stripped or rewritten after signing, or never signed. Sign it as the last "
             "step of the build, after strip." + display;
    case errSecCSSignatureUntrusted:
      return prefix + "its signer (" + (signer ? signer->subject + ", issued by " + signer->issuer : detail) +
             ") does not chain to the root the helper trusts (" + trustedRoots() +
             "): sign it with a certificate issued under that root." + display;
    case errSecCSSignatureFailed:
      return prefix + path + " was changed after it was signed (" + detail + "): sign it again, last." + display;
    default:
      return prefix + "its signature cannot be used (OSStatus " + std::to_string(status) + ": " + detail + ")." +
             display;
  }
  if (information.identifier != LDAppSigningIdentifier) {
    return prefix + "it is signed as identifier " + information.identifier + " where the helper requires " +
           std::string(LDAppSigningIdentifier) + ": sign it with --identifier " + std::string(LDAppSigningIdentifier) +
           "." + display;
  }
  if (information.team != kTeam) {
    return prefix + "it is signed by team " + information.team + " where the helper requires team " +
           std::string(kTeam) + ": sign it with a certificate whose subject OU is " + std::string(kTeam) + "." +
           display;
  }
  return prefix + anotherHelper(socketPath, {information.identifier, information.team, "", ""});
}
