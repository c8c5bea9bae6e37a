#include "signing/requirement.h"

#include <cctype>

#include "shared/printable.h"

namespace {

struct Token {
  enum class Kind { word, string, punctuation } kind;
  std::string text;
};

bool isWordCharacter(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '.' || c == '_' || c == '-';
}

std::optional<std::vector<Token>> tokenize(std::string_view text) {
  std::vector<Token> tokens;
  size_t i = 0;
  while (i < text.size()) {
    const char c = text[i];
    if (c == ' ' || c == '\t' || c == '\n' || c == '\r') {
      ++i;
    } else if (c == '"') {
      const size_t close = text.find('"', i + 1);
      if (close == std::string_view::npos) return std::nullopt;
      tokens.push_back({Token::Kind::string, std::string(text.substr(i + 1, close - i - 1))});
      i = close + 1;
    } else if (c == '[' || c == ']' || c == '=') {
      tokens.push_back({Token::Kind::punctuation, std::string(1, c)});
      ++i;
    } else if (isWordCharacter(c)) {
      size_t end = i;
      while (end < text.size() && isWordCharacter(text[end])) ++end;
      tokens.push_back({Token::Kind::word, std::string(text.substr(i, end - i))});
      i = end;
    } else {
      return std::nullopt;
    }
  }
  return tokens;
}

class Parser {
 public:
  explicit Parser(std::vector<Token> tokens) : _tokens(std::move(tokens)) {}

  std::optional<LDRequirement> parse() {
    LDRequirement requirement;
    do {
      std::optional<LDRequirement::Clause> clause = parseClause();
      if (!clause) return std::nullopt;
      requirement.clauses.push_back(std::move(*clause));
    } while (accept(Token::Kind::word, "and"));
    if (_next != _tokens.size()) return std::nullopt;
    return requirement;
  }

 private:
  std::optional<LDRequirement::Clause> parseClause() {
    std::string value;
    if (accept(Token::Kind::word, "identifier")) {
      if (!acceptString(value)) return std::nullopt;
      return LDRequirement::Clause{LDRequirement::Clause::Kind::identifier, value};
    }
    if (accept(Token::Kind::word, "anchor")) {
      if (!accept(Token::Kind::word, "apple") || !accept(Token::Kind::word, "generic")) return std::nullopt;
      return LDRequirement::Clause{LDRequirement::Clause::Kind::anchorAppleGeneric, ""};
    }
    if (accept(Token::Kind::word, "certificate")) {
      if (!accept(Token::Kind::word, "leaf") || !accept(Token::Kind::punctuation, "[") ||
          !accept(Token::Kind::word, "subject.OU") || !accept(Token::Kind::punctuation, "]") ||
          !accept(Token::Kind::punctuation, "=") || !acceptString(value)) {
        return std::nullopt;
      }
      return LDRequirement::Clause{LDRequirement::Clause::Kind::leafOrganizationalUnit, value};
    }
    return std::nullopt;
  }

  bool accept(Token::Kind kind, std::string_view text) {
    if (_next < _tokens.size() && _tokens[_next].kind == kind && _tokens[_next].text == text) {
      ++_next;
      return true;
    }
    return false;
  }

  bool acceptString(std::string& value) {
    if (_next < _tokens.size() && _tokens[_next].kind == Token::Kind::string) {
      value = _tokens[_next++].text;
      return true;
    }
    return false;
  }

  std::vector<Token> _tokens;
  size_t _next = 0;
};

}  // namespace

std::optional<LDRequirement> LDParseRequirement(std::string_view text) {
  std::optional<std::vector<Token>> tokens = tokenize(text);
  if (!tokens) return std::nullopt;
  return Parser(std::move(*tokens)).parse();
}

std::optional<std::string> LDFirstUnmetClause(const LDRequirement& requirement,
                                              const LDRequirementSubject& subject) {
  for (const LDRequirement::Clause& clause : requirement.clauses) {
    switch (clause.kind) {
      case LDRequirement::Clause::Kind::identifier:
        if (subject.identifier != clause.value) {
          return "identifier \"" + LDPrintable(clause.value) + "\" (the code is \"" + LDPrintable(subject.identifier) + "\")";
        }
        break;
      case LDRequirement::Clause::Kind::anchorAppleGeneric:
        if (!subject.anchored) return "anchor apple generic";
        break;
      case LDRequirement::Clause::Kind::leafOrganizationalUnit:
        if (subject.leafTeam != clause.value) {
          return "certificate leaf[subject.OU] = \"" + LDPrintable(clause.value) + "\" (the leaf's is \"" +
                 LDPrintable(subject.leafTeam) + "\")";
        }
        break;
    }
  }
  return std::nullopt;
}
