#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "shared/hex.h"
#include "shared/printable.h"
#include "signing/code_signing.h"

namespace {

int32_t fail(std::string* detail, int32_t status, std::string text) {
  if (detail) *detail = std::move(text);
  return status;
}

const char kNoTeamIdentifier[] =
    "This build carries no Team ID; it is unsigned or ad-hoc signed, so the privileged listener "
    "peers cannot authenticate each other";

}  // namespace

namespace {

// Finds and reads the signature appended to the code open as fd into blob, which contents points
// into: blob must outlive it.
int32_t readSignature(int fd, std::string* detail, LDSignatureLocation* location, std::string* blob,
                      LDSignatureContents* contents) {
  struct stat status {};
  if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
    return fail(detail, errSecCSSignatureNotVerifiable, "the code is not a readable regular file");
  }
  *location = LDLocateSignatureOfDescriptor(fd, static_cast<uint64_t>(status.st_size));
  if (location->status == errSecCSSignatureNotVerifiable) {
    return fail(detail, errSecCSSignatureNotVerifiable, "the code could not be read");
  }
  if (location->status == errSecCSUnsigned) {
    return fail(detail, errSecCSUnsigned, "the code is not signed");
  }
  if (location->status != LDCodeSigningStatusOK) {
    return fail(detail, location->status, "the signature trailer is malformed");
  }
  blob->assign(location->blobSize, '\0');
  if (!LDReadFully(fd, location->codeSize, blob->data(), blob->size())) {
    return fail(detail, errSecCSSignatureNotVerifiable, "the signature could not be read");
  }
  *contents = LDReadSignatureBlob(LDBytesOf(*blob));
  if (contents->status != LDCodeSigningStatusOK) return fail(detail, contents->status, contents->detail);
  return LDCodeSigningStatusOK;
}

// Hashes the code (only once its signer is trusted) and compares it with what was signed.
int32_t checkCode(int fd, const LDSignatureLocation& location, const LDSignatureContents& contents,
                  std::string* detail, std::array<uint8_t, 32>* digest) {
  if (contents.manifest.size != location.codeSize) {
    return fail(detail, errSecCSSignatureFailed,
                "the signed size " + std::to_string(contents.manifest.size) +
                    " is not the code's size " + std::to_string(location.codeSize));
  }
  if (!LDDigestOfDescriptor(fd, location.codeSize, *digest)) {
    return fail(detail, errSecCSSignatureNotVerifiable, "the code could not be read");
  }
  if (*digest != contents.manifest.sha256) {
    return fail(detail, errSecCSSignatureFailed, "the code does not match its signed digest");
  }
  return LDCodeSigningStatusOK;
}

}  // namespace

int32_t LDCheckSignatureOfDescriptor(int fd, const LDRequirement* requirement,
                                     const LDTrustAnchors& anchors, std::string* detail,
                                     LDSigningInformation* information) {
  LDSignatureLocation location{};
  std::string blob;
  LDSignatureContents contents;  // points into blob
  if (const int32_t read = readSignature(fd, detail, &location, &blob, &contents); read != LDCodeSigningStatusOK) {
    return read;
  }
  if (const int32_t trust = LDVerifyChain(contents, anchors.certificates(), detail); trust != 0) {
    return trust;
  }
  std::array<uint8_t, 32> digest{};
  if (const int32_t code = checkCode(fd, location, contents, detail, &digest); code != LDCodeSigningStatusOK) return code;
  if (requirement) {
    const LDRequirementSubject subject{contents.manifest.identifier, contents.leafTeam, true};
    if (std::optional<std::string> unmet = LDFirstUnmetClause(*requirement, subject)) {
      return fail(detail, errSecCSReqFailed, "the code does not satisfy " + *unmet);
    }
  }
  if (information) {
    *information = LDSigningInformation{contents.manifest.identifier, contents.leafTeam,
                                        LDNameText(contents.leaf().subject),
                                        LDHex(digest.data(), digest.size())};
  }
  return LDCodeSigningStatusOK;
}

int32_t LDStaticCodeCreateWithPath(const std::string& path, std::unique_ptr<LDStaticCode>* code) {
  // O_NONBLOCK: opening a FIFO must not wait for a writer; a regular file ignores the flag.
  LDFileHandle file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  if (!file.isValid()) {
    return errno == ENOENT || errno == ENOTDIR ? errSecCSStaticCodeNotFound
                                               : errSecCSSignatureNotVerifiable;
  }
  struct stat status {};
  if (::fstat(file.fileDescriptor(), &status) != 0 || !S_ISREG(status.st_mode)) {
    return errSecCSStaticCodeNotFound;
  }
  *code = std::make_unique<LDStaticCode>(LDStaticCode{path, std::move(file)});
  return LDCodeSigningStatusOK;
}

int32_t LDRequirementCreateWithString(std::string_view text,
                                      std::unique_ptr<LDRequirement>* requirement) {
  std::optional<LDRequirement> parsed = LDParseRequirement(text);
  if (!parsed) return errSecCSReqInvalid;
  *requirement = std::make_unique<LDRequirement>(std::move(*parsed));
  return LDCodeSigningStatusOK;
}

int32_t LDStaticCodeCheckValidityWithErrors(const LDStaticCode& code,
                                            const LDRequirement* requirement,
                                            const LDTrustAnchors& anchors, std::string* detail) {
  return LDCheckSignatureOfDescriptor(code.file.fileDescriptor(), requirement, anchors, detail);
}

LDCodeVerificationResult LDVerifyCodeAtURL(const std::string& path, std::string_view requirementText,
                                           LDErrorPlace error, const LDTrustAnchors& anchors) {
  std::unique_ptr<LDStaticCode> code;
  const int32_t opened = LDStaticCodeCreateWithPath(path, &code);
  if (opened != 0 || !code) {
    if (error) {
      *error = LDSigningError("No readable code at " + LDPrintable(path) + " (OSStatus " +
                              std::to_string(opened) + ")");
    }
    return LDCodeVerificationUnverifiable;
  }
  std::unique_ptr<LDRequirement> requirement;
  const int32_t compiled = LDRequirementCreateWithString(requirementText, &requirement);
  if (compiled != 0 || !requirement) {
    code.reset();
    if (error) {
      *error = LDSigningError("Unusable code-signing requirement (OSStatus " +
                              std::to_string(compiled) + ")");
    }
    return LDCodeVerificationRejected;
  }
  std::string detail;
  const int32_t status =
      LDStaticCodeCheckValidityWithErrors(*code, requirement.get(), anchors, &detail);
  requirement.reset();
  code.reset();
  if (status == 0) {
    return LDCodeVerificationValid;
  }
  const std::string shownDetail = detail.empty() ? "no detail" : detail;
  const bool rejected = (status >= errSecCSUnsigned && status <= errSecCSSignatureNotVerifiable) ||
                        status == errSecCSReqFailed || status == errSecCSSignatureInvalid ||
                        status == errSecCSSignatureUntrusted;
  if (error) {
    // The path may come from anywhere; a message is one line whatever it holds.
    const std::string shownPath = LDPrintable(path);
    *error = LDSigningError((rejected ? shownPath + " does not satisfy its code-signing requirement"
                                      : "Could not verify " + shownPath) +
                            " (OSStatus " + std::to_string(status) + "): " + shownDetail);
  }
  return rejected ? LDCodeVerificationRejected : LDCodeVerificationUnverifiable;
}

std::optional<std::string> LDTeamIdentifierOfExecutable(const std::string& path, LDErrorPlace error) {
  std::unique_ptr<LDStaticCode> code;
  const int32_t opened = LDStaticCodeCreateWithPath(path, &code);
  if (opened != 0) {
    if (error) {
      *error = LDSigningError("SecCodeCopySelf failed with OSStatus " + std::to_string(opened));
    }
    return std::nullopt;
  }
  // Signing information, not validation: the code is not hashed and the chain not judged. The
  // file was installed by root, who could replace it with anything anyway.
  const int fd = code->file.fileDescriptor();
  struct stat status {};
  int32_t read = errSecCSSignatureNotVerifiable;
  std::string team;
  if (::fstat(fd, &status) == 0) {
    const LDSignatureLocation location = LDLocateSignatureOfDescriptor(fd, static_cast<uint64_t>(status.st_size));
    read = location.status;
    std::string blob(location.blobSize, '\0');
    if (read == LDCodeSigningStatusOK && !LDReadFully(fd, location.codeSize, blob.data(), blob.size())) {
      read = errSecCSSignatureNotVerifiable;
    } else if (read == LDCodeSigningStatusOK) {
      const LDSignatureContents contents = LDReadSigningInformation(LDBytesOf(blob));
      read = contents.status;
      team = contents.leafTeam;
    }
  }
  if (read != LDCodeSigningStatusOK && read != errSecCSUnsigned) {
    if (error) {
      *error = LDSigningError("SecCodeCopySigningInformation failed with OSStatus " + std::to_string(read));
    }
    return std::nullopt;
  }
  if (read == errSecCSUnsigned || team.empty()) {
    if (error) *error = LDSigningError(kNoTeamIdentifier);
    return std::nullopt;
  }
  return team;
}

std::optional<std::string> LDCurrentTeamIdentifier(LDErrorPlace error) {
  return LDTeamIdentifierOfExecutable("/proc/self/exe", error);
}

std::optional<std::string> LDCodeSigningRequirementForIdentifier(std::string_view identifier,
                                                                 LDErrorPlace error) {
  const std::optional<std::string> team = LDCurrentTeamIdentifier(error);
  if (!team) return std::nullopt;
  return "identifier \"" + std::string(identifier) +
         "\" and anchor apple generic and certificate leaf[subject.OU] = \"" + *team + "\"";
}
