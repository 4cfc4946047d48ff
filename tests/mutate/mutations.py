# SPDX-License-Identifier: Apache-2.0
"""Mutations: small changes to the shipped half, generated from its text by rules."""

import collections
import difflib
import pathlib
import re

ROOT = pathlib.Path(__file__).resolve().parents[2]
SOURCES = ("jni/*.h", "jni/*.cpp", "aidl/*.h", "hidl/*.h", "jni/exports.map", "proto/*.proto")

# `line` is the text of the line that changes; with `file` and `rule` it finds the mutation again
# when the lines around it have moved. `text` is the whole file with the change made.
Mutation = collections.namedtuple("Mutation", "id file rule line text diff")

TURNED = {
    "!=": "==", "==": "!=", " >= ": " < ", " < ": " >= ", " >=": " >", " <": " <=",
    "&&": "||", "||": "&&", "!": "", "true": "false", "false": "true", "{}": "{1}",
    "::max()": "::min()", "::min()": "::max()", "CLOCK_BOOTTIME": "CLOCK_MONOTONIC",
    "Status::NOT_SUPPORTED": "Status::SUCCESS", "Status::SUCCESS": "Status::NOT_SUPPORTED",
    "KIND_RAIL": "KIND_POWER_ENTITY", "KIND_POWER_ENTITY": "KIND_RAIL",
    "subsysName": "railName", "railName": "subsysName", ".second": ".first",
    "totalTimeInStateMs": "totalStateEntryCount", "totalStateEntryCount": "totalTimeInStateMs",
    "getRailEnergyAidl": "getResidenciesAidl", "getRailEnergyV1_0": "getResidenciesV1_0",
    "ANDROID_LOG_ERROR": "ANDROID_LOG_WARN", "ANDROID_LOG_WARN": "ANDROID_LOG_INFO",
    "ANDROID_LOG_INFO": "ANDROID_LOG_ERROR", "emplace": "insert_or_assign", ".c_str()": "",
    "int64_t": "int32_t", "int32_t": "int16_t", "int": "int16_t", "float": "int32_t",
    "jsize": "int8_t", '"': '"~', "*": "",
}


def turned(match):
    return TURNED[match[0]]


def larger(match):
    return str(2 * int(match[1]) + 1) + (match[2] or "")


def dropped(_):
    return ""


CODE, MAP, PROTO = (".h", ".cpp"), (".map",), (".proto",)
# Rule, the files it is for, what changes, and into what. Of the proto's many numbers that nothing
# uses, the last stands for all. A compiler appends to the name of a variable only where its type is
# made of std::string.
PATTERNS = (
    ("turn-comparison", CODE, r"[!=]=| >= | < ", turned),
    ("move-boundary", CODE, r" >=(?= )| <(?= )", turned),
    ("turn-logic", CODE, r"(?<= )(&&|\|\|)(?=\s)", turned),
    ("drop-negation", CODE, r"!(?=[\w(])", turned),
    ("change-constant", CODE, r"(?<![\w.])(\d+)(\.\d+f)?\b", larger),
    ("change-constant", CODE, r"\b(true|false|CLOCK_BOOTTIME)\b|::(max|min)\(\)", turned),
    ("change-constant", CODE, r"(?<=\()\{\}(?=, )", turned),
    ("swap-name", CODE, r"\bStatus::(NOT_SUPPORTED|SUCCESS)\b|\bKIND_[A-Z_]+\b", turned),
    ("swap-name", CODE, r"(?<=\.)(subsysName|railName)\b|\.second\b", turned),
    ("swap-name", CODE, r"(?<=\.)total(TimeInStateMs|StateEntryCount)\b", turned),
    ("swap-name", CODE, r"(?<== )getRailEnergy(Aidl|V1_0)\b", turned),
    ("swap-priority", CODE, r"\bANDROID_LOG_(ERROR|WARN|INFO)\b", turned),
    ("change-width", CODE, r"(?<=static_cast<)\w+(?=>)|\bint64_t(?= \w+[,)])", turned),
    ("replace-entries", CODE, r"\bemplace(?=\()", turned),
    ("keep-after-nul", CODE, r"(?<=\bname)\.c_str\(\)", turned),
    ("alter-message", CODE, r'(?<!extern )"(?=x*")', turned),
    ("drop-export", MAP, r"(?<= )[\w:*]+;", dropped),
    ("narrow-export", MAP, r"(?<=Names)\*(?=;)", turned),
    ("change-number", PROTO, r"(?<!_\d = )(?<!_1[0-2] = )(?<= = )(\d+)()(?=;)", larger),
)


def closing(code, start):
    """The end of the brackets that open at `start`."""
    depth = 0
    for position in range(start, len(code)):
        depth += (code[position] in "([{") - (code[position] in ")]}")
        if depth == 0:
            return position + 1
    return len(code)


def forced_conditions(code):
    for match in re.finditer(r"\bif (?=\()", code):
        end = closing(code, match.end())
        yield match.end(), end, "(true)"
        if code[end:].lstrip()[0] == "{":  # else its statement as a whole is dropped
            yield match.end(), end, "(false)"


def dropped_statements(code):
    """Whole statements that are not blocks. Left out: declarations, what a function ends with, and
    log lines, which other rules change."""
    left_out = r"using|const|std::(string|vector|unordered_map)|proto"
    start = rf"(?<=[;{{}}])\s*\n( +)(?!({left_out}|__android_log_print)\b)(?=[\w:])"
    for match in re.finditer(start, code):
        if match[1] == "    " and code.startswith("return", match.end()):
            continue
        position = match.end()
        while code[position] not in ";{}":
            position = closing(code, position) if code[position] in "([" else position + 1
        if code[position] == ";" and len(match[1]) >= 4:
            yield match.end(), position + 1, ";"


def swapped_definitions(code, text):
    """Neighbours whose order of destruction changes; that of plain containers shows nowhere."""
    definition = r"([:\w][^;{}]*\bg[A-Z]\w+\b[^;{}]*;\n)"
    for match in re.finditer(rf"(?m)^(?={definition}{definition})", code):
        first, second = (text[slice(*match.span(group))] for group in (1, 2))
        if all(re.search(r"\bsp<|_ptr<|DeathRecipient", one) for one in (first, second)):
            yield match.start(), match.end(2), second + first


def blank(match):
    text = match[0]
    if text[0] in "\"'":
        return text[0] + "x" * (len(text) - 2) + text[0]
    return re.sub(r"\S", " ", text)


def changes(file, text):
    """(start, end, replacement, rule) of every mutation of a file."""
    # Without comments, what the preprocessor or the compiler checks, and the contents of literals.
    literals = r"\"(\\.|[^\"\\\n])*\"|'(\\.|[^'\\\n])+'"
    comments = r"//[^\n]*|/\*.*?\*/|^#[^\n]*|\bstatic_assert\([^;]*;"
    code = re.sub(rf"(?ms){comments}|{literals}", blank, text)
    forced = list(forced_conditions(code)) if file.suffix in CODE else []
    # To turn a condition that is one comparison is noticed by what notices that it is forced.
    simple = [(start, end) for start, end, _ in forced
              if not re.search(r"&&|\|\|", code[start:end])]
    for rule, suffixes, pattern, replace in PATTERNS:
        for match in re.finditer(pattern, code) if file.suffix in suffixes else ():
            in_simple = any(start <= match.start() < end for start, end in simple)
            if not (in_simple and rule in ("turn-comparison", "drop-negation")):
                yield match.start(), match.end(), replace(match), rule
    if file.suffix in CODE:
        yield from ((*change, "force-condition") for change in forced)
        yield from ((*change, "drop-statement") for change in dropped_statements(code))
        for match in re.finditer(r"(?m)^#pragma GCC visibility push.*$", text):
            yield *match.span(), "", "drop-statement"
    if file.suffix == ".cpp":
        yield from ((*change, "swap-definitions") for change in swapped_definitions(code, text))


def mutations_of(file):
    text = (ROOT / file).read_text()
    before = text.splitlines()
    seen = collections.Counter()
    for start, end, replacement, rule in sorted(changes(file, text)):
        number = text.count("\n", 0, start)
        seen[number, rule] += 1
        if seen[number, rule] > 1:
            rule += f"#{seen[number, rule]}"
        changed = text[:start] + replacement + text[end:]
        diff = list(difflib.unified_diff(before, changed.splitlines(), n=0, lineterm=""))[3:]
        diff = "\n".join("    " + line for line in diff if not line.startswith("@@"))
        identity = f"{file}:{number + 1} {rule}"
        yield Mutation(identity, str(file), rule, before[number].strip(), changed, diff)


def all_mutations():
    files = sorted({path.relative_to(ROOT) for pattern in SOURCES for path in ROOT.glob(pattern)})
    return [mutation for file in files for mutation in mutations_of(file)]
