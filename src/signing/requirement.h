#pragma once

// The subset of the code-signing requirement language that the system speaks:
//
//   requirement := clause ("and" clause)*
//   clause      := identifier "X"
//                | anchor apple generic
//                | certificate leaf[subject.OU] = "T"
//
// Strings are double-quoted with no escapes. Anything else is unparsable.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct LDRequirement {
  struct Clause {
    enum class Kind { identifier, anchorAppleGeneric, leafOrganizationalUnit } kind;
    std::string value;  // for identifier and leafOrganizationalUnit
  };
  std::vector<Clause> clauses;
};

std::optional<LDRequirement> LDParseRequirement(std::string_view text);

// What the requirement is evaluated against, taken from a verified signature.
struct LDRequirementSubject {
  std::string identifier;
  std::string leafTeam;
  bool anchored;  // the chain ends at one of the trusted anchors
};

// Empty when every clause holds; otherwise the first clause that does not.
std::optional<std::string> LDFirstUnmetClause(const LDRequirement& requirement,
                                              const LDRequirementSubject& subject);
