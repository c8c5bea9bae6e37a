#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "shared/constants.h"

namespace ldtest {

// What a test expects of an error value: its code, its exact description and, for system-call
// errors only, its error number.
struct ExpectedError {
  int64_t code;
  std::string description;
  std::optional<int32_t> errorNumber;
};

inline void expectError(const std::optional<LDError>& error, const ExpectedError& expected) {
  ASSERT_TRUE(error.has_value()) << "no error was stored; expected " << expected.description;
  EXPECT_EQ(error->domain(), LDListenerErrorDomain);
  EXPECT_EQ(error->code(), expected.code);
  EXPECT_EQ(error->description(), expected.description);
  EXPECT_EQ(error->errorNumber(), expected.errorNumber);
}

// Names each instance of a table-driven test after its case's `name` field.
struct CaseName {
  template <class Case>
  std::string operator()(const testing::TestParamInfo<Case>& instance) const {
    return instance.param.name;
  }
};

}  // namespace ldtest
