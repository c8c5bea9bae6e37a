#pragma once

// The signature of a peer's executable is bytes that the peer chose: DER, X.509, CMS and ECDSA
// parsed by our own code. It is read in a child that has given up everything first: no
// capabilities, no new privileges, and a seccomp filter that lets it read the descriptors it was
// given, manage its memory, write its verdict and exit. Anything else kills it, and a child that
// dies without a verdict refuses the peer.

#include <cstdint>
#include <functional>
#include <string>

#include "signing/code_signing.h"

// In the calling process, for good: all capabilities cleared (permitted, effective, inheritable,
// ambient), no new privileges, and the seccomp allow-list. False with *reason if any step failed;
// the caller must then not read anything it was not sure of.
bool LDEnterParserSandbox(std::string* reason);

// LDCheckSignatureOfDescriptor(fd, requirement, anchors) in a child that enters the sandbox before
// it reads a byte of fd; waits for it. beforeReading (tests only) runs in the child right after
// the sandbox is entered. A child that was killed, or exited without a verdict, yields
// errSecCSSignatureNotVerifiable.
int32_t LDCheckSignatureInSandbox(int fd, const LDRequirement& requirement, const LDTrustAnchors& anchors,
                                  std::string* detail, const std::function<void()>& beforeReading = {});
