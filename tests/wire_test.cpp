#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "platform/seqpacket.h"
#include "protocol/wire.h"
#include "shared/file_handle.h"

namespace {

// value as size little-endian bytes.
std::string littleEndian(uint64_t value, int size) {
  std::string bytes;
  for (int i = 0; i < size; ++i) bytes.push_back(static_cast<char>((value >> (8 * i)) & 0xff));
  return bytes;
}

std::string header(uint16_t type) { return "QLD1" + littleEndian(type, 2); }
std::string i64(int64_t value) { return littleEndian(static_cast<uint64_t>(value), 8); }
std::string str(const std::string& text) { return littleEndian(text.size(), 4) + text; }

const std::string kNil("\xff\xff\xff\xff", 4);

// Each message encodes to the documented bytes, and those bytes (with the descriptors they
// announce) decode to it again.
TEST(Wire, EncodesTheDocumentedBytesAndDecodesThem) {
  const std::string kOneTwoThreeFour("\x04\x03\x02\x01", 4);
  const struct {
    LDMessage message;
    std::string bytes;
    size_t descriptors;
  } cases[] = {
      {LDHelloMessage{}, header(1), 0},
      {LDRequestMessage{-5}, header(2) + i64(-5), 0},
      {LDRequestReplyMessage{1, 0, "ab", 3, 0x01020304, std::nullopt},
       header(3) + i64(1) + i64(0) + str("ab") + "\x03" + kOneTwoThreeFour + kNil, 2},
      {LDRequestReplyMessage{1, 8, std::nullopt, 0, 42, "x"}, header(3) + i64(1) + i64(8) + kNil + '\0' + littleEndian(42, 4) + str("x"), 0},
      {LDCompleteMessage{1, std::nullopt, true}, header(4) + i64(1) + kNil + "\x01", 0},
      {LDCompleteMessage{1, "", false}, header(4) + i64(1) + str("") + '\0', 0},
      {LDCompleteReplyMessage{1, 7, "x"}, header(5) + i64(1) + i64(7) + str("x"), 0},
      {LDCompleteReplyMessage{1, 1, std::nullopt}, header(5) + i64(1) + i64(1) + kNil, 0},
      {LDCompleteReplyMessage{1, 1, std::string(1024, 'a')}, header(5) + i64(1) + i64(1) + str(std::string(1024, 'a')), 0},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(LDEncodeMessage(c.message), c.bytes) << c.message.index();
    const auto decoded = LDDecodeMessage(c.bytes, c.descriptors);
    ASSERT_TRUE(decoded) << c.message.index();
    EXPECT_EQ(LDEncodeMessage(*decoded), c.bytes);
  }
  // Any byte but zero accepts.
  EXPECT_TRUE(std::get<LDCompleteMessage>(LDDecodeMessage(header(4) + i64(1) + kNil + "\x80", 0).value()).accepted);
}

// Every message cut short anywhere, its last byte the last of readable memory: the reader refuses
// it without reading further (a read past the end faults on the page after).
TEST(Wire, EveryCutShortMessageIsRefusedWithoutAReadPastItsEnd) {
  const auto page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
  char* const end = static_cast<char*>(::mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) + page;
  ASSERT_EQ(::mprotect(end, page, PROT_NONE), 0);  // fails too when mmap did
  for (const std::string& bytes : {LDEncodeMessage(LDRequestReplyMessage{1, 0, "ab", 0, 7, "m"}),
                                   LDEncodeMessage(LDCompleteReplyMessage{1, 7, ""}), LDEncodeMessage(LDCompleteMessage{1, "t", true})}) {
    for (size_t length = 0; length < bytes.size(); ++length) {
      bytes.copy(end - length, length);
      EXPECT_FALSE(LDDecodeMessage(std::string_view(end - length, length), 0)) << bytes.size() << " cut to " << length;
    }
  }
  ::munmap(end - page, 2 * page);
}

// A receive that fails says so, and is not taken for a socket with nothing to read yet.
TEST(ReceivePacket, AFailedReceiveIsNotTakenForNothingToReadYet) {
  LDReceivedPacket packet;
  int errorNumber = 0;
  EXPECT_EQ(LDReceivePacket(-1, 64, &packet, &errorNumber), LDReceiveResult::failed);
  EXPECT_EQ(errorNumber, EBADF);
}

// A string over 1024 bytes is cut on a character boundary: here é would straddle the 1024th.
TEST(Wire, LongStringsAreCutOnACharacterBoundary) {
  const auto decoded = LDDecodeMessage(LDEncodeMessage(LDCompleteReplyMessage{1, 7, std::string(1023, 'a') + "\xc3\xa9"}), 0);
  EXPECT_EQ(std::get<LDCompleteReplyMessage>(decoded.value()).message, std::string(1023, 'a'));
}

TEST(Wire, RejectsEveryMalformedPacket) {
  const std::string request = header(2) + i64(1);
  struct Case {
    const char* name;
    std::string packet;
    size_t descriptors;
  };
  for (const Case& c : {
           Case{"wrong magic", "QLD2" + request.substr(4), 0},
           Case{"unknown type", header(6), 0},
           Case{"type zero", header(0), 0},
           Case{"trailing byte", request + "x", 0},
           Case{"descriptors with a request", request, 1},
           Case{"reply missing its descriptors", LDEncodeMessage(LDRequestReplyMessage{1, 0, "t", 3, 1, std::nullopt}), 1},
           Case{"reply with extra descriptors", LDEncodeMessage(LDRequestReplyMessage{1, 0, "t", 1, 1, std::nullopt}), 2},
           Case{"unknown handle bit", header(3) + i64(1) + i64(0) + kNil + "\x04" + std::string(4, '\0') + kNil, 0},
           Case{"string too long", header(4) + i64(1) + str(std::string(1025, 'a')) + "\x01", 0},
           Case{"string past the end", header(4) + i64(1) + std::string("\x10\0\0\0", 4) + "abc", 0},
           Case{"invalid UTF-8", header(4) + i64(1) + str("\xc3(") + "\x01", 0},  // each ill-formed kind: the Printable table
           Case{"a continuation byte alone", header(4) + i64(1) + str("\x80") + "\x01", 0},  // Printable escapes U+0080 alike
           Case{"oversized", request + std::string(4096, '\0'), 0},
       }) {
    EXPECT_FALSE(LDDecodeMessage(c.packet, c.descriptors)) << c.name;
  }
}

// Whatever numbers the sources have, the targets 3 and 4 end up naming them and survive exec.
TEST(PlaceDescriptorsForExec, SourcesAlreadyAtOrSwappedWithTheirTargets) {
  for (const auto& [source0, source1] : {std::pair{3, 4}, std::pair{4, 3}, std::pair{20, 21}, std::pair{3, 30}}) {
    SCOPED_TRACE(std::to_string(source0) + " " + std::to_string(source1));
    // Two pipes, write ends at 102 and 103, read ends (close-on-exec, as received listeners are)
    // at the case's numbers, nothing else at 3 or 4.
    int a[2], b[2];
    ASSERT_EQ(::pipe2(a, O_CLOEXEC), 0);
    ASSERT_EQ(::pipe2(b, O_CLOEXEC), 0);
    const int ends[] = {a[0], b[0], a[1], b[1]};
    for (int i = 0; i < 4; ++i) ASSERT_EQ(::dup3(ends[i], 100 + i, O_CLOEXEC), 100 + i);
    for (const int fd : {a[0], b[0], a[1], b[1], 3, 4}) ::close(fd);
    ASSERT_EQ(::dup3(100, source0, O_CLOEXEC), source0);
    ASSERT_EQ(::dup3(101, source1, O_CLOEXEC), source1);
    const int sources[] = {source0, source1}, targets[] = {3, 4};
    ASSERT_TRUE(LDPlaceDescriptorsForExec(sources, targets, 2));
    ASSERT_EQ(::write(102, "A", 1), 1);
    ASSERT_EQ(::write(103, "B", 1), 1);
    for (const auto& [target, written] : {std::pair{3, 'A'}, std::pair{4, 'B'}}) {
      EXPECT_EQ(::fcntl(target, F_GETFD) & FD_CLOEXEC, 0);
      char got = 0;
      EXPECT_EQ(::read(target, &got, 1), 1);
      EXPECT_EQ(got, written);
    }
    for (const int fd : {3, 4, source0, source1, 100, 101, 102, 103}) ::close(fd);
  }
  // A source that is not open, or a target no descriptor can have, places nothing; descriptor 0
  // is a target like any other (here standard input placed onto itself).
  const int none = -1, input = 0;
  EXPECT_FALSE(LDPlaceDescriptorsForExec(&none, &input, 1) || LDPlaceDescriptorsForExec(&input, &none, 1));
  EXPECT_TRUE(LDPlaceDescriptorsForExec(&input, &input, 1));
}

}  // namespace
