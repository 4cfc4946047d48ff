// SPDX-License-Identifier: Apache-2.0
//
// The promises of the power stats interfaces, as a table of rules that judge a survey.

#pragma once

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "tools/Survey.h"

namespace powerstats {

/// One fault, with the facts that lead to it in the service.
struct Evidence {
    std::string method;
    /// The rail, or the power entity and its state, by id and name; empty for a whole answer.
    std::string thing;
    /// The start of the call, in milliseconds since boot; 0 when it is not known.
    int64_t readMs;
    std::string found;
    std::string expected;
    /// What follows for a client; empty if that is the rule's own consequence.
    std::string consequence;
};

/// The outcome of one rule.
struct Findings {
    /// All evidence is counted, and the first pieces are kept, each of another method or thing.
    struct List {
        static constexpr size_t kMostKept = 3;
        size_t count = 0;
        std::vector<Evidence> first = {};

        void add(const Survey::Call& call, std::string thing, std::string found,
                 std::string expected, std::string consequence = {});
    };

    /// Counts a thing that is judged.
    /// @return isKept.
    bool keeps(bool isKept);

    size_t judged = 0;
    List broken;
    /// Permitted by the interface, but clients or published tests do not expect it.
    List legal;
};

/// A rule is not judged when the bus refused the calls for its things, and not applicable when
/// there is nothing to judge.
enum class Verdict { kKept, kBroken, kLegal, kNotJudged, kNotApplicable };

enum class Interfaces { kBoth, kAidl, kHidl };

struct Rule {
    /// Stays for ever: people exclude rules by their names.
    const char* name;
    Interfaces interfaces;
    /// Whether the interface's published tests check it.
    bool isPublishedTest;
    const char* sentence;
    /// What follows for a client when the rule is broken.
    const char* consequence;
    void (*judge)(const Survey& survey, Findings* findings);
};

const std::vector<Rule>& allRules();

/// Judges a survey by one rule.
Verdict judge(const Rule& rule, const Survey& survey, Findings* findings);

/// Returns the methods that the bus refused to this user.
std::set<std::string> refusedMethods(const Survey& survey);

/// Things that are worth knowing and break no rule, one sentence each.
std::vector<std::string> takeNotes(const Survey& survey);

}  // namespace powerstats
