// SPDX-License-Identifier: Apache-2.0
//
// The promises of the power stats interfaces, as a table of rules that judge a survey.

#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tools/check/Survey.h"

namespace powerstats {

/// A rule is not judged when the bus refused the calls for its things, and not applicable when
/// there is nothing to judge.
enum class Verdict { kKept, kBroken, kLegal, kNotJudged, kNotApplicable };

/// The judgement of one thing, and for a fault the facts that lead to it in the service.
struct Finding {
    /// kLegal: permitted by the interface, but clients or published tests do not expect it.
    /// kNotApplicable: there is nothing to judge.
    Verdict verdict = Verdict::kNotApplicable;
    std::string found = {};
    std::string expected = {};
    /// What follows for a client; empty if that is the rule's own consequence.
    std::string consequence = {};
    /// The rail, or the power entity and its state, by id and name; empty for a whole answer.
    std::string thing = {};
    std::string method = {};
    /// The start of the call, since boot; 0 when it is not known.
    nanoseconds read{};
};

/// The outcome of one rule.
struct Findings {
    /// All faults are counted, and the first ones are kept, each of another method or thing.
    struct List {
        size_t count = 0;
        std::vector<Finding> first = {};
    };

    /// @param item [in] has the call, and the thing's name, which a finding may have too.
    template <typename Item>
    void add(const Item& item, Finding finding) {
        if (finding.verdict == Verdict::kNotApplicable) return;
        ++judged;
        if (finding.verdict == Verdict::kKept) return;
        finding.method = item.call.method;
        finding.read = item.call.before;
        if (finding.thing.empty()) finding.thing = item.name();
        addFault(std::move(finding));
    }

    size_t judged = 0;
    List broken;
    List legal;

  private:
    void addFault(Finding fault);
};

struct Rule {
    /// Stays for ever: people exclude rules by their names.
    const char* name;
    /// The interface that makes the promise; empty: both.
    std::optional<Hal> hal;
    /// Whether the interface's published tests check it.
    bool isPublishedTest;
    const char* sentence;
    /// What follows for a client when the rule is broken.
    const char* consequence;
    void (*judge)(const Survey& survey, Findings* findings);
};

extern const std::vector<Rule> kRules;

/// Judges a survey by one rule.
Verdict judge(const Rule& rule, const Survey& survey, Findings* findings);

/// Things that are worth knowing and break no rule, one sentence each.
std::vector<std::string> takeNotes(const Survey& survey);

}  // namespace powerstats
