#include <gtest/gtest.h>

#include <cerrno>
#include <set>

#include "shared/code_signing.h"
#include "support/expect_error.h"
#include "support/scripted_system_calls.h"

namespace {

TEST(UnpredictableToken, SixtyFourLowerCaseHexCharactersFreshEachTime) {
  std::set<std::string> seen;
  for (int i = 0; i < 64; ++i) {
    const auto token = LDUnpredictableToken();
    ASSERT_TRUE(token);
    ASSERT_EQ(token->size(), 64u);
    EXPECT_EQ(token->find_first_not_of("0123456789abcdef"), std::string::npos) << *token;
    seen.insert(*token);
  }
  EXPECT_EQ(seen.size(), 64u);
}

TEST(UnpredictableToken, EveryByteIsTwoDigitsWithoutSignExtension) {
  ldtest::ScriptedSystemCalls systemCalls;
  std::vector<unsigned char> bytes(32);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(0x80 + 0x11 * i);
  bytes[0] = 0x00;
  bytes[1] = 0xff;
  bytes[2] = 0x80;
  bytes[3] = 0x0a;
  systemCalls.scriptRandomBytes(bytes);
  std::string expected = "00ff800a";
  static const char* hex = "0123456789abcdef";
  for (size_t i = 4; i < bytes.size(); ++i) {
    expected += hex[bytes[i] >> 4];
    expected += hex[bytes[i] & 15];
  }
  EXPECT_EQ(LDUnpredictableToken(nullptr, systemCalls), expected);
}

TEST(UnpredictableToken, AFailedOrShortDrawGivesNothing) {
  struct Case {
    const char* name;
    long value;
    int errorNumber;
  };
  for (const Case& c : {Case{"failed", -1, EAGAIN}, Case{"short", 31, 0}, Case{"none", 0, 0}}) {
    SCOPED_TRACE(c.name);
    ldtest::ScriptedSystemCalls systemCalls;
    systemCalls.script("getrandom", 0, c.value, c.errorNumber);
    std::optional<LDError> error;
    EXPECT_FALSE(LDUnpredictableToken(&error, systemCalls));
    ldtest::expectError(error, {2, "SecRandomCopyBytes failed", std::nullopt});
    EXPECT_FALSE(LDUnpredictableToken(nullptr, systemCalls));
  }
}

}  // namespace
