// A program that reports its own team identity, run by the tests as a signed and an unsigned
// copy. Prints the client requirement for argv[1], or the error, and exits 0 or 1.
#include <cstdio>

#include "signing/code_signing.h"

int main(int argc, char** argv) {
  std::optional<LDError> error;
  const std::optional<std::string> requirement =
      LDCodeSigningRequirementForIdentifier(argc > 1 ? argv[1] : "com.example.client", &error);
  const std::string output = requirement ? *requirement : error ? error->description() : "no error value";
  std::printf("%s\n", output.c_str());
  return requirement ? 0 : 1;
}
