#include "signing/code_signature.h"

#include <nettle/sha2.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <memory>

#include "shared/hex.h"

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

}  // namespace

namespace {

// Large enough to keep the digest near the speed of memory, small enough for a helper that is
// meant to stay within a few MiB.
constexpr size_t kHashBufferSize = 128 * 1024;

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
  sha256_ctx context;
  sha256_init(&context);
  (void)::posix_fadvise(fd, 0, static_cast<off_t>(size), POSIX_FADV_SEQUENTIAL);
  const std::unique_ptr<uint8_t[]> buffer(new uint8_t[kHashBufferSize]);
  uint64_t offset = 0;
  while (offset < size) {
    const size_t chunk = static_cast<size_t>(std::min<uint64_t>(kHashBufferSize, size - offset));
    if (!LDReadFully(fd, offset, reinterpret_cast<char*>(buffer.get()), chunk)) return false;
    sha256_update(&context, chunk, buffer.get());
    offset += chunk;
  }
  sha256_digest(&context, digest.size(), digest.data());
  return true;
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
