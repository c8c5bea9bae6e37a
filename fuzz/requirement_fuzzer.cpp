// Requirement texts come from the application's build and from ld-codesign's command line; the
// parser must take any bytes without crashing.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "signing/requirement.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  if (const auto requirement = LDParseRequirement(text)) {
    (void)LDFirstUnmetClause(*requirement, {"com.example.app", "TEAM", true});
  }
  return 0;
}
