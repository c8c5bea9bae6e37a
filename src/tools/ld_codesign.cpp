// ld-codesign: signs executables with an appended signature, verifies them against a
// requirement, and shows what a signature says.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "shared/hex.h"
#include "shared/printable.h"
#include "signing/code_signing.h"
#include "tools/code_signer.h"
#include "tools/token_key.h"

namespace {

constexpr const char* kUsage =
    "usage: ld-codesign sign --identifier ID --key KEY.pem --cert LEAF.pem [--chain CHAIN.pem] FILE\n"
    "       ld-codesign sign --identifier ID --key pkcs11:URI --pkcs11-module MODULE.so --cert LEAF.pem\n"
    "                        [--chain CHAIN.pem] FILE\n"
    "       ld-codesign verify --requirement TEXT [--anchor ROOT.pem] FILE\n"
    "       ld-codesign display FILE\n";

// Every line that carries a path, a certificate's name or a manifest field is escaped where it
// is not printable: a crafted name must not be able to print a line of its own.
// Each untrusted part of a line was escaped where it was added (LDPrintable); the line itself is
// escaped once more without its backslashes, so that a part forgotten still cannot end it.
void printLine(std::ostream& out, const std::string& text) { out << LDPrintableMessage(text) << "\n"; }

int usageError(const std::string& problem) {
  printLine(std::cerr, "ld-codesign: " + problem);
  std::cerr << kUsage;
  return 64;
}

int failure(const std::string& problem) {
  printLine(std::cerr, "ld-codesign: " + problem);
  return 2;
}

// Options of the form --name VALUE, then exactly one file.
struct Arguments {
  std::vector<std::pair<std::string, std::string>> options;
  std::vector<std::string> files;

  const std::string* option(const std::string& name) const {
    for (const auto& [key, value] : options) {
      if (key == name) return &value;
    }
    return nullptr;
  }
};

std::optional<Arguments> parse(int argc, char** argv, const std::vector<std::string>& known,
                               std::string* problem) {
  Arguments arguments;
  for (int i = 2; i < argc; ++i) {
    const std::string word = argv[i];
    if (word.rfind("--", 0) == 0) {
      if (std::find(known.begin(), known.end(), word) == known.end()) {
        *problem = "unknown option " + word;
        return std::nullopt;
      }
      if (i + 1 >= argc) {
        *problem = word + " needs a value";
        return std::nullopt;
      }
      if (arguments.option(word)) {
        *problem = word + " given twice";
        return std::nullopt;
      }
      arguments.options.emplace_back(word, argv[++i]);
    } else {
      arguments.files.push_back(word);
    }
  }
  if (arguments.files.size() != 1) {
    *problem = "exactly one FILE is needed";
    return std::nullopt;
  }
  return arguments;
}

int sign(const Arguments& arguments) {
  const std::string* identifier = arguments.option("--identifier");
  const std::string* key = arguments.option("--key");
  const std::string* certificate = arguments.option("--cert");
  if (!identifier || !key || !certificate) return usageError("sign needs --identifier, --key and --cert");
  const std::string* chain = arguments.option("--chain");
  const std::string* module = arguments.option("--pkcs11-module");
  if (LDIsTokenKeyURI(*key) != (module != nullptr)) {
    return usageError("a pkcs11: URI in --key and --pkcs11-module go together");
  }
  std::string error;
  std::optional<LDSigningIdentity> identity;
  if (module) {
    ldssl::Key tokenKey = LDLoadTokenKey(*key, *module, &error);
    if (!tokenKey) return failure(error);
    identity = LDLoadSigningIdentityWithKey(std::move(tokenKey), *key, *certificate, chain ? *chain : "", &error);
  } else {
    identity = LDLoadSigningIdentity(*key, *certificate, chain ? *chain : "", &error);
  }
  if (!identity) return failure(error);
  if (!LDSignFile(arguments.files[0], *identifier, *identity, &error)) return failure(error);
  printLine(std::cout, LDPrintable(arguments.files[0]) + ": signed as " + *identifier + " (team " +
                           LDPrintable(identity->team) + ")");
  return 0;
}

int verify(const Arguments& arguments) {
  const std::string* requirement = arguments.option("--requirement");
  if (!requirement) return usageError("verify needs --requirement");
  std::optional<LDTrustAnchors> fromFile;
  if (const std::string* anchor = arguments.option("--anchor")) {
    std::ifstream input(*anchor, std::ios::binary);
    if (!input) return failure("cannot read " + *anchor + ": " + std::strerror(errno));
    std::ostringstream pem;
    pem << input.rdbuf();
    std::string error;
    fromFile = LDTrustAnchors::fromPEM(pem.str(), &error);
    if (fromFile->isEmpty()) return failure(*anchor + ": " + error);
  }
  std::optional<LDError> error;
  const LDCodeVerificationResult result = LDVerifyCodeAtURL(
      arguments.files[0], *requirement, &error, fromFile ? *fromFile : LDTrustAnchors::compiledIn());
  switch (result) {
    case LDCodeVerificationValid:
      printLine(std::cout, LDPrintable(arguments.files[0]) + ": valid (OSStatus 0)");
      break;
    case LDCodeVerificationRejected:
      printLine(std::cout, LDPrintable(arguments.files[0]) + ": rejected: " + error->description());
      break;
    case LDCodeVerificationUnverifiable:
      printLine(std::cout, LDPrintable(arguments.files[0]) + ": unverifiable: " + error->description());
      break;
  }
  return result;
}

int display(const Arguments& arguments) {
  const std::string& path = arguments.files[0];
  LDFileHandle file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
  if (!file.isValid()) return failure("cannot open " + path + ": " + std::strerror(errno));
  const off_t size = ::lseek(file.fileDescriptor(), 0, SEEK_END);
  if (size < 0) return failure("cannot read " + path);
  const LDSignatureLocation location =
      LDLocateSignatureOfDescriptor(file.fileDescriptor(), static_cast<uint64_t>(size));
  if (location.status == errSecCSSignatureNotVerifiable) return failure("cannot read " + path);
  if (location.status == errSecCSUnsigned) return failure(path + " is not signed");
  if (location.status != 0) return failure(path + " ends in a malformed signature trailer");
  std::string blob(location.blobSize, '\0');
  if (!LDReadFully(file.fileDescriptor(), location.codeSize, blob.data(), blob.size())) {
    return failure("cannot read " + path);
  }
  const LDSignatureContents contents = LDReadSignatureBlob(LDBytesOf(blob));
  if (contents.status != 0) {
    return failure(LDPrintable(path) + ": " + contents.detail + " (OSStatus " + std::to_string(contents.status) + ")");
  }
  printLine(std::cout, "identifier " + LDPrintable(contents.manifest.identifier));
  printLine(std::cout, "team       " + LDPrintable(contents.manifest.team));
  printLine(std::cout, "signer     " + LDNameText(contents.leaf().subject));
  printLine(std::cout, "size       " + std::to_string(contents.manifest.size));
  printLine(std::cout, "sha256     " + LDHex(contents.manifest.sha256.data(), contents.manifest.sha256.size()));
  std::cout << "(shown as signed; 'ld-codesign verify' checks trust and the code)\n";
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return usageError("no command");
  const std::string command = argv[1];
  std::string problem;
  if (command == "sign") {
    const auto arguments = parse(argc, argv, {"--identifier", "--key", "--cert", "--chain", "--pkcs11-module"}, &problem);
    return arguments ? sign(*arguments) : usageError(problem);
  }
  if (command == "verify") {
    const auto arguments = parse(argc, argv, {"--requirement", "--anchor"}, &problem);
    return arguments ? verify(*arguments) : usageError(problem);
  }
  if (command == "display") {
    const auto arguments = parse(argc, argv, {}, &problem);
    return arguments ? display(*arguments) : usageError(problem);
  }
  if (command == "--version") {
    std::fputs("ld-codesign " LD_VERSION "\n", stdout);
    return 0;
  }
  if (command == "--help" || command == "-h" || command == "help") {
    std::cout << kUsage;
    return 0;
  }
  return usageError("unknown command " + command);
}
