#pragma once

// Code-signing identity (the running program's team, the requirement a peer must satisfy) and
// verification of code on disk.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "shared/constants.h"
#include "shared/file_handle.h"
#include "signing/code_signature.h"
#include "signing/requirement.h"
#include "signing/trust_anchors.h"

// ---- Team identity and client requirement ----

// The team of the running program's own signature (/proc/self/exe): the single OU of the leaf
// certificate of a well-formed signature, read without hashing the code or judging the chain.
std::optional<std::string> LDCurrentTeamIdentifier(LDErrorPlace error = nullptr);

// `identifier "<identifier>" and anchor apple generic and certificate leaf[subject.OU] = "<team>"`
// with this program's team; nothing when the team cannot be read.
std::optional<std::string> LDCodeSigningRequirementForIdentifier(std::string_view identifier,
                                                                 LDErrorPlace error = nullptr);

// The same as LDCurrentTeamIdentifier for any executable.
std::optional<std::string> LDTeamIdentifierOfExecutable(const std::string& path,
                                                        LDErrorPlace error = nullptr);

// ---- Verification of code on disk ----

// An executable opened for verification. Every check reads the bytes through this descriptor.
struct LDStaticCode {
  std::string path;
  LDFileHandle file;
};

// 0, or errSecCSStaticCodeNotFound (nothing there, or not a regular file) or
// errSecCSSignatureNotVerifiable (there but unreadable).
int32_t LDStaticCodeCreateWithPath(const std::string& path, std::unique_ptr<LDStaticCode>* code);

// 0, or errSecCSReqInvalid.
int32_t LDRequirementCreateWithString(std::string_view text,
                                      std::unique_ptr<LDRequirement>* requirement);

// What a successful check learnt about the signer.
struct LDSigningInformation {
  std::string identifier;
  std::string team;
  std::string signerSubject;
  std::string sha256;  // hex
};

// Verifies the signature of the open file (structure, signature, chain to anchors, size and
// digest of the code) and, when given, the requirement. Returns 0 or a status; *detail says why.
// The code is hashed only once the signature is known to come from a trusted signer.
int32_t LDCheckSignatureOfDescriptor(int fd, const LDRequirement* requirement,
                                     const LDTrustAnchors& anchors, std::string* detail,
                                     LDSigningInformation* information = nullptr);

int32_t LDStaticCodeCheckValidityWithErrors(const LDStaticCode& code,
                                            const LDRequirement* requirement,
                                            const LDTrustAnchors& anchors, std::string* detail);

enum LDCodeVerificationResult : int32_t {
  LDCodeVerificationValid = 0,
  LDCodeVerificationRejected = 1,
  LDCodeVerificationUnverifiable = 2,
};

// Whether the executable at path is validly signed and satisfies requirementText: valid,
// rejected (also for an unusable requirement), or unverifiable.
LDCodeVerificationResult LDVerifyCodeAtURL(const std::string& path, std::string_view requirementText,
                                           LDErrorPlace error = nullptr,
                                           const LDTrustAnchors& anchors = LDTrustAnchors::compiledIn());
