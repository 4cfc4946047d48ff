// SPDX-License-Identifier: Apache-2.0
//
// The promises of the power stats interfaces, as a table of rules that judge a survey.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/check/Survey.h"

namespace powerstats {

/// From the worst. A rule is not judged when the bus refused the calls for its things, and not
/// applicable when there is nothing to judge. kLegal: permitted by the interface, but clients or
/// published tests do not expect it.
enum class Verdict { kBroken, kLegal, kKept, kNotJudged, kNotApplicable };

/// The judgement of one thing, and for a fault the facts that lead to it in the service.
struct Finding {
    Verdict verdict = Verdict::kNotApplicable;
    std::string found = {};
    std::string expected = {};
    /// What follows for a client.
    std::string consequence = {};
    /// The rail, or the power entity and its state, by id and name; empty for a whole answer.
    std::string thing = {};
    /// Lives as long as the survey.
    const Answer* answer = nullptr;
};

/// The outcome of one rule.
struct Findings {
    /// The worst of its findings.
    Verdict verdict = Verdict::kNotApplicable;
    /// All faults with this verdict are counted, and the first ones are kept, each of another
    /// method or thing.
    size_t count = 0;
    std::vector<Finding> first = {};
};

/// What a rule looks at, one by one.
struct Subject {
    std::vector<Answers Survey::*> lists;
    /// The answers as a whole, whatever their requests and outcomes; or
    bool isOfAnswers = false;
    /// the records of the answers, and
    bool isOfRecords = true;
    /// the states of these.
    bool isOfStates = false;
    /// And the announced things whose record an answer lacks.
    bool isOfMissing = false;
};
struct Item;

struct Rule {
    /// Stays for ever: people exclude rules by their names.
    const char* name;
    const char* sentence;
    /// What follows for a client when the rule is broken.
    const char* consequence;
    const Subject& subject;
    Finding (*judge)(const Item& item);
    /// Whether the interface's published tests check it.
    bool isPublishedTest = false;
    /// The interface that makes the promise; empty: both.
    std::optional<Hal> hal = {};
};

extern const std::vector<Rule> kRules;

/// Judges a survey by one rule.
Findings judge(const Rule& rule, const Survey& survey);

/// Things that are worth knowing and break no rule, one sentence each.
std::vector<std::string> takeNotes(const Survey& survey);

}  // namespace powerstats
