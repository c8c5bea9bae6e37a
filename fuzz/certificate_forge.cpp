#include "certificate_forge.h"

#include <openssl/pem.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cctype>
#include <stdexcept>

#include "signing/code_signature.h"

namespace {

// ---- Recipes ----

struct Knob {
  const char* name;
  std::vector<std::string> values;  // the first is the plain one
};

std::vector<std::string> numbers(int count) {
  std::vector<std::string> values;
  for (int i = 0; i < count; ++i) values.push_back(std::to_string(i));
  return values;
}

const std::vector<Knob>& knobs() {
  static const std::vector<Knob>* const table = new std::vector<Knob>{
      {"intermediates", numbers(9)},
      {"shape", {"carried", "omitIntermediates", "withRoot", "leafLast", "twoSigners"}},
      {"target", {"leaf", "intermediate1", "intermediate2", "intermediate3", "intermediate4", "intermediate5",
                  "intermediate6", "intermediate7", "intermediate8"}},
      {"key", {"p256", "p384", "rsa2048", "rsa1024", "p521", "ed25519"}},
      {"basicConstraints", {"standard", "absent", "caNotCritical", "notCA", "caFalseExplicit", "pathLen0", "pathLen1",
                            "notCAWithPathLen", "notSequence"}},
      {"keyUsage", {"standard", "absent", "digitalSignature", "certSign", "keyEncipherment", "paddingBitsSet",
                    "trailingZeroOctet", "signatureAndCertSign", "unusedBitsShort"}},
      {"extendedKeyUsage", {"standard", "absent", "codeSigning", "serverAuth", "anyExtendedKeyUsage", "serverAuthAndCodeSigning",
                            "serverAuthAndAny", "empty", "notSequence"}},
      {"authorityKeyIdentifier", {"standard", "absent", "wrongKeyId", "issuerAndSerial", "wrongIssuer", "wrongSerial", "onlyIssuer",
                                  "secondDirectoryName", "emptyKeyId", "issuerSpelledOtherwise", "serialNonMinimal",
                                  "serialNegative", "ownKeyIdEmpty", "onlySerial", "badDirectoryName"}},
      {"serial", {"standard", "nonMinimal", "negative", "zero", "twentyOctets", "twentyOneOctets"}},
      {"nameString", {"utf8", "printable", "printableBad", "ia5", "ia5High", "utf8Invalid", "utf8Controls", "bmp",
                      "issuersName", "empty"}},
      {"team", {"one", "none", "two", "printable"}},
      {"extraExtension", {"none", "unknown", "unknownCritical", "nameConstraintsCritical", "policiesCritical",
                          "duplicateKeyUsage", "subjectAltName", "permitsTeam", "permitsOtherTeam", "excludesTeam",
                          "excludesOtherTeam", "permitsOrganizationSpelledOtherwise", "permitsWithMaximum",
                          "permitsTeamAndDnsName", "excludesLeaf", "permitsNothing"}},
      {"algorithm", {"standard", "sha384", "innerDiffers", "rsaEncryption"}},
      {"version", {"v3", "v1", "v2"}},
      {"validity", {"current", "expired", "generalizedTime"}},
      {"encoding", {"der", "longFormLength"}},
      {"signatureValue", {"der", "rNegative", "sPadded"}},
      {"signerAlgorithm", {"standard", "rsaEncryption", "otherDigest", "parametersNotNull"}},
      {"manifest", {"standard", "teamDiffers", "malformed", "attributesUnsorted", "contentNotData", "attributeNotData"}},
      {"root", {"standard", "serverAuthOnly", "unknownCritical", "excludesTeam", "permitsTeam"}},
      {"flipAt", numbers(256)},
      {"flipAtHigh", numbers(16)},
  };
  return *table;
}

// ---- DER ----

std::string der(uint8_t tag, std::string_view contents, bool longForm = false) {
  std::string out(1, static_cast<char>(tag));
  const size_t length = contents.size();
  if (length < 0x80 && !longForm) {
    out.push_back(static_cast<char>(length));
  } else {
    std::string octets;
    for (size_t rest = length; rest > 0 || octets.empty(); rest >>= 8) octets.insert(0, 1, static_cast<char>(rest & 0xff));
    out.push_back(static_cast<char>(0x80 | octets.size()));
    out += octets;
  }
  return out.append(contents);
}

std::string oid(std::string_view bytes) { return der(0x06, bytes); }
const std::string kTrue = der(0x01, "\xff");

const char kCommonName[] = "\x55\x04\x03";
const char kOrganization[] = "\x55\x04\x0a";
const char kOrganizationalUnit[] = "\x55\x04\x0b";
const char kCodeSigning[] = "\x2b\x06\x01\x05\x05\x07\x03\x03";
const char kServerAuth[] = "\x2b\x06\x01\x05\x05\x07\x03\x01";

std::string attribute(std::string_view type, uint8_t tag, std::string_view value) {
  return der(0x31, der(0x30, oid(type) + der(tag, value)));
}

std::string simpleName(const std::string& commonName) {
  return der(0x30, attribute(kOrganization, 0x0c, "Quillfern Forge") + attribute(kCommonName, 0x0c, commonName));
}

std::string extension(std::string_view type, bool critical, const std::string& value) {
  return der(0x30, oid(type) + (critical ? kTrue : "") + der(0x04, value));
}

// ---- Keys and signatures ----

ldssl::Key generate(const char* type, const char* parameter, size_t bits = 0) {
  EVP_PKEY* key = bits ? EVP_PKEY_Q_keygen(nullptr, nullptr, type, bits)
                       : parameter ? EVP_PKEY_Q_keygen(nullptr, nullptr, type, parameter)
                                   : EVP_PKEY_Q_keygen(nullptr, nullptr, type);
  if (!key) throw std::runtime_error("forge: key generation");
  return ldssl::Key(key);
}

std::string publicKeyInfo(EVP_PKEY* key) {
  unsigned char* bytes = nullptr;
  const int length = i2d_PUBKEY(key, &bytes);
  if (length <= 0) throw std::runtime_error("forge: public key");
  std::string out(reinterpret_cast<char*>(bytes), static_cast<size_t>(length));
  OPENSSL_free(bytes);
  return out;
}

LDCertificateForge::KeyPair keyPair(ldssl::Key key) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  const std::string info = publicKeyInfo(key.get());
  EVP_Digest(info.data(), info.size(), digest, &size, EVP_sha1(), nullptr);
  return {std::move(key), std::string(reinterpret_cast<char*>(digest), size)};
}

bool isRsa(EVP_PKEY* key) { return EVP_PKEY_get_base_id(key) == EVP_PKEY_RSA; }
bool isEd25519(EVP_PKEY* key) { return EVP_PKEY_get_base_id(key) == EVP_PKEY_ED25519; }

constexpr std::string_view kSha256WithRsa = "\x2a\x86\x48\x86\xf7\x0d\x01\x01\x0b";

// The AlgorithmIdentifier of key's signatures with SHA-256 (or SHA-384).
std::string signatureAlgorithm(EVP_PKEY* key, bool sha384) {
  if (isEd25519(key)) return der(0x30, oid("\x2b\x65\x70"));
  if (isRsa(key)) return der(0x30, oid(sha384 ? "\x2a\x86\x48\x86\xf7\x0d\x01\x01\x0c" : kSha256WithRsa) + der(0x05, ""));
  return der(0x30, oid(sha384 ? "\x2a\x86\x48\xce\x3d\x04\x03\x03" : "\x2a\x86\x48\xce\x3d\x04\x03\x02"));
}

// rsaEncryption: a key's algorithm, which a CMS signer may name but a certificate may not.
std::string bareRsaAlgorithm() { return der(0x30, oid("\x2a\x86\x48\x86\xf7\x0d\x01\x01\x01") + der(0x05, "")); }

// sha256WithRSAEncryption with an INTEGER where its parameters must be NULL.
std::string rsaAlgorithmWithInteger() { return der(0x30, oid(kSha256WithRsa) + der(0x02, std::string(1, '\0'))); }

std::string sign(EVP_PKEY* key, bool sha384, const std::string& message) {
  ldssl::DigestContext context(EVP_MD_CTX_new());
  const EVP_MD* digest = isEd25519(key) ? nullptr : sha384 ? EVP_sha384() : EVP_sha256();
  size_t length = 0;
  const auto* data = reinterpret_cast<const unsigned char*>(message.data());
  if (EVP_DigestSignInit(context.get(), nullptr, digest, nullptr, key) != 1 ||
      EVP_DigestSign(context.get(), nullptr, &length, data, message.size()) != 1) {
    throw std::runtime_error("forge: sign");
  }
  std::string signature(length, '\0');
  if (EVP_DigestSign(context.get(), reinterpret_cast<unsigned char*>(signature.data()), &length, data, message.size()) != 1) {
    throw std::runtime_error("forge: sign");
  }
  signature.resize(length);
  return signature;
}

// An ECDSA signature re-spelt: r without the zero octet that keeps it positive (so that it
// reads as negative), or s with a zero octet it does not need. Empty when r has no such octet.
std::string respelt(const std::string& signature, uint8_t how) {
  // 30 L 02 rl r 02 sl s, all lengths below 128 for the curves used here.
  const auto rLength = static_cast<uint8_t>(signature[3]);
  std::string r = signature.substr(4, rLength);
  std::string s = signature.substr(6 + rLength);
  if (how == 1) {
    if (r.size() < 2 || r[0] != 0) return "";
    r.erase(0, 1);
  } else {
    s.insert(0, 1, '\0');
  }
  return der(0x30, der(0x02, r) + der(0x02, s));
}

}  // namespace

// ---- Recipes ----

std::optional<LDForgeRecipe> LDForgeRecipeFromText(std::string_view text) {
  LDForgeRecipe recipe{};
  while (!text.empty()) {
    const size_t end = std::min(text.find(' '), text.size());
    const std::string_view word = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    if (word.empty()) continue;
    const size_t equals = word.find('=');
    bool known = false;
    for (size_t k = 0; k < LDForgeKnobCount && equals != std::string_view::npos; ++k) {
      if (word.substr(0, equals) != knobs()[k].name) continue;
      const std::vector<std::string>& values = knobs()[k].values;
      for (size_t v = 0; v < values.size(); ++v) {
        if (values[v] != word.substr(equals + 1)) continue;
        recipe[k] = static_cast<uint8_t>(v);
        known = true;
      }
    }
    if (!known) return std::nullopt;
  }
  return recipe;
}

LDForgeRecipe LDForgeRecipeFromBytes(const uint8_t* data, size_t size) {
  LDForgeRecipe recipe{};
  for (size_t k = 0; k < LDForgeKnobCount && k < size; ++k) {
    recipe[k] = static_cast<uint8_t>(data[k] % knobs()[k].values.size());
  }
  return recipe;
}

std::string LDForgeRecipeText(const LDForgeRecipe& recipe) {
  std::string text;
  for (size_t k = 0; k < LDForgeKnobCount; ++k) {
    if (recipe[k] == 0) continue;
    text += (text.empty() ? "" : " ") + std::string(knobs()[k].name) + "=" + knobs()[k].values[recipe[k]];
  }
  return text.empty() ? "plain" : text;
}

std::vector<LDForgeRecipe> LDForgeSingleChanges() {
  std::vector<LDForgeRecipe> recipes(1, LDForgeRecipe{});
  for (size_t k = LDForgeIntermediates; k < LDForgeFlipAt; ++k) {
    if (k == LDForgeTarget) continue;
    const bool perCertificate = k >= LDForgeKey && k <= LDForgeSignatureValue;
    for (size_t v = 1; v < knobs()[k].values.size(); ++v) {
      LDForgeRecipe recipe{};
      recipe[k] = static_cast<uint8_t>(v);
      if (k == LDForgeShape) recipe[LDForgeIntermediates] = 1;
      recipes.push_back(recipe);
      if (!perCertificate) continue;
      recipe[LDForgeIntermediates] = 1;
      recipe[LDForgeTarget] = 1;
      recipes.push_back(recipe);
    }
  }
  return recipes;
}

// ---- The forge ----

namespace {

// What a certificate's children need of it.
struct Issued {
  std::string encoding;
  std::string subject, issuer;  // Names as encoded
  std::string serial;           // the INTEGER's contents
  EVP_PKEY* key = nullptr;
  std::string subjectKeyIdentifier;
};

std::string basicConstraints(uint8_t how, bool authority) {
  const std::string ca = der(0x30, kTrue);
  switch (how) {
    case 1: return "";
    case 2: return extension("\x55\x1d\x13", false, ca);
    case 3: return extension("\x55\x1d\x13", true, der(0x30, ""));
    case 4: return extension("\x55\x1d\x13", true, der(0x30, der(0x01, std::string(1, '\0'))));
    case 5: return extension("\x55\x1d\x13", true, der(0x30, kTrue + der(0x02, std::string(1, '\0'))));
    case 6: return extension("\x55\x1d\x13", true, der(0x30, kTrue + der(0x02, "\x01")));
    case 7: return extension("\x55\x1d\x13", true, der(0x30, der(0x02, std::string(1, '\0'))));
    case 8: return extension("\x55\x1d\x13", true, der(0x31, ""));
    default: return extension("\x55\x1d\x13", true, authority ? ca : der(0x30, ""));
  }
}

std::string keyUsage(uint8_t how, bool authority) {
  // BIT STRING contents (unused bits, then the bits): digitalSignature is bit 0, keyEncipherment
  // 2, keyCertSign 5, cRLSign 6.
  static constexpr std::string_view kBits[] = {
      "", "", "\x07\x80", "\x01\x06", "\x05\x20",
      "\x07\x84",                                   // digitalSignature, and bit 5 set in the padding
      std::string_view("\x01\x06\x00", 3),           // keyCertSign and cRLSign, then a zero octet
      "\x01\x86",
      std::string_view("\x00\x80", 2)};             // digitalSignature, its 7 trailing zeros not unused
  if (how == 1) return "";
  const std::string_view bits = how != 0 ? kBits[how] : authority ? kBits[3] : kBits[2];
  return extension("\x55\x1d\x0f", true, der(0x03, bits));
}

std::string extendedKeyUsage(uint8_t how, bool authority) {
  const std::string code = oid(kCodeSigning), server = oid(kServerAuth), any = oid(std::string_view("\x55\x1d\x25\x00", 4));
  const std::string purposes[] = {authority ? "" : code, "", code, server, any, server + code, server + any, ""};
  if (how == 7) return extension("\x55\x1d\x25", false, der(0x30, ""));
  if (how == 8) return extension("\x55\x1d\x25", false, der(0x31, code));
  return purposes[how].empty() ? "" : extension("\x55\x1d\x25", false, der(0x30, purposes[how]));
}

// The same Name in capitals and PrintableStrings: another encoding, the same to X509_NAME_cmp.
// The forge's names are short (all lengths in one octet) and their values printable.
std::string spelledOtherwise(std::string name) {
  for (size_t at = 2; at < name.size();) {
    const size_t value = at + 6 + static_cast<uint8_t>(name[at + 5]);  // SET, SEQUENCE, OID, then the value
    name[value] = 0x13;
    const size_t end = value + 2 + static_cast<uint8_t>(name[value + 1]);
    for (size_t i = value + 2; i < end; ++i) name[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(name[i])));
    at = end;
  }
  return name;
}

std::string authorityKeyIdentifier(uint8_t how, const Issued& issuer) {
  if (how == 1) return "";
  std::string keyIdentifier = how == 8 ? "" : issuer.subjectKeyIdentifier;
  if (how == 2) keyIdentifier[0] = static_cast<char>(keyIdentifier[0] ^ 0x01);
  std::string fields = der(0x80, keyIdentifier);
  const std::string otherName = der(0xa4, simpleName("Forge Nobody"));
  const std::string names[] = {"", "", "", der(0xa4, issuer.issuer), otherName, der(0xa4, issuer.issuer),
                               der(0xa4, issuer.issuer), otherName + der(0xa4, issuer.issuer), "",
                               der(0xa4, spelledOtherwise(issuer.issuer)), der(0xa4, issuer.issuer),
                               der(0xa4, issuer.issuer), "", "", der(0xa4, der(0x04, "x"))};
  if (!names[how].empty()) fields += der(0xa1, names[how]);
  if (how == 5) fields += der(0x82, "\x7f");
  if (how == 10) fields += der(0x82, std::string(1, '\0') + issuer.serial);
  if (how == 11) fields += der(0x82, "\xfd");
  if (how == 3 || how == 4 || how == 7 || how == 9 || how >= 13) fields += der(0x82, issuer.serial);
  return extension("\x55\x1d\x23", false, der(0x30, fields));
}

std::string serialContents(uint8_t how, size_t position) {
  const std::string plain(1, static_cast<char>(position + 2));
  switch (how) {
    case 1: return std::string(1, '\0') + plain;
    case 2: return "\xfb";
    case 3: return std::string(1, '\0');
    case 4: return "\x01" + std::string(19, '\x5a');
    case 5: return "\x01" + std::string(20, '\x5a');
    default: return plain;
  }
}

std::string commonName(uint8_t how, const std::string& text) {
  switch (how) {
    case 1: return attribute(kCommonName, 0x13, text);
    case 2: return attribute(kCommonName, 0x13, text + " *_@");
    case 3: return attribute(kCommonName, 0x16, text);
    case 4: return attribute(kCommonName, 0x16, text + " \xe9");
    case 5: return attribute(kCommonName, 0x0c, text + " \xc0\xaf");
    case 6: return attribute(kCommonName, 0x0c, text + "\n/usr/bin/app: valid\x1b[1A");
    case 7: {
      std::string utf16;
      for (const char c : text) utf16 += std::string(1, '\0') + c;
      return attribute(kCommonName, 0x1e, utf16);
    }
    default: return attribute(kCommonName, 0x0c, text);
  }
}

// nameConstraints with one kind of subtrees (0 permitted, 1 excluded).
std::string nameConstraints(bool critical, uint8_t kind, const std::string& subtrees) {
  return extension("\x55\x1d\x1e", critical, der(0x30, der(static_cast<uint8_t>(0xa0 | kind), subtrees)));
}

std::string teamSubtree(const std::string& team) {
  return der(0x30, der(0xa4, der(0x30, attribute(kOrganization, 0x0c, "Quillfern Forge") +
                                           attribute(kOrganizationalUnit, 0x0c, team))));
}

std::string extraExtension(uint8_t how, const std::string& keyUsageExtension) {
  const std::string organization = der(0xa4, der(0x30, attribute(kOrganization, 0x13, " QUILLFERN   FORGE ")));
  switch (how) {
    case 7: return nameConstraints(false, 0, teamSubtree("TEAMONE001"));
    case 8: return nameConstraints(false, 0, teamSubtree("TEAMTWO002"));
    case 9: return nameConstraints(true, 1, teamSubtree("TEAMONE001"));
    case 10: return nameConstraints(false, 1, teamSubtree("TEAMTWO002"));
    case 11: return nameConstraints(true, 0, der(0x30, organization));
    case 12: return nameConstraints(true, 0, der(0x30, organization + der(0x81, std::string(1, '\0'))));
    case 13: return nameConstraints(false, 0, teamSubtree("TEAMONE001") + der(0x30, der(0x82, "example.com")));
    case 14:
      return nameConstraints(false, 1, der(0x30, der(0xa4, der(0x30, attribute(kOrganization, 0x0c, "Quillfern Forge") +
                                                                attribute(kOrganizationalUnit, 0x0c, "TEAMONE001") +
                                                                attribute(kCommonName, 0x0c, "Forge Leaf")))));
    case 15: return nameConstraints(false, 0, "");  // no subtree: DER's SIZE (1..MAX) is broken
    case 1: return extension("\x2b\x06\x01\x04\x01\x83\xb2\x03\x01", false, der(0x05, ""));
    case 2: return extension("\x2b\x06\x01\x04\x01\x83\xb2\x03\x01", true, der(0x05, ""));
    case 3: return extension("\x55\x1d\x1e", true, der(0x30, der(0xa0, der(0x30, der(0x82, "example.com")))));
    case 4: return extension("\x55\x1d\x20", true, der(0x30, der(0x30, oid(std::string_view("\x55\x1d\x20\x00", 4)))));
    case 5: return keyUsageExtension;
    case 6: return extension("\x55\x1d\x11", false, der(0x30, der(0x82, "forge.example")));
    default: return "";
  }
}

std::string validity(uint8_t how, bool longForm) {
  const std::string notBefore = der(0x17, how == 1 ? "100101000000Z" : "200101000000Z");
  const std::string notAfter = how == 1 ? der(0x17, "150101000000Z")
                               : how == 2 ? der(0x18, "20491231235959Z") : der(0x17, "491231235959Z");
  return der(0x30, notBefore + notAfter, longForm);
}

// The certificate at position (0 the leaf, 1.. the intermediates upwards, or the root itself),
// issued by issuer, changed as the recipe says when it is the target.
// A root's changes are the root knob's (0 the plain root); a leaf's also extras.
Issued makeCertificate(const LDForgeRecipe& recipe, size_t position, bool isRoot, EVP_PKEY* key,
                       const std::string& keyIdentifier, const Issued* issuer, const LDForgeLeafExtras& extras = {},
                       uint8_t rootHow = 0) {
  const bool target = !isRoot && recipe[LDForgeTarget] == position;
  const auto knob = [&](LDForgeKnob k) -> uint8_t { return target ? recipe[k] : 0; };
  const bool authority = isRoot || position > 0;
  Issued made;
  made.key = key;
  made.subjectKeyIdentifier = keyIdentifier;
  made.serial = serialContents(knob(LDForgeSerial), isRoot ? 0 : position + 1);
  const std::string name = isRoot ? "Forge Root" : position == 0 ? "Forge Leaf" : "Forge Intermediate " + std::to_string(position);
  std::string units;
  if (!authority) {
    const uint8_t team = knob(LDForgeTeam);
    if (team != 1) units = attribute(kOrganizationalUnit, team == 3 ? 0x13 : 0x0c, "TEAMONE001");
    if (team == 2) units += attribute(kOrganizationalUnit, 0x0c, "SECONDUNIT");
  }
  const bool leaf = !isRoot && position == 0;
  const std::string common = leaf && !extras.commonName.empty() ? extras.commonName : commonName(knob(LDForgeNameString), name);
  made.subject = der(0x30, attribute(kOrganization, 0x0c, "Quillfern Forge") + units + common);
  made.issuer = issuer ? issuer->subject : made.subject;
  if (knob(LDForgeNameString) == 8 && issuer) made.subject = made.issuer;  // self-issued
  if (knob(LDForgeNameString) == 9) made.subject = der(0x30, "");
  const Issued& signer = issuer ? *issuer : made;

  std::string extensions;
  const std::string usage = keyUsage(knob(LDForgeKeyUsage), authority);
  const uint8_t identifiers = knob(LDForgeAuthorityKeyIdentifier);
  extensions += basicConstraints(knob(LDForgeBasicConstraints), authority) + usage +
                extendedKeyUsage(rootHow == 1 ? 3 : knob(LDForgeExtendedKeyUsage), authority) +
                extension("\x55\x1d\x0e", false, der(0x04, identifiers == 12 ? "" : keyIdentifier));
  if (issuer) extensions += authorityKeyIdentifier(identifiers, *issuer);
  static constexpr uint8_t kRootExtra[] = {0, 0, 2, 9, 7};
  extensions += extraExtension(isRoot ? kRootExtra[rootHow] : knob(LDForgeExtraExtension), usage);
  for (size_t i = 0; leaf && i < extras.unknownExtensions; ++i) {
    std::string arc;  // 1.2.3.i, i in base 128: about 11 octets each, 90,000 of them below 1 MiB
    for (size_t rest = i; rest > 0 || arc.empty(); rest >>= 7) arc.insert(0, 1, static_cast<char>((rest & 0x7f) | (arc.empty() ? 0 : 0x80)));
    extensions += extension("\x2a\x03" + arc, false, "");
  }

  const uint8_t algorithm = knob(LDForgeAlgorithm), version = knob(LDForgeVersion);
  const std::string outerAlgorithm = algorithm == 3 ? bareRsaAlgorithm() : signatureAlgorithm(signer.key, algorithm == 1);
  const std::string innerAlgorithm = algorithm == 2 ? signatureAlgorithm(signer.key, true) : outerAlgorithm;
  std::string tbs = version == 1 ? "" : der(0xa0, der(0x02, version == 2 ? "\x01" : "\x02"));
  tbs += der(0x02, made.serial) + innerAlgorithm + made.issuer +
         validity(knob(LDForgeValidity), knob(LDForgeEncoding) == 1) + made.subject + publicKeyInfo(key);
  if (version != 1) tbs += der(0xa3, der(0x30, extensions));
  tbs = der(0x30, tbs);
  std::string signature = sign(signer.key, algorithm == 1, tbs);
  if (const uint8_t how = knob(LDForgeSignatureValue); how != 0 && !isRsa(signer.key) && !isEd25519(signer.key)) {
    for (int attempt = 0; attempt < 64; ++attempt, signature = sign(signer.key, algorithm == 1, tbs)) {
      if (const std::string changed = respelt(signature, how); !changed.empty()) {
        signature = changed;
        break;
      }
    }
  }
  made.encoding = der(0x30, tbs + outerAlgorithm + der(0x03, std::string(1, '\0') + signature));
  return made;
}

std::string signedData(const LDForgeRecipe& recipe, const std::vector<Issued>& chain, const Issued& root) {
  const uint8_t manifestHow = recipe[LDForgeManifest];
  LDSignatureManifest manifest{"com.example.forge", manifestHow == 1 ? "TEAMTWO002" : "TEAMONE001", 4, {}};
  EVP_Digest("code", 4, manifest.sha256.data(), nullptr, EVP_sha256(), nullptr);
  const std::string content = manifestHow == 2 ? "ld-codesign-manifest 1\n" : LDFormatManifest(manifest);
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int digestSize = 0;
  EVP_Digest(content.data(), content.size(), digest, &digestSize, EVP_sha256(), nullptr);

  const std::string sha256 = der(0x30, oid("\x60\x86\x48\x01\x65\x03\x04\x02\x01"));
  const std::string pkcs9 = "\x2a\x86\x48\x86\xf7\x0d\x01\x09";
  const std::string data = oid("\x2a\x86\x48\x86\xf7\x0d\x01\x07\x01");
  const std::string timeStamp = oid(pkcs9 + "\x10\x01\x04");  // id-ct-TSTInfo: content, but not data
  const std::string contentType = der(0x30, oid(pkcs9 + "\x03") + der(0x31, manifestHow == 5 ? timeStamp : data));
  const std::string messageDigest =
      der(0x30, oid(pkcs9 + "\x04") + der(0x31, der(0x04, std::string(reinterpret_cast<char*>(digest), digestSize))));
  const std::string attributes = manifestHow == 3 ? messageDigest + contentType : contentType + messageDigest;
  const Issued& leaf = chain.front();
  const uint8_t signerAlgorithm = recipe[LDForgeSignerAlgorithm];
  const std::string algorithm = signerAlgorithm == 1   ? bareRsaAlgorithm()
                                : signerAlgorithm == 3 ? rsaAlgorithmWithInteger()
                                                       : signatureAlgorithm(leaf.key, signerAlgorithm == 2);
  const std::string signerInfo = der(
      0x30, der(0x02, "\x01") + der(0x30, leaf.issuer + der(0x02, leaf.serial)) + sha256 + der(0xa0, attributes) +
                algorithm + der(0x04, sign(leaf.key, false, der(0x31, attributes))));

  std::string certificates;
  const uint8_t shape = recipe[LDForgeShape];
  for (size_t i = shape == 3 ? 1 : 0; i < chain.size() && (shape != 1 || i == 0); ++i) certificates += chain[i].encoding;
  if (shape == 3) certificates += leaf.encoding;
  if (shape == 2) certificates += root.encoding;
  const std::string body = der(0x02, "\x01") + der(0x31, sha256) + der(0x30, (manifestHow == 4 ? timeStamp : data) + der(0xa0, der(0x04, content))) +
                           der(0xa0, certificates) + der(0x31, shape == 4 ? signerInfo + signerInfo : signerInfo);
  return der(0x30, oid("\x2a\x86\x48\x86\xf7\x0d\x01\x07\x02") + der(0xa0, der(0x30, body)));
}

}  // namespace

LDCertificateForge::LDCertificateForge() {
  for (int i = 0; i < 10; ++i) _chainKeys.push_back(keyPair(generate("EC", "P-256")));
  _targetKeys.push_back(keyPair(generate("EC", "P-256")));
  _targetKeys.push_back(keyPair(generate("EC", "P-384")));
  _targetKeys.push_back(keyPair(generate("RSA", nullptr, 2048)));
  _targetKeys.push_back(keyPair(generate("RSA", nullptr, 1024)));
  _targetKeys.push_back(keyPair(generate("EC", "P-521")));
  _targetKeys.push_back(keyPair(generate("ED25519", nullptr)));
  for (uint8_t how = 0; how < knobs()[LDForgeRoot].values.size(); ++how) {
    Root made;
    made.der = makeCertificate(LDForgeRecipe{}, 0, true, _chainKeys[0].key.get(), _chainKeys[0].subjectKeyIdentifier,
                               nullptr, {}, how).encoding;
    const auto* cursor = reinterpret_cast<const unsigned char*>(made.der.data());
    ldssl::Certificate root(d2i_X509(nullptr, &cursor, static_cast<long>(made.der.size())));
    ldssl::Bio out(BIO_new(BIO_s_mem()));
    if (!root || PEM_write_bio_X509(out.get(), root.get()) != 1) throw std::runtime_error("forge: root");
    char* text = nullptr;
    const long length = BIO_get_mem_data(out.get(), &text);
    made.pem.assign(text, static_cast<size_t>(length));
    _roots.push_back(std::move(made));
  }
}

std::string LDCertificateForge::commonName(uint8_t tag, std::string_view value) {
  return attribute(kCommonName, tag, value);
}

std::string LDCertificateForge::signatureBlob(const LDForgeRecipe& recipe, const LDForgeLeafExtras& extras) const {
  // Built from the root down: every certificate needs its issuer's name, key and identifiers.
  Issued root = makeCertificate(LDForgeRecipe{}, 0, true, _chainKeys[0].key.get(), _chainKeys[0].subjectKeyIdentifier, nullptr);
  root.encoding = _roots[recipe[LDForgeRoot]].der;  // the anchor itself, byte for byte
  const size_t intermediates = recipe[LDForgeIntermediates];
  std::vector<Issued> chain(intermediates + 1);
  for (size_t position = intermediates + 1; position-- > 0;) {
    const bool target = recipe[LDForgeTarget] == position;
    const KeyPair& pair = target ? _targetKeys[recipe[LDForgeKey]] : _chainKeys[position + 1];
    const Issued* issuer = position == intermediates ? &root : &chain[position + 1];
    chain[position] = makeCertificate(recipe, position, false, pair.key.get(), pair.subjectKeyIdentifier, issuer, extras);
  }
  std::string blob = signedData(recipe, chain, root);
  if (const size_t flip = recipe[LDForgeFlipAtHigh] * 256u + recipe[LDForgeFlipAt]; flip != 0) {
    blob[(flip - 1) % blob.size()] = static_cast<char>(blob[(flip - 1) % blob.size()] ^ 0x01);
  }
  return blob;
}
