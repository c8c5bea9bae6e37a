#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include "shared/file_handle.h"
#include "shared/hex.h"
#include "shared/printable.h"
#include "signing/certificate.h"
#include "signing/code_signature.h"
#include "signing/public_key.h"
#include "signing/requirement.h"

namespace {

TEST(Requirement, AcceptsExactlyTheSubset) {
  // The text, and how many clauses it has; 0 when it is unparsable.
  for (const auto& [text, clauses] : std::initializer_list<std::pair<const char*, size_t>>{
           {R"(identifier "com.a.b" and anchor apple generic and certificate leaf[subject.OU] = "T1")", 3},
           {R"(anchor apple generic)", 1},
           {R"(certificate leaf [ subject.OU ] = "T")", 1},
           {"identifier \"x\"\n\tand identifier \"x\"", 2},
           {R"(identifier "")", 1},
           {"", 0},
           {"and", 0},
           {R"(identifier "x" and)", 0},
           {R"(identifier x)", 0},
           {R"(identifier "x" or anchor apple generic)", 0},
           {R"(anchor apple)", 0},
           {R"(anchor trusted)", 0},
           {R"(certificate leaf[subject.CN] = "T")", 0},
           {R"(certificate root[subject.OU] = "T")", 0},
           {R"(certificate leaf[subject.OU] "T")", 0},
           {R"(identifier "unterminated)", 0},
           {R"(identifier "a"b" and anchor apple generic)", 0},
           {R"((identifier "x"))", 0},
           {R"(!identifier "x")", 0},
       }) {
    const std::optional<LDRequirement> parsed = LDParseRequirement(text);
    EXPECT_EQ(parsed ? parsed->clauses.size() : 0, clauses) << text;
  }
}

TEST(Requirement, EveryClauseMustHold) {
  const auto requirement = LDParseRequirement(
      R"(identifier "com.a" and anchor apple generic and certificate leaf[subject.OU] = "T1")");
  ASSERT_TRUE(requirement);
  EXPECT_FALSE(LDFirstUnmetClause(*requirement, {"com.a", "T1", true}));
  EXPECT_TRUE(LDFirstUnmetClause(*requirement, {"com.a ", "T1", true})) << "byte for byte";
  EXPECT_TRUE(LDFirstUnmetClause(*requirement, {"COM.A", "T1", true}));
  EXPECT_TRUE(LDFirstUnmetClause(*requirement, {"com.a", "t1", true}));
}

// Untrusted text as LDPrintable shows it, and a message made of escaped parts as
// LDPrintableMessage shows it ("" where that is the text itself).
TEST(Printable, EscapesWhatCouldForgeALineAndNothingElse) {
  struct Row {
    std::string_view text, shown, message;
  };
  for (const Row& row : std::initializer_list<Row>{
           {"CN=Team \xc3\xa9 \xe2\x82\xac \xd8\x9b \xe2\x81\xb0 \xef\xbb\xbc \xf0\x9f\x98\x80 \xf4\x8f\xbf\xbf", "", ""},  // visible
           {std::string_view("a\nb\r\0\x1b[2J\x7f", 10), "a\\x0ab\\x0d\\x00\\x1b[2J\\x7f", ""},
           {"\\x0a \\u{202e}", "\\x5cx0a \\x5cu{202e}", "\\x0a \\u{202e}"},  // an escape spelled by the text
           {"\xc2\x9b \xc2\xad \xe2\x80\xa8 \xe2\x80\xa9 \xe2\x80\xae", "\\u{009b} \\u{00ad} \\u{2028} \\u{2029} \\u{202e}", ""},
           {"\xd8\x9c \xe2\x80\x8b \xe2\x80\x8e \xe2\x80\x8f \xe2\x81\xa6 \xe2\x81\xa9 \xef\xbb\xbf",
            "\\u{061c} \\u{200b} \\u{200e} \\u{200f} \\u{2066} \\u{2069} \\u{feff}", ""},
           {"\xf3\xa0\x80\x80\xf3\xa0\x81\x81\xf3\xa0\x81\xbf \xef\xb8\x8f \xe1\x85\x9f",
            "\\u{e0000}\\u{e0041}\\u{e007f} \\u{fe0f} \\u{115f}", ""},  // tags, a variation selector, a filler
           {"\xff\xc3 \xed\xa0\x80 \xed\xbf\xbf \xc0\xaf \xf4\x90\x80\x80 \xf5\x80\x80\x80",  // not UTF-8: surrogates, above U+10FFFF
            "\\xff\\xc3 \\xed\\xa0\\x80 \\xed\\xbf\\xbf \\xc0\\xaf \\xf4\\x90\\x80\\x80 \\xf5\\x80\\x80\\x80", ""},
       }) {
    const std::string_view shown = row.shown.empty() ? row.text : row.shown;
    const std::string_view message = row.message.empty() ? shown : row.message;
    EXPECT_EQ(LDPrintable(row.text), shown);
    EXPECT_EQ(LDPrintableMessage(row.text), message);
    EXPECT_EQ(LDPrintableMessage(message), message);
  }
}

// Names compared as OpenSSL's X509_NAME_cmp compares them (ASCII letters folded, white space cut
// and runs of it made one, string types alike), and a subtree as a prefix of whole RDNs.
TEST(Names, MatchAndNestAsOpenSSLReadsThem) {
  const auto name = [](std::initializer_list<std::pair<uint8_t, std::string_view>> values) {
    std::string rdns;
    for (const auto& [tag, value] : values) {
      const std::string attribute = std::string("\x06\x03\x55\x04\x03") + static_cast<char>(tag) +
                                    static_cast<char>(value.size()) + std::string(value);
      rdns += "\x31" + std::string(1, static_cast<char>(attribute.size() + 2)) + "\x30" +
              std::string(1, static_cast<char>(attribute.size())) + attribute;
    }
    return "\x30" + std::string(1, static_cast<char>(rdns.size())) + rdns;
  };
  const uint8_t utf8 = LDDerUTF8String, printable = LDDerPrintableString;
  for (const auto& [a, b, same] : std::initializer_list<std::tuple<std::string, std::string, bool>>{
           {name({{utf8, "Forge AZ"}}), name({{printable, "forge az"}}), true},
           {name({{utf8, " \t a \r\n\v\f b "}}), name({{utf8, "a b"}}), true},
           {name({{utf8, "@["}}), name({{utf8, "`{"}}), false},
           {name({{utf8, "\x08" "a\x0e"}}), name({{utf8, "a"}}), false},
           {name({{utf8, "\xc3\x89"}}), name({{utf8, "\xc3\xa9"}}), false},
           {name({{utf8, "a"}, {utf8, "b"}}), name({{utf8, "a"}}), false},
       }) {
    EXPECT_EQ(LDNamesMatch(LDBytesOf(a), LDBytesOf(b)), same) << a;
  }
  const std::string whole = name({{utf8, "O"}, {utf8, "OU"}});
  EXPECT_TRUE(LDNameIsWithin(LDBytesOf(whole), LDBytesOf(whole)));
  EXPECT_TRUE(LDNameIsWithin(LDBytesOf(whole), LDBytesOf(name({{printable, "o"}}))));
  EXPECT_FALSE(LDNameIsWithin(LDBytesOf(whole), LDBytesOf(name({{utf8, "OU"}}))));
  EXPECT_FALSE(LDNameIsWithin(LDBytesOf(name({{utf8, "O"}})), LDBytesOf(whole)));
}

// One element's header: a low tag number, and a length in its shortest definite form only, at the
// bounds of each form.
TEST(Der, ReadsOnlyLowTagsAndTheShortestDefiniteLength) {
  const std::string x127(127, 'x'), x128(128, 'x'), x256(256, 'x'), x64k(1 << 16, 'x'), x16m(1 << 24, 'x');
  for (const auto& [bytes, readable] : std::initializer_list<std::pair<std::string, bool>>{
           {std::string("\x04\x00", 2), true},
           {"\x04\x7f" + x127, true},
           {"\x04\x81\x80" + x128, true},
           {std::string("\x04\x82\x01\x00", 4) + x256, true},
           {std::string("\x04\x83\x01\x00\x00", 5) + x64k, true},
           {std::string("\x04\x84\x01\x00\x00\x00", 6) + x16m, false},  // four length octets: 16 MiB
           {"\x04\x81\x7f" + x127, false},                          // long form below 128
           {std::string("\x04\x82\x00\x80", 4) + x128, false},      // a leading zero octet
           {"\x04\x81\x80" + x127, false},                          // shorter than it says
           {"\x04\x80" + x127 + std::string(2, '\0'), false},        // indefinite
           {"\x1f\x04xxxx", false},                                  // a high tag number
           {"\x04", false},                                          // no length at all
       }) {
    EXPECT_EQ(LDDerReader(LDBytesOf(bytes)).readAny().has_value(), readable) << bytes.substr(0, 4);
  }
}

// An RSA key of 2048 to 4096 bits with an odd public exponent of at least 3 and at most 8
// octets (a negative one is none): the modulus
// 2^(bits-1)+1 has the bits asked for (the parser checks sizes, not primes).
TEST(PublicKey, TakesRsaKeysOf2048To4096BitsWithAnOddExponent) {
  const auto der = [](char tag, const std::string& contents) {
    const size_t n = contents.size();
    const std::string length = n < 128 ? std::string(1, static_cast<char>(n))
                                       : std::string{'\x82', static_cast<char>(n >> 8), static_cast<char>(n & 0xff)};
    return tag + length + contents;
  };
  const std::string e9(std::string_view("\x01\0\0\0\0\0\0\0\x03", 9));  // odd, but 9 octets
  for (const auto& [bits, exponent, taken] : std::initializer_list<std::tuple<size_t, std::string, bool>>{
           {2047, "\x03", false}, {2048, "\x03", true}, {4096, "\x03", true}, {4097, "\x03", false},
           {2048, "\x04", false}, {2048, "\x01", false}, {2048, "\x83", false}, {2048, e9, false}}) {
    std::string modulus((bits + 8) / 8, '\0');  // with a leading zero octet where the top bit needs it
    modulus[modulus.size() - 1 - (bits - 1) / 8] = static_cast<char>(1 << ((bits - 1) % 8));
    modulus.back() |= 1;
    const std::string rsa = der(0x30, der(0x06, "\x2a\x86\x48\x86\xf7\x0d\x01\x01\x01") + der(0x05, ""));
    const std::string key = der(0x30, rsa + der(0x03, '\0' + der(0x30, der(0x02, modulus) + der(0x02, exponent))));
    EXPECT_EQ(LDParsePublicKey(*LDDerReader(LDBytesOf(key)).readAny()).has_value(), taken) << bits << " bits, e " << testing::PrintToString(exponent);
  }
}

TEST(Manifest, RoundTripsAndRejectsEveryOtherSpelling) {
  LDSignatureManifest manifest{"com.example.app", "TEAM 1", 1234, {}};  // a space is no control character
  for (size_t i = 0; i < manifest.sha256.size(); ++i) manifest.sha256[i] = static_cast<uint8_t>(i * 7);
  const std::string text = LDFormatManifest(manifest);
  EXPECT_EQ(text,
            "ld-codesign-manifest 1\nidentifier com.example.app\nteam TEAM 1\nsize 1234\n"
            "sha256 00070e151c232a31383f464d545b626970777e858c939aa1a8afb6bdc4cbd2d9\n");
  EXPECT_EQ(LDFormatManifest(LDParseManifest(text).value()), text);

  const std::string digest = "sha256 00070e151c232a31383f464d545b626970777e858c939aa1a8afb6bdc4cbd2d9\n";
  const std::string head = "ld-codesign-manifest 1\nidentifier a\nteam T\n";
  for (const std::string& bad : {
           head + "size 12\n" + digest.substr(0, digest.size() - 1),  // no final LF
           head + "size 12\n" + digest + "\n",                         // trailing line
           head + "size 012\n" + digest,                               // leading zero
           head + "size -1\n" + digest,
           head + "size 18446744073709551616\n" + digest,              // 2^64
           head + "size 12\nsha256 00070E151C232A31383F464D545B626970777E858C939AA1A8AFB6BDC4CBD2D9\n",
           head + "size 12\nsha256 0007\n",
           head + "size 12\nsha256 0g" + digest.substr(9),          // one nibble that is no digit
           head + "sha256 x\nsize 12\n",                               // order
           std::string("ld-codesign-manifest 2\nidentifier a\nteam T\nsize 1\n") + digest,
           std::string("ld-codesign-manifest 1\nidentifier \nteam T\nsize 1\n") + digest,
           std::string("ld-codesign-manifest 1\nidentifier a\tb\nteam T\nsize 1\n") + digest,
           std::string("ld-codesign-manifest 1\r\nidentifier a\nteam T\nsize 1\n") + digest,
           std::string("ld-codesign-manifest 1\nidentifier a\nteam\nsize 1\n") + digest,
       }) {
    EXPECT_FALSE(LDParseManifest(bad)) << bad;
  }
  EXPECT_TRUE(LDParseManifest(head + "size 0\n" + digest));
}

TEST(SignatureTrailer, LocatesTheBlobOrSaysWhyNot) {
  EXPECT_EQ(LDFormatSignatureTrailer(0x01020304),
            std::string("\0\0\2\0\0\0\0\0\x01\x02\x03\x04", 12) + "~LD code signature appended~\n");
  struct Case {
    uint64_t fileSize;
    std::string tail;
    int32_t status;
    uint64_t codeSize;
  };
  for (const Case& c : {
           Case{5000, LDFormatSignatureTrailer(1000), 0, 5000 - 41 - 1000},
           Case{1041, LDFormatSignatureTrailer(1000), 0, 0},
           Case{1040, LDFormatSignatureTrailer(1000), errSecCSSignatureInvalid, 0},
           Case{5000, LDFormatSignatureTrailer(0), errSecCSSignatureInvalid, 0},
           Case{1u << 22, LDFormatSignatureTrailer((1u << 20) + 1), errSecCSSignatureInvalid, 0},
           Case{40, std::string(40, 'x'), errSecCSUnsigned, 0},
           Case{5000, std::string(41, 'x'), errSecCSUnsigned, 0},
       }) {
    const LDSignatureLocation location = LDLocateSignature(c.fileSize, c.tail);
    EXPECT_EQ(location.status, c.status) << c.fileSize;
    EXPECT_EQ(location.codeSize, c.codeSize) << c.fileSize;
  }
  // A descriptor that cannot be read (a pipe: ESPIPE) ends the read at once, never read again,
  // and has no digest.
  int pipe[2];
  ASSERT_EQ(::pipe(pipe), 0);
  char byte = 0;
  std::array<uint8_t, 32> digest{};
  EXPECT_FALSE(LDReadFully(pipe[0], 0, &byte, 1));
  EXPECT_FALSE(LDDigestOfDescriptor(pipe[0], 1, digest));
  // A last read of a single byte is a whole read.
  const LDFileHandle one(::memfd_create("one", MFD_CLOEXEC));
  ASSERT_EQ(::write(one.fileDescriptor(), "a", 1), 1);
  ASSERT_TRUE(LDDigestOfDescriptor(one.fileDescriptor(), 1, digest));
  EXPECT_EQ(LDHex(digest.data(), digest.size()), "ca978112ca1bbdcafac231b39a23dc4da786eff8147c4e72b9807785afee48bb");
  ::close(pipe[0]);
  ::close(pipe[1]);
}

}  // namespace
