// SPDX-License-Identifier: Apache-2.0
//
// powerstats check: whether a power stats service keeps the promises of its interface.

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "power/text/Json.h"
#include "tools/CommandLine.h"
#include "tools/SourceOptions.h"
#include "tools/check/Rules.h"
#include "tools/check/Survey.h"

namespace powerstats {

namespace {

struct CheckArguments {
    ServiceOptions service;
    double durationSeconds = 5;
    std::set<std::string> only;
    std::set<std::string> except;
    std::string format = "table";
};

/// By Verdict.
constexpr const char* kVerdicts[] = {"broken", "legal", "kept", "not judged", "not applicable"};

// Each adds its lines to the table, and returns the same for JSON.

Json report(const Rule& rule, const Findings& findings, std::string* table) {
    std::string verdict = kVerdicts[static_cast<size_t>(findings.verdict)];
    if (findings.verdict == Verdict::kLegal && rule.isPublishedTest) {
        verdict += ", but fails published tests";
    }
    *table +=
        fmt::format("  {:<30} {}{}\n", rule.name, rule.isPublishedTest ? "* " : "  ", verdict);
    const std::string consequence = findings.count > 0 ? findings.first.front().consequence : "";
    if (findings.count > 0) *table += fmt::format("      {}\n", rule.sentence);
    Json evidence = Json::array();
    for (const Finding& one : findings.first) {
        const int64_t readMs = one.answer->beforeMs;
        *table += fmt::format("      {}{}{}{}: {};\n        expected {}\n", one.answer->method,
                              one.thing.empty() ? "" : ", ", one.thing,
                              readMs == 0 ? "" : fmt::format(" at {} ms", readMs), one.found,
                              one.expected);
        evidence.push_back({{"method", one.answer->method},
                            {"thing", one.thing},
                            {"read_ms", readMs},
                            {"found", one.found},
                            {"expected", one.expected}});
    }
    if (findings.count > findings.first.size()) {
        *table += fmt::format("      and {} more\n", findings.count - findings.first.size());
    }
    if (!consequence.empty()) *table += "      so " + consequence + "\n";
    return {{"name", rule.name},
            {"verdict", verdict},
            {"published_test", rule.isPublishedTest},
            {"sentence", rule.sentence},
            {"consequence", consequence},
            {"evidence", std::move(evidence)},
            {"findings", findings.count}};
}

Json reportCalls(const Survey& survey, std::string* table) {
    std::map<std::string, std::vector<const Answer*>> methods;
    survey.forAnswers([&](const Answer& answer) { methods[answer.method].push_back(&answer); });
    *table += fmt::format("{:<34}{:>7}{:>11}{:>9}{:>9}{:>8}\n", "Calls", "number", "median ms",
                          "99 % ms", "bytes", "records");
    Json calls = Json::array();
    for (auto& [method, answers] : methods) {
        std::sort(answers.begin(), answers.end(),
                  [](const Answer* a, const Answer* b) { return a->took < b->took; });
        const auto percentileMs = [&answers = answers](double share) {
            const long i = std::lround(share * static_cast<double>(answers.size() - 1));
            return toSeconds(answers[static_cast<size_t>(i)]->took) * 1000;
        };
        size_t bytes = 0;
        size_t records = 0;
        for (const Answer* const answer : answers) {
            bytes = std::max(bytes, answer->bytes);
            records = std::max(records, answer->records.size());
        }
        *table += fmt::format("  {:<32}{:>7}{:>11.3f}{:>9.3f}{:>9}{:>8}\n", method, answers.size(),
                              percentileMs(0.5), percentileMs(0.99), bytes, records);
        calls.push_back({{"method", method},
                         {"number", answers.size()},
                         {"median_ms", percentileMs(0.5)},
                         {"percentile_99_ms", percentileMs(0.99)},
                         {"bytes", bytes},
                         {"records", records}});
    }
    return calls;
}

int check(CheckArguments arguments) {
    std::shared_ptr<Source> own;
    if (openService(&arguments.service, {}, &own) != 0) return kUsage;
    const bool isOnBus = own == nullptr;

    Survey survey =
        takeSurvey(own.get(), arguments.durationSeconds, arguments.service.source.callSeconds);
    survey.isReplay = !arguments.service.source.replay.empty();
    survey.library.text = "not called, because the service does not answer";
    if (!survey.isGone) survey.library = tryLibrary(arguments.service);

    const std::string title =
        fmt::format("{} over {}, {} s, with {} full readings", describe(arguments.service.source),
                    survey.hal == Hal::kAidl ? "AIDL" : "HIDL", arguments.durationSeconds,
                    survey.residencies.size());
    std::string table = title + "\n";
    Json rules = Json::array();
    std::map<Verdict, size_t> counts;
    for (const Rule& rule : kRules) {
        if (arguments.except.count(rule.name) != 0) continue;
        if (!arguments.only.empty() && arguments.only.count(rule.name) == 0) continue;
        const Findings findings = judge(rule, survey);
        ++counts[findings.verdict];
        rules.push_back(report(rule, findings, &table));
    }
    const auto notJudged = fmt::format("{} not judged, ", counts[Verdict::kNotJudged]);
    table += fmt::format(
        "  (*: the interface's published tests check it)\n"
        "{} rules kept, {} broken, {} legal, {}{} not applicable\n\n",
        counts[Verdict::kKept], counts[Verdict::kBroken], counts[Verdict::kLegal],
        counts[Verdict::kNotJudged] > 0 ? notJudged : "", counts[Verdict::kNotApplicable]);
    Json calls = reportCalls(survey, &table);
    table += "\n";
    std::vector<std::string> notes = takeNotes(survey);
    if (!survey.isGone) {
        notes.push_back(fmt::format(
            "{} threads called at once{}", kThreadsAtOnce,
            isOnBus ? ", each with a connection of its own to the bus" : " within this process"));
    }
    if (survey.isCut) {
        notes.emplace_back("calls were left out, because the answers are slow or large");
    }
    for (const std::string& note : notes) table += "Note: " + note + "\n";
    const Survey::Library& library = survey.library;
    table += "Library: " + library.text + "\n";

    const Json json = {
        {"title", title},
        {"rules", std::move(rules)},
        {"calls", std::move(calls)},
        {"notes", notes},
        {"library",
         {{"called", library.wasCalled}, {"signal", library.signal}, {"text", library.text}}}};
    if (!writeOutput(arguments.format == "json" ? printJson(json, 2) + "\n" : table)) return kUsage;
    return counts[Verdict::kBroken] == 0 ? 0 : 1;
}

}  // namespace

CommandLine makeCheck() {
    const auto arguments = std::make_shared<CheckArguments>();
    CommandLine command = {
        "check", "Check whether a service keeps the promises of its interface.",
        "Prints a line for each rule, and for a broken one the evidence. Times are milliseconds\n"
        "since boot, for --replay those of the recording. A rule's name stays for ever.\n"
        "Exit status: 0 no rule is broken, 1 a rule is broken, 2 bad argument, no service, or the\n"
        "report could not be written.\n"
        "A kernel counts a stay in an idle state when the stay ends, so this machine may break "
        "the\n"
        "rule state-time-within-interval.\n"
        "Example: powerstats check --duration 1 --except state-time-within-interval"};
    addServiceOptions(&command, &arguments->service);
    command.addOption("--duration", "Seconds to go on reading",
                      number(&arguments->durationSeconds, {0, 86400}));
    command.addOption("--timeout", "Seconds that a call on a bus may take",
                      number(&arguments->service.source.callSeconds, {0.001, 86400}));
    const auto addRules = [&](const char* option, std::set<std::string>* rules, const char* text) {
        const auto take = [rules](const std::string& name) {
            rules->insert(name);
            const bool isKnown = std::any_of(kRules.begin(), kRules.end(),
                                             [&](const Rule& rule) { return rule.name == name; });
            return isKnown ? ""
                           : name + ": no rule has this name (powerstats check prints the names)";
        };
        command.addOption(option, text, {"RULE", "", "", take, true});
    };
    addRules("--only", &arguments->only, "Judge by this rule only; may be repeated");
    addRules("--except", &arguments->except, "Do not judge by this rule; may be repeated");
    command.addOption("--format", "Format of the report",
                      choice(&arguments->format, {"table", "json"}));
    command.run = [arguments] { return check(*arguments); };
    return command;
}

}  // namespace powerstats
