// SPDX-License-Identifier: Apache-2.0
//
// powerstats check: whether a power stats service keeps the promises of its interface.

#include <fmt/format.h>
#include <host/ServiceControl.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "power/text/Json.h"
#include "power/text/Names.h"
#include "tools/CommandLine.h"
#include "tools/SourceOptions.h"
#include "tools/check/Rules.h"
#include "tools/check/Survey.h"

namespace powerstats {

namespace {

struct CheckArguments {
    ServiceOptions service;
    double durationSeconds = 5;
    double timeoutSeconds = 25;
    std::set<std::string> only;
    std::set<std::string> except;
    std::string format = "table";
};

/// By Verdict.
constexpr const char* kVerdicts[] = {"kept", "broken", "legal", "not judged", "not applicable"};

// Each adds its lines to the table, and returns the same for JSON.

Json report(const Rule& rule, Verdict verdict, const Findings& findings, std::string* table) {
    const bool isBroken = verdict == Verdict::kBroken;
    const Findings::List& faults = isBroken ? findings.broken : findings.legal;
    std::string name = kVerdicts[static_cast<size_t>(verdict)];
    if (verdict == Verdict::kLegal && rule.isPublishedTest) name += ", but fails published tests";
    *table += fmt::format("  {:<30} {}{}\n", rule.name, rule.isPublishedTest ? "* " : "  ", name);
    std::string consequence;
    if (faults.count > 0) {
        *table += fmt::format("      {}\n", rule.sentence);
        consequence = faults.first.front().consequence;
        if (consequence.empty() && isBroken) consequence = rule.consequence;
    }
    Json::Array evidence;
    for (const Finding& one : faults.first) {
        const int64_t readMs = toMilliseconds(one.read);
        *table += fmt::format("      {}{}{}{}: {};\n        expected {}\n", one.method,
                              one.thing.empty() ? "" : ", ", one.thing,
                              readMs == 0 ? "" : fmt::format(" at {} ms", readMs), one.found,
                              one.expected);
        evidence.emplace_back(Json::Object{{"method", one.method},
                                           {"thing", one.thing},
                                           {"read_ms", readMs},
                                           {"found", one.found},
                                           {"expected", one.expected}});
    }
    if (faults.count > faults.first.size()) {
        *table += fmt::format("      and {} more\n", faults.count - faults.first.size());
    }
    if (!consequence.empty()) *table += "      so " + consequence + "\n";
    return Json::Object{{"name", rule.name},
                        {"verdict", name},
                        {"published_test", rule.isPublishedTest},
                        {"sentence", rule.sentence},
                        {"consequence", consequence},
                        {"evidence", std::move(evidence)},
                        {"findings", faults.count}};
}

Json reportCalls(const Survey& survey, std::string* table) {
    struct Timing {
        std::vector<double> tookMs;
        size_t mostBytes = 0;
        size_t mostRecords = 0;
    };
    std::map<std::string, Timing> timings;
    survey.forAnswers([&](const auto& answer) {
        Timing& timing = timings[answer.method];
        timing.tookMs.push_back(toSeconds(answer.took) * 1000);
        timing.mostBytes = std::max(timing.mostBytes, answer.bytes);
        timing.mostRecords = std::max(timing.mostRecords, answer.records.size());
    });
    *table += fmt::format("{:<34}{:>7}{:>11}{:>9}{:>9}{:>8}\n", "Calls", "number", "median ms",
                          "99 % ms", "bytes", "records");
    Json::Array calls;
    for (auto& [method, timing] : timings) {
        std::vector<double>& tookMs = timing.tookMs;
        std::sort(tookMs.begin(), tookMs.end());
        const auto percentile = [&](double share) {
            return tookMs[static_cast<size_t>(
                std::lround(share * static_cast<double>(tookMs.size() - 1)))];
        };
        *table +=
            fmt::format("  {:<32}{:>7}{:>11.3f}{:>9.3f}{:>9}{:>8}\n", method, tookMs.size(),
                        percentile(0.5), percentile(0.99), timing.mostBytes, timing.mostRecords);
        calls.emplace_back(Json::Object{{"method", method},
                                        {"number", tookMs.size()},
                                        {"median_ms", percentile(0.5)},
                                        {"percentile_99_ms", percentile(0.99)},
                                        {"bytes", timing.mostBytes},
                                        {"records", timing.mostRecords}});
    }
    return calls;
}

Json reportLibrary(const Survey::Library& library, std::string* table) {
    const std::string log = safeName(library.log, SIZE_MAX);
    std::string text = safeName(library.result, SIZE_MAX);
    if (library.signal != 0) {
        text = fmt::format("signal {} ended the process: {}", library.signal, log);
    } else if (library.wasCalled) {
        text = "Java receives " + text + (log.empty() ? "" : ": " + log);
    }
    *table += "Library: " + text + "\n";
    return Json::Object{{"called", library.wasCalled}, {"signal", library.signal}, {"text", text}};
}

int check(CheckArguments arguments) {
    std::shared_ptr<Source> own;
    if (openService(&arguments.service, {}, &own) != 0) return kUsage;
    const bool isOnBus = own == nullptr;
    if (isOnBus) host::setBusTimeLimit(arguments.timeoutSeconds);

    Survey survey = takeSurvey(own.get(), arguments.durationSeconds, arguments.timeoutSeconds);
    survey.isReplay = !arguments.service.source.replay.empty();
    if (survey.isGone) {
        survey.library.result = "not called, because the service does not answer";
    } else {
        survey.library = tryLibrary(arguments.service);
    }

    const std::string title =
        fmt::format("{} over {}, {} s, with {} full readings", describe(arguments.service.source),
                    survey.hal == Hal::kAidl ? "AIDL" : "HIDL", arguments.durationSeconds,
                    survey.residencies.size());
    std::string table = title + "\n";
    Json::Array rules;
    std::map<Verdict, size_t> counts;
    for (const Rule& rule : kRules) {
        if (arguments.except.count(rule.name) != 0) continue;
        if (!arguments.only.empty() && arguments.only.count(rule.name) == 0) continue;
        Findings findings;
        const Verdict verdict = judge(rule, survey, &findings);
        ++counts[verdict];
        rules.push_back(report(rule, verdict, findings, &table));
    }
    const size_t notJudged = counts[Verdict::kNotJudged];
    table += fmt::format(
        "  (*: the interface's published tests check it)\n"
        "{} rules kept, {} broken, {} legal, {}{} not applicable\n\n",
        counts[Verdict::kKept], counts[Verdict::kBroken], counts[Verdict::kLegal],
        notJudged > 0 ? fmt::format("{} not judged, ", notJudged) : "",
        counts[Verdict::kNotApplicable]);
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
    Json library = reportLibrary(survey.library, &table);

    const Json json = Json::Object{{"title", title},
                                   {"rules", std::move(rules)},
                                   {"calls", std::move(calls)},
                                   {"notes", Json::Array(notes.begin(), notes.end())},
                                   {"library", std::move(library)}};
    if (!writeOutput(arguments.format == "json" ? json.print(2) + "\n" : table)) return kUsage;
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
                      number(&arguments->timeoutSeconds, {0.001, 86400}));
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
