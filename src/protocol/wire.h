#pragma once

// The messages between helper and client on the AF_UNIX SOCK_SEQPACKET connection: one message
// a packet, little-endian, header u32 magic "QLD1" then u16 type; strings as u32 length
// (0xFFFFFFFF for none) then UTF-8. docs/protocol.md is the byte-level reference.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "protocol/transfer_status.h"

inline constexpr uint32_t LDWireMagic = 0x31444C51;  // "QLD1" on the wire
inline constexpr size_t LDWireMaximumPacketSize = 4096;
inline constexpr size_t LDWireMaximumStringSize = 1024;
inline constexpr uint32_t LDWireNoString = 0xFFFFFFFF;
inline constexpr uint8_t LDWireHandleIPv4 = 1 << 0;
inline constexpr uint8_t LDWireHandleIPv6 = 1 << 1;

enum class LDMessageType : uint16_t {
  hello = 1,
  request = 2,
  requestReply = 3,
  complete = 4,
  completeReply = 5,
};

struct LDHelloMessage {};

struct LDRequestMessage {
  int64_t protocolVersion;
};

struct LDRequestReplyMessage {
  int64_t protocolVersion;
  int64_t status;  // an LDListenerTransferStatus, or a value this side does not know
  std::optional<std::string> token;
  uint8_t handles;  // LDWireHandleIPv4 | LDWireHandleIPv6: which descriptors ride along, in order
  int32_t helperProcessIdentifier;
  std::optional<std::string> message;
};

struct LDCompleteMessage {
  int64_t protocolVersion;
  std::optional<std::string> token;
  bool accepted;  // any non-zero byte on the wire
};

struct LDCompleteReplyMessage {
  int64_t protocolVersion;
  int64_t status;
  std::optional<std::string> message;
};

using LDMessage = std::variant<LDHelloMessage, LDRequestMessage, LDRequestReplyMessage,
                               LDCompleteMessage, LDCompleteReplyMessage>;

// The packet for a message. Strings longer than the limit are cut at the limit (on a character
// boundary), so what is sent always decodes.
std::string LDEncodeMessage(const LDMessage& message);

// The message in one packet that arrived with descriptorCount descriptors, or nothing if the
// packet is not exactly one well-formed message with exactly the descriptors it declares.
std::optional<LDMessage> LDDecodeMessage(std::string_view packet, size_t descriptorCount);

