#pragma once

// One-time tokens for the handoff.

#include <optional>
#include <string>

#include "shared/constants.h"
#include "shared/system_calls.h"

// 64 lower-case hexadecimal characters from 32 bytes of the kernel's cryptographic random source
// (getrandom), fresh on every call.
std::optional<std::string> LDUnpredictableToken(LDErrorPlace error = nullptr,
                                                LDSystemCalls& systemCalls = LDSystemCalls::real());
