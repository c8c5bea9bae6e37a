// Through libp11's PKCS#11 engine (Debian's libengine-pkcs11-openssl): a key object whose
// signing operations the engine hands to the token with C_Sign, so CMS_sign works unchanged and
// the private key never leaves the token. docs/code-signing.md says why an engine, which
// OpenSSL 3 deprecates, rather than a provider or PKCS#11 called directly.

// The ENGINE interface is deprecated from OpenSSL 3.0 on; this file, and only this one, asks for
// the 1.1.1 interface level so that using it is not an error under -Werror.
#define OPENSSL_API_COMPAT 10101

#include "tools/token_key.h"

#include <openssl/engine.h>
#include <openssl/err.h>

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <algorithm>
#include <fstream>
#include <memory>
#include <optional>

namespace {

using Engine = std::unique_ptr<ENGINE, ldssl::Deleter<ENGINE_free>>;

std::string openSslReason() {
  const unsigned long code = ERR_peek_last_error();
  char text[256] = "no reason given";
  if (code != 0) ERR_error_string_n(code, text, sizeof text);
  ERR_clear_error();
  return text;
}

// A PIN kept in a file (pin-source=file:PATH) is read here rather than by the engine, which would
// take a trailing newline, as any CI secret written by echo has, for part of the PIN. Returns
// the URI without that attribute; nothing when the file cannot be read.
std::optional<std::string> takePinFromFile(const std::string& uri, std::string* pin, std::string* error) {
  static const std::string kAttribute = "pin-source=file:";
  const size_t start = uri.find(kAttribute);
  if (start == std::string::npos || start == 0 || std::string(";?&").find(uri[start - 1]) == std::string::npos) {
    return uri;
  }
  const size_t end = std::min(uri.find_first_of(";&", start), uri.size());
  const std::string path = uri.substr(start + kAttribute.size(), end - start - kAttribute.size());
  std::ifstream input(path, std::ios::binary);
  if (!input || !std::getline(input, *pin)) {
    *error = "cannot read the PIN from " + path;
    return std::nullopt;
  }
  if (!pin->empty() && pin->back() == '\r') pin->pop_back();
  // Drop the attribute with the separator before it, keeping whatever follows.
  std::string rest = uri.substr(0, start - 1);
  if (end < uri.size() && uri[start - 1] == '?') {
    rest.push_back('?');
    rest.append(uri, end + 1);
  } else {
    rest.append(uri, end);
  }
  return rest;
}

}  // namespace

bool LDIsTokenKeyURI(const std::string& text) { return text.rfind("pkcs11:", 0) == 0; }

ldssl::Key LDLoadTokenKey(const std::string& uri, const std::string& modulePath, std::string* error) {
  // The engine opens the module only when the key is asked for, and then prints why it could not.
  if (::access(modulePath.c_str(), R_OK) != 0) {
    *error = "cannot load the PKCS#11 module " + modulePath + ": " + std::strerror(errno);
    return ldssl::Key();
  }
  // Found in OpenSSL's engines directory (libengine-pkcs11-openssl installs it there).
  const Engine engine(ENGINE_by_id("pkcs11"));
  if (!engine) {
    *error = "the PKCS#11 engine is not installed (Debian: libengine-pkcs11-openssl): " + openSslReason();
    return ldssl::Key();
  }
  // QUIET: the engine would otherwise print its own lines on standard error beside ours.
  if (ENGINE_ctrl_cmd_string(engine.get(), "QUIET", nullptr, 0) != 1 ||
      ENGINE_ctrl_cmd_string(engine.get(), "MODULE_PATH", modulePath.c_str(), 0) != 1 ||
      ENGINE_init(engine.get()) != 1) {
    *error = "cannot load the PKCS#11 module " + modulePath + ": " + openSslReason();
    return ldssl::Key();
  }
  std::string pin;
  const std::optional<std::string> object = takePinFromFile(uri, &pin, error);
  if (!object || (!pin.empty() && ENGINE_ctrl_cmd_string(engine.get(), "PIN", pin.c_str(), 0) != 1)) {
    ENGINE_finish(engine.get());
    if (object) *error = "the PKCS#11 engine refused the PIN: " + openSslReason();
    return ldssl::Key();
  }
  // The key holds a functional reference of its own to the engine; ours ends here.
  ldssl::Key key(ENGINE_load_private_key(engine.get(), object->c_str(), nullptr, nullptr));
  ENGINE_finish(engine.get());
  if (!key) *error = "no private key in the token at " + uri + ": " + openSslReason();
  return key;
}
