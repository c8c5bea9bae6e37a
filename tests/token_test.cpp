#include <gtest/gtest.h>

#include <cerrno>
#include <set>

#include "shared/code_signing.h"
#include "support/expect_error.h"
#include "support/scripted_system_calls.h"

namespace {

// The draws are fresh each time; their encoding is the next test's.
TEST(UnpredictableToken, FreshEachTime) {
  std::set<std::string> seen;
  for (int i = 0; i < 64; ++i) seen.insert(LDUnpredictableToken().value());
  EXPECT_EQ(seen.size(), 64u);
}

// Two digits a byte, high nibble first, no sign extension of bytes from 0x80.
TEST(UnpredictableToken, EncodesEachDrawnByteAsTwoDigits) {
  ldtest::ScriptedSystemCalls systemCalls;
  systemCalls.randomBytes = std::vector<unsigned char>{0x00, 0xff, 0x80, 0x0a, 0x7f, 0x10, 0xc3, 0x01};
  systemCalls.randomBytes->resize(32, 0xe9);
  EXPECT_EQ(LDUnpredictableToken(nullptr, systemCalls),
            "00ff800a7f10c301e9e9e9e9e9e9e9e9e9e9e9e9e9e9e9e9e9e9e9e9e9e9e9e9");
}

TEST(UnpredictableToken, AFailedOrShortDrawGivesNothing) {
  for (const auto& [value, errorNumber] : {std::pair{-1L, EAGAIN}, std::pair{31L, 0}, std::pair{0L, 0}}) {
    ldtest::ScriptedSystemCalls systemCalls;
    systemCalls.script("getrandom", 0, value, errorNumber);
    std::optional<LDError> error;
    EXPECT_FALSE(LDUnpredictableToken(&error, systemCalls));
    ldtest::expectError(error, {2, "SecRandomCopyBytes failed", std::nullopt});
    EXPECT_FALSE(LDUnpredictableToken(nullptr, systemCalls));
  }
}

}  // namespace
