#pragma once

// Code signatures appended to an executable:
//
//   [ executable bytes 0..N-1 ]
//   [ CMS SignedData, DER; attached content = manifest; signer certificate + intermediates ]
//   [ 12-byte info: 0,0,2,0,0,0,0,0, u32 big-endian length of the CMS blob ]
//   [ "~LD code signature appended~\n" ]
//
// The manifest (UTF-8, one field a line) names the identifier, the team, the size N and the
// SHA-256 of bytes 0..N-1. The ELF loader ignores the trailer; strip removes it.

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "signing/certificate.h"

// Statuses with the meanings (and numbers) of the platform the system was first built for.
enum LDCodeSigningStatus : int32_t {
  LDCodeSigningStatusOK = 0,
  errSecCSUnsigned = -67062,
  errSecCSSignatureFailed = -67061,
  errSecCSSignatureNotVerifiable = -67060,
  errSecCSReqFailed = -67050,
  errSecCSSignatureInvalid = -67045,
  errSecCSSignatureUntrusted = -66996,
  errSecCSStaticCodeNotFound = -67068,
  errSecCSReqInvalid = -67052,
};

inline constexpr std::string_view LDSignatureMagic = "~LD code signature appended~\n";
inline constexpr size_t LDSignatureInfoSize = 12;
inline constexpr size_t LDSignatureTrailerSize = LDSignatureInfoSize + LDSignatureMagic.size();
// A CMS blob with a manifest and a short chain is a few KiB; anything near this is not ours.
inline constexpr uint32_t LDMaximumSignatureSize = 1u << 20;

struct LDSignatureManifest {
  std::string identifier;
  std::string team;
  uint64_t size = 0;
  std::array<uint8_t, 32> sha256{};
};

std::string LDFormatManifest(const LDSignatureManifest& manifest);
// Exactly the five lines in order, each ending in LF, nothing else; nullopt otherwise.
std::optional<LDSignatureManifest> LDParseManifest(std::string_view text);

// Where the signature sits in a file of fileSize bytes whose last bytes are `tail`
// (tail.size() == min(fileSize, LDSignatureTrailerSize)).
struct LDSignatureLocation {
  int32_t status;         // 0, errSecCSUnsigned or errSecCSSignatureInvalid
  uint64_t codeSize = 0;  // N
  uint32_t blobSize = 0;  // the CMS blob lies at [N, N + blobSize)
};
LDSignatureLocation LDLocateSignature(uint64_t fileSize, std::string_view tail);

// The same for an open file of fileSize bytes, reading its last bytes through fd; a failed read
// gives errSecCSSignatureNotVerifiable.
LDSignatureLocation LDLocateSignatureOfDescriptor(int fd, uint64_t fileSize);

// The 12-byte info and the magic for a blob of blobSize bytes.
std::string LDFormatSignatureTrailer(uint32_t blobSize);

// What the CMS blob says. Certificates point into the blob, which must outlive this.
struct LDSignatureContents {
  int32_t status = LDCodeSigningStatusOK;
  std::string detail;  // why, when status is not 0
  // The refusal concerns something outside the signing profile (docs/code-signing.md) that a
  // general CMS verifier might accept.
  bool outsideProfile = false;
  LDSignatureManifest manifest;
  std::string leafTeam;  // the leaf certificate's single subject OU
  std::vector<LDCertificate> certificates;  // everything the blob carries, leaf included
  size_t leafIndex = 0;
  const LDCertificate& leaf() const { return certificates[leafIndex]; }
};

// Reads the signing information without validating anything: a well-formed SignedData of the
// profile, its signer's certificate, and that certificate's single OU as leafTeam. The
// signature is not checked and the manifest is not read. Status 0 or errSecCSSignatureInvalid.
LDSignatureContents LDReadSigningInformation(LDBytes blob);

// Parses the blob and checks it: SignedData with attached content, exactly one signer whose
// certificate is in the blob, a valid signature over the signed attributes and a manifest that
// matches their digest, a well-formed manifest whose team is the leaf's single OU. The chain is
// not evaluated here (see LDVerifyChain).
LDSignatureContents LDReadSignatureBlob(LDBytes blob);

// The leaf chains to one of the anchors by names, authority key identifiers and signatures,
// every issuer a CA allowed to sign certificates and, where its extendedKeyUsage says anything,
// code signers; no unknown critical extension anywhere; at most six intermediates; and the leaf is
// for code signing (expiry and revocation are not checked: docs/code-signing.md). Returns 0 or
// errSecCSSignatureUntrusted with a detail; *outsideProfile says whether the refusal is one of
// the profile's rules that a general X.509 verifier does not make.
int32_t LDVerifyChain(const LDSignatureContents& contents, const std::vector<LDCertificate>& anchors,
                      std::string* detail, bool* outsideProfile = nullptr);

inline LDBytes LDBytesOf(std::string_view text) {
  return LDBytes(reinterpret_cast<const uint8_t*>(text.data()), text.size());
}

// Reads exactly length bytes at offset (retrying EINTR); false on a short read or an error.
bool LDReadFully(int fd, uint64_t offset, char* buffer, size_t length);

// SHA-256 of bytes [0, size) of fd, in one sequential pass.
bool LDDigestOfDescriptor(int fd, uint64_t size, std::array<uint8_t, 32>& digest);
