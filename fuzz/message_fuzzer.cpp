// Every packet a peer can send reaches this decoder; it must take any bytes and any descriptor
// count without crashing, and what it accepts must encode back to the same bytes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "protocol/wire.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const size_t descriptors = data[0] % 4;
  const std::string_view packet(reinterpret_cast<const char*>(data + 1), size - 1);
  if (const auto message = LDDecodeMessage(packet, descriptors)) {
    // Any non-zero accepted byte decodes as yes and encodes as 1, so compare message to message.
    const auto again = LDDecodeMessage(LDEncodeMessage(*message), descriptors);
    if (!again || LDEncodeMessage(*again) != LDEncodeMessage(*message)) std::abort();
  }
  return 0;
}
