#include "protocol/wire.h"

#include <bit>

#include "shared/utf8.h"

namespace {

class Writer {
 public:
  void u8(uint8_t value) { _bytes.push_back(static_cast<char>(value)); }
  void u16(uint16_t value) { little(value, 2); }
  void u32(uint32_t value) { little(value, 4); }
  void i32(int32_t value) { little(static_cast<uint32_t>(value), 4); }
  void i64(int64_t value) { little(static_cast<uint64_t>(value), 8); }
  void string(const std::optional<std::string>& value) {
    if (!value) {
      u32(LDWireNoString);
      return;
    }
    size_t length = std::min(value->size(), LDWireMaximumStringSize);
    // Never cut inside a UTF-8 sequence: step back over continuation bytes.
    while (length < value->size() && length > 0 &&
           (static_cast<unsigned char>((*value)[length]) & 0xC0) == 0x80) {
      --length;
    }
    u32(static_cast<uint32_t>(length));
    _bytes.append(*value, 0, length);
  }
  std::string take() { return std::move(_bytes); }

 private:
  void little(uint64_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) _bytes.push_back(static_cast<char>((value >> (8 * i)) & 0xff));
  }
  std::string _bytes;
};

class Reader {
 public:
  explicit Reader(std::string_view bytes) : _bytes(bytes) {}

  bool u8(uint8_t& value) {
    uint64_t raw;
    if (!little(raw, 1)) return false;
    value = static_cast<uint8_t>(raw);
    return true;
  }
  bool u16(uint16_t& value) {
    uint64_t raw;
    if (!little(raw, 2)) return false;
    value = static_cast<uint16_t>(raw);
    return true;
  }
  bool u32(uint32_t& value) {
    uint64_t raw;
    if (!little(raw, 4)) return false;
    value = static_cast<uint32_t>(raw);
    return true;
  }
  bool i32(int32_t& value) {
    uint32_t raw;
    if (!u32(raw)) return false;
    value = static_cast<int32_t>(raw);
    return true;
  }
  bool i64(int64_t& value) {
    uint64_t raw;
    if (!little(raw, 8)) return false;
    value = static_cast<int64_t>(raw);
    return true;
  }
  bool string(std::optional<std::string>& value) {
    uint32_t length;
    if (!u32(length)) return false;
    if (length == LDWireNoString) {
      value.reset();
      return true;
    }
    if (length > LDWireMaximumStringSize || length > _bytes.size()) return false;
    std::string_view text = _bytes.substr(0, length);
    if (!LDIsWellFormedUTF8(text)) return false;
    value = std::string(text);
    _bytes.remove_prefix(length);
    return true;
  }
  bool atEnd() const { return _bytes.empty(); }

 private:
  bool little(uint64_t& value, size_t bytes) {
    if (_bytes.size() < bytes) return false;
    value = 0;
    for (size_t i = 0; i < bytes; ++i) {
      value |= uint64_t{static_cast<unsigned char>(_bytes[i])} << (8 * i);
    }
    _bytes.remove_prefix(bytes);
    return true;
  }

  std::string_view _bytes;
};

template <class... Ts>
struct Overloaded : Ts... {
  using Ts::operator()...;
};
template <class... Ts>
Overloaded(Ts...) -> Overloaded<Ts...>;  // clang 14 does not deduce aggregates by itself

// The fields after the type, one reader per message.
bool readFields(Reader&, LDHelloMessage&) { return true; }

bool readFields(Reader& reader, LDRequestMessage& m) { return reader.i64(m.protocolVersion); }

bool readFields(Reader& reader, LDRequestReplyMessage& m) {
  return reader.i64(m.protocolVersion) && reader.i64(m.status) && reader.string(m.token) && reader.u8(m.handles) &&
         reader.i32(m.helperProcessIdentifier) && reader.string(m.message) &&
         (m.handles & ~(LDWireHandleIPv4 | LDWireHandleIPv6)) == 0;
}

bool readFields(Reader& reader, LDCompleteMessage& m) {
  uint8_t accepted;
  if (!reader.i64(m.protocolVersion) || !reader.string(m.token) || !reader.u8(accepted)) return false;
  m.accepted = accepted != 0;
  return true;
}

bool readFields(Reader& reader, LDCompleteReplyMessage& m) {
  return reader.i64(m.protocolVersion) && reader.i64(m.status) && reader.string(m.message);
}

template <class Message>
std::optional<LDMessage> readMessage(Reader& reader) {
  Message message{};
  if (!readFields(reader, message)) return std::nullopt;
  return LDMessage(std::move(message));
}

std::optional<LDMessage> readBody(Reader& reader, LDMessageType type) {
  switch (type) {
    case LDMessageType::hello:
      return readMessage<LDHelloMessage>(reader);
    case LDMessageType::request:
      return readMessage<LDRequestMessage>(reader);
    case LDMessageType::requestReply:
      return readMessage<LDRequestReplyMessage>(reader);
    case LDMessageType::complete:
      return readMessage<LDCompleteMessage>(reader);
    case LDMessageType::completeReply:
      return readMessage<LDCompleteReplyMessage>(reader);
  }
  return std::nullopt;  // a type this version does not know
}

}  // namespace

std::string LDEncodeMessage(const LDMessage& message) {
  Writer writer;
  writer.u32(LDWireMagic);
  std::visit(Overloaded{
                 [&](const LDHelloMessage&) { writer.u16(static_cast<uint16_t>(LDMessageType::hello)); },
                 [&](const LDRequestMessage& m) {
                   writer.u16(static_cast<uint16_t>(LDMessageType::request));
                   writer.i64(m.protocolVersion);
                 },
                 [&](const LDRequestReplyMessage& m) {
                   writer.u16(static_cast<uint16_t>(LDMessageType::requestReply));
                   writer.i64(m.protocolVersion);
                   writer.i64(m.status);
                   writer.string(m.token);
                   writer.u8(m.handles);
                   writer.i32(m.helperProcessIdentifier);
                   writer.string(m.message);
                 },
                 [&](const LDCompleteMessage& m) {
                   writer.u16(static_cast<uint16_t>(LDMessageType::complete));
                   writer.i64(m.protocolVersion);
                   writer.string(m.token);
                   writer.u8(m.accepted ? 1 : 0);
                 },
                 [&](const LDCompleteReplyMessage& m) {
                   writer.u16(static_cast<uint16_t>(LDMessageType::completeReply));
                   writer.i64(m.protocolVersion);
                   writer.i64(m.status);
                   writer.string(m.message);
                 },
             },
             message);
  return writer.take();
}


namespace {

// How many descriptors a message carries.
size_t descriptorCountOf(const LDMessage& message) {
  if (const auto* reply = std::get_if<LDRequestReplyMessage>(&message)) {
    return static_cast<size_t>(std::popcount(reply->handles));
  }
  return 0;
}

}  // namespace

std::optional<LDMessage> LDDecodeMessage(std::string_view packet, size_t descriptorCount) {
  if (packet.size() > LDWireMaximumPacketSize) return std::nullopt;
  Reader reader(packet);
  uint32_t magic;
  uint16_t type;
  if (!reader.u32(magic) || magic != LDWireMagic || !reader.u16(type)) return std::nullopt;
  std::optional<LDMessage> message = readBody(reader, static_cast<LDMessageType>(type));
  if (!message || !reader.atEnd() || descriptorCountOf(*message) != descriptorCount) return std::nullopt;
  return message;
}
