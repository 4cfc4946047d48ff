// SPDX-License-Identifier: Apache-2.0
//
// powerstats check: whether a power stats service keeps the promises of its interface.

#include <fmt/format.h>
#include <host/ServiceControl.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "hal/NamesAndIds.h"
#include "tools/Commands.h"
#include "tools/Json.h"
#include "tools/Rules.h"
#include "tools/Service.h"
#include "tools/Snapshot.h"
#include "tools/Survey.h"

namespace powerstats {

namespace {

struct CheckArguments {
    ServiceOptions service;
    double durationSeconds = 5;
    double timeoutSeconds = 25;
    std::vector<std::string> only;
    std::vector<std::string> except;
    std::string format = "table";
};

struct Judgement {
    const Rule* rule;
    Verdict verdict;
    Findings findings;
};

/// The calls of one method.
struct Timing {
    std::vector<double> tookMs;
    size_t mostBytes = 0;
    size_t mostRecords = 0;

    /// @param share [in] 0.5 for the median.
    double percentile(double share) const {
        return tookMs[static_cast<size_t>(
            std::lround(share * static_cast<double>(tookMs.size() - 1)))];
    }
};
using Timings = std::map<std::string, Timing>;

struct Report {
    std::string title;
    std::vector<Judgement> judgements;
    Timings timings;
    std::vector<std::string> notes;
    Survey::Library library;

    size_t count(Verdict verdict) const {
        return static_cast<size_t>(
            std::count_if(judgements.begin(), judgements.end(),
                          [&](const Judgement& one) { return one.verdict == verdict; }));
    }
};

Timings measure(const Survey& survey) {
    Timings timings;
    const auto addAll = [&](const auto& answers) {
        for (const auto& answer : answers) {
            Timing& timing = timings[answer.method];
            timing.tookMs.push_back(answer.tookMs);
            timing.mostBytes = std::max(timing.mostBytes, answer.bytes);
            timing.mostRecords = std::max(timing.mostRecords, answer.records.size());
        }
    };
    addAll(survey.rails);
    addAll(survey.entities);
    addAll(survey.stateLists);
    addAll(survey.energies);
    addAll(survey.residencies);
    for (auto& [method, timing] : timings) std::sort(timing.tookMs.begin(), timing.tookMs.end());
    return timings;
}

const char* nameOf(const Judgement& judgement) {
    switch (judgement.verdict) {
        case Verdict::kKept:
            return "kept";
        case Verdict::kBroken:
            return "broken";
        case Verdict::kLegal:
            return judgement.rule->isPublishedTest ? "legal, but fails published tests" : "legal";
        case Verdict::kNotJudged:
            return "not judged";
        case Verdict::kNotApplicable:
            break;
    }
    return "not applicable";
}

const Findings::List& evidenceOf(const Judgement& judgement) {
    return judgement.verdict == Verdict::kBroken ? judgement.findings.broken
                                                 : judgement.findings.legal;
}

std::string consequenceOf(const Judgement& judgement) {
    const std::vector<Evidence>& evidence = evidenceOf(judgement).first;
    if (evidence.empty()) return "";
    if (!evidence.front().consequence.empty()) return evidence.front().consequence;
    return judgement.verdict == Verdict::kBroken ? judgement.rule->consequence : "";
}

std::string describe(const Survey::Library& library) {
    const std::string log = safeName(library.log, SIZE_MAX);
    if (library.signal != 0) {
        return fmt::format("signal {} ended the process: {}", library.signal, log);
    }
    if (!library.wasCalled) return safeName(library.result, SIZE_MAX);
    return "Java receives " + library.result + (log.empty() ? "" : ": " + log);
}

std::string formatEvidence(const Judgement& judgement) {
    std::string text = fmt::format("      {}\n", judgement.rule->sentence);
    const Findings::List& evidence = evidenceOf(judgement);
    for (const Evidence& one : evidence.first) {
        text += fmt::format("      {}{}{}{}: {};\n        expected {}\n", one.method,
                            one.thing.empty() ? "" : ", ", one.thing,
                            one.readMs == 0 ? "" : fmt::format(" at {} ms", one.readMs), one.found,
                            one.expected);
    }
    if (evidence.count > evidence.first.size()) {
        text += fmt::format("      and {} more\n", evidence.count - evidence.first.size());
    }
    const std::string consequence = consequenceOf(judgement);
    return text + (consequence.empty() ? "" : "      so " + consequence + "\n");
}

std::string formatTable(const Report& report) {
    std::string text = report.title + "\n";
    for (const Judgement& judgement : report.judgements) {
        text += fmt::format("  {:<30} {}{}\n", judgement.rule->name,
                            judgement.rule->isPublishedTest ? "* " : "  ", nameOf(judgement));
        if (evidenceOf(judgement).count > 0) text += formatEvidence(judgement);
    }
    const size_t notJudged = report.count(Verdict::kNotJudged);
    text += fmt::format(
        "  (*: the interface's published tests check it)\n"
        "{} rules kept, {} broken, {} legal, {}{} not applicable\n\n",
        report.count(Verdict::kKept), report.count(Verdict::kBroken), report.count(Verdict::kLegal),
        notJudged > 0 ? fmt::format("{} not judged, ", notJudged) : "",
        report.count(Verdict::kNotApplicable));
    text += fmt::format("{:<34}{:>7}{:>11}{:>9}{:>9}{:>8}\n", "Calls", "number", "median ms",
                        "99 % ms", "bytes", "records");
    for (const auto& [method, timing] : report.timings) {
        text += fmt::format("  {:<32}{:>7}{:>11.3f}{:>9.3f}{:>9}{:>8}\n", method,
                            timing.tookMs.size(), timing.percentile(0.5), timing.percentile(0.99),
                            timing.mostBytes, timing.mostRecords);
    }
    text += "\n";
    for (const std::string& note : report.notes) text += "Note: " + note + "\n";
    return text + "Library: " + describe(report.library) + "\n";
}

Json toJson(const Judgement& judgement) {
    std::vector<Json> evidence;
    for (const Evidence& one : evidenceOf(judgement).first) {
        evidence.push_back(Json::object({{"method", one.method},
                                         {"thing", one.thing},
                                         {"read_ms", one.readMs},
                                         {"found", one.found},
                                         {"expected", one.expected}}));
    }
    return Json::object({{"name", judgement.rule->name},
                         {"verdict", nameOf(judgement)},
                         {"published_test", judgement.rule->isPublishedTest},
                         {"sentence", judgement.rule->sentence},
                         {"consequence", consequenceOf(judgement)},
                         {"evidence", Json::array(evidence)},
                         {"findings", evidenceOf(judgement).count}});
}

std::string formatJson(const Report& report) {
    std::vector<Json> rules, calls;
    for (const Judgement& judgement : report.judgements) rules.push_back(toJson(judgement));
    for (const auto& [method, timing] : report.timings) {
        calls.push_back(Json::object({{"method", method},
                                      {"number", timing.tookMs.size()},
                                      {"median_ms", timing.percentile(0.5)},
                                      {"percentile_99_ms", timing.percentile(0.99)},
                                      {"bytes", timing.mostBytes},
                                      {"records", timing.mostRecords}}));
    }
    const Json json =
        Json::object({{"title", report.title},
                      {"rules", Json::array(rules)},
                      {"calls", Json::array(calls)},
                      {"notes", Json::array({report.notes.begin(), report.notes.end()})},
                      {"library", Json::object({{"called", report.library.wasCalled},
                                                {"signal", report.library.signal},
                                                {"text", describe(report.library)}})}});
    return json.toText(2) + "\n";
}

bool contains(const std::vector<std::string>& names, const char* name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

int check(const CheckArguments& arguments) {
    if (openService(arguments.service) != 0) return kUsage;
    if (arguments.service.bus) host::setBusTimeLimit(arguments.timeoutSeconds);

    Survey survey = takeSurvey(arguments.durationSeconds, arguments.timeoutSeconds);
    if (survey.isGone) {
        survey.library.result = "not called, because the service does not answer";
    } else {
        survey.library = tryLibrary(arguments.service);
    }

    Report report;
    report.title =
        fmt::format("{} over {}, {} s, with {} full readings", describe(arguments.service),
                    survey.hal == Survey::Hal::kAidl ? "AIDL" : "HIDL", arguments.durationSeconds,
                    survey.residencies.size());
    for (const Rule& rule : allRules()) {
        if (contains(arguments.except, rule.name) ||
            (!arguments.only.empty() && !contains(arguments.only, rule.name))) {
            continue;
        }
        Judgement& judgement = report.judgements.emplace_back();
        judgement.rule = &rule;
        judgement.verdict = judge(rule, survey, &judgement.findings);
    }
    report.timings = measure(survey);
    report.notes = takeNotes(survey);
    for (const std::string& method : refusedMethods(survey)) {
        report.notes.push_back(fmt::format("{}: {}", method, kRefusedByBus));
    }
    if (!survey.isGone) {
        report.notes.emplace_back(fmt::format("{} threads called at once{}", kThreadsAtOnce,
                                              arguments.service.bus
                                                  ? ", each with a connection of its own to the bus"
                                                  : " within this process"));
    }
    if (survey.isCut) {
        report.notes.emplace_back("calls were left out, because the answers are slow or large");
    }
    report.library = survey.library;
    if (!writeOutput(arguments.format == "json" ? formatJson(report) : formatTable(report))) {
        return kUsage;
    }
    return report.count(Verdict::kBroken) == 0 ? 0 : 1;
}

}  // namespace

Command addCheck(CommandLine program) {
    const auto arguments = std::make_shared<CheckArguments>();
    CommandLine command = program.addSubcommand(
        "check", "Check whether a service keeps the promises of its interface.");
    command.addFooter(
        "Prints a line for each rule, and for a broken one the evidence. Times are milliseconds\n"
        "since boot, for --replay those of the recording. A rule's name stays for ever.\n"
        "Exit status: 0 no rule is broken, 1 a rule is broken, 2 bad argument, no service, or the\n"
        "report could not be written.\n"
        "A kernel counts a stay in an idle state when the stay ends, so this machine may break "
        "the\n"
        "rule state-time-within-interval.\n"
        "Example: powerstats check --duration 1 --except state-time-within-interval");
    addServiceOptions(command, &arguments->service);
    command.addOption("--duration", "Seconds to go on reading",
                      number(&arguments->durationSeconds, {0, 86400}));
    command.addOption("--timeout", "Seconds that a call on a bus may take",
                      number(&arguments->timeoutSeconds, {0.001, 86400}));
    const auto addRules = [&](const char* option, std::vector<std::string>* rules,
                              const char* text) {
        const auto take = [rules](const std::string& name) {
            rules->push_back(name);
            const auto& all = allRules();
            const bool isKnown = std::any_of(all.begin(), all.end(),
                                             [&](const Rule& rule) { return rule.name == name; });
            return isKnown ? ""
                           : name + ": no rule has this name (powerstats check prints the names)";
        };
        command.addOption(option, text, {"RULE", "", "", take}).repeat();
    };
    addRules("--only", &arguments->only, "Judge by this rule only; may be repeated");
    addRules("--except", &arguments->except, "Do not judge by this rule; may be repeated");
    command.addOption("--format", "Format of the report",
                      choice(&arguments->format, {"table", "json"}));
    return {command, [arguments] { return check(*arguments); }};
}

}  // namespace powerstats
