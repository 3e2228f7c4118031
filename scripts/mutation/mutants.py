"""The mutants of a C++ file, and the file with all of them in place behind a run-time switch."""

import random
import re
from dataclasses import dataclass
from pathlib import Path

from mutation.cpp import KEYWORDS

INTEGER = re.compile(r"(0[xX][0-9a-fA-F']+|0[bB][01']+|0[0-7']*|[1-9][0-9']*)([uUlLzZ]*)")

# Finding -------------------------------------------------------------------------------------

NEGATED = {"<": ">=", ">=": "<", ">": "<=", "<=": ">", "==": "!=", "!=": "=="}
BOUNDARY = {"<": "<=", "<=": "<", ">": ">=", ">=": ">"}


@dataclass
class Mutant:
    path: str
    line: int
    column: int
    change: str  # short; with the place, the mutant's key: "< -> <=", "call deleted"
    first: int  # the tokens it replaces, first to last (an insertion: last = first - 1)
    last: int
    kind: str  # replace, condition (forced), call (deleted), insert (an early return)
    after: str  # the tokens as mutated, on one line
    before: str = ""  # the tokens as they are, on one line
    id: int = 0  # its switch, once it is taken: CORVELSTOW_MUTANT=id
    last_line: int = 0
    status: str = ""  # killed, timed out, survived, not reached or equivalent
    test: str = ""  # the test that killed it, or outlived its time

    @property
    def key(self):
        return f"{self.path}:{self.line}:{self.column} {self.change}"

    def shown(self, width=140):
        def cut(text):
            return text if len(text) <= width // 2 else text[:width // 2 - 12] + " ... " + text[-7:]
        return f"{cut(self.before)}  =>  {cut(self.after)}"


def find_mutants(source):
    """Every mutant of a cpp.Source: the early returns, then the others in the order of their
    tokens."""
    tokens, mutants = source.tokens, []
    lines = source.text.split("\n")

    def column(i):
        return tokens[i].start - source.text.rfind("\n", 0, tokens[i].start)

    def add(i, change, first, last, kind, after):
        if source.fixed[i] or any(tokens[k].kind == "directive" for k in range(first, last + 1)):
            return
        m = Mutant(source.path, tokens[i].line, column(i), change, first, last, kind, after=after,
                   last_line=tokens[max(last, first)].line)
        m.before = flat(source, first, last) if last >= first else lines[m.line - 1].strip()
        if "\n" not in m.after:  # a schema keeps the file's lines where they are
            mutants.append(m)

    def replaced(first, op, last, other, grouped=False):
        left, right = flat(source, first, op - 1), flat(source, op + 1, last)
        return f"({left}) {other} ({right})" if grouped else f"{left} {other} {right}"

    inside = set()
    for function in source.functions:
        inside.update(range(function.open + 1, function.close))
        opening = function.open
        for value in {"void": [""], "bool": ["false", "true"]}.get(function.returns, []):
            returned = f"return {value};".replace(" ;", ";")
            add(opening, f"{returned} inserted", opening + 1, opening, "insert",
                f"{{ {returned} ...")

    for i in sorted(inside):
        t = tokens[i]
        if t.kind == "punct" and t.text in NEGATED and i not in source.angle and \
                tokens[i - 1].text != "operator":
            first, last = source.left_operand(i), source.right_operand(i)
            if first is not None and last is not None:
                for other in dict.fromkeys([NEGATED[t.text], BOUNDARY.get(t.text)]):
                    if other:
                        add(i, f"{t.text} -> {other}", first, last, "replace",
                            replaced(first, i, last, other))
        elif t.text in ("&&", "||") and source.is_binary(i) and tokens[i + 1].text != ")":
            first, last = source.left_operand(i), source.right_operand(i)
            other = "||" if t.text == "&&" else "&&"
            if first is not None and last is not None:
                # Grouped: the left operand of || may hold another ||.
                add(i, f"{t.text} -> {other}", first, last, "replace",
                    replaced(first, i, last, other, grouped=True))
        elif t.text in ("if", "while", "for") and tokens[i + 1].text == "(":
            condition = condition_of(source, i + 1)
            if condition:
                for forced in ("true", "false"):
                    add(condition[0], f"{t.text} condition -> {forced}", *condition, "condition",
                        forced)
        elif t.kind == "number" and INTEGER.fullmatch(t.text):
            for moved in moved_by_one(t.text):
                add(i, f"{t.text} -> {moved}", i, i, "replace", moved)
        if t.kind == "ident" and t.text not in KEYWORDS and starts_statement(source, i):
            end = call_statement_end(source, i)
            if end:
                add(i, "call deleted", i, end, "call", "(deleted)")
    return mutants


def moved_by_one(literal):
    """An integer literal one up and one down (0 only up), in its own base and with its suffix."""
    digits, suffix = INTEGER.fullmatch(literal).groups()
    plain, prefix = digits.replace("'", ""), digits[:2].lower()
    if prefix in ("0x", "0b"):
        base, spell = (16 if prefix == "0x" else 2), lambda v: digits[:2] + format(v, prefix[1])
    elif len(plain) > 1 and plain.startswith("0"):
        base, spell = 8, lambda v: "0" + format(v, "o")
    else:
        base, spell = 10, str
    value = int(plain[2:] if base in (2, 16) else plain, base)
    return [spell(v) + suffix for v in ([value + 1, value - 1] if value else [1])]


def condition_of(source, paren):
    """The tokens of the condition of an if, while or for, when a schema can replace it."""
    close, tokens = source.match[paren], source.tokens
    if close is None or tokens[paren - 1].text == "if" and tokens[paren + 1].text == "constexpr":
        return None
    pieces, start, i = [], paren + 1, paren + 1
    while i <= close:
        text = tokens[i].text
        if text in ("(", "[", "{") and source.match[i]:
            i = source.match[i]
        elif text in (";", ")") or (text == ":" and tokens[paren - 1].text == "for"):
            pieces.append((start, i - 1, text))
            start = i + 1
        i += 1
    if tokens[paren - 1].text == "for":
        if len(pieces) != 3:
            return None  # a range-for
        first, last, _ = pieces[1]
    elif len(pieces) != 1:
        return None  # an init-statement
    else:
        first, last, _ = pieces[0]
    if last < first or source._top_level_assignment(first, last + 1):
        return None  # empty, or a declaration
    return first, last


def starts_statement(source, i):
    before = source.tokens[i - 1].text
    opener = source.enclosing[i]
    if opener is None or source.tokens[opener].text != "{":
        return False
    if before in (";", "{", "}", "else", "do"):
        return True
    if before == ")" and source.match[i - 1] is not None:
        keyword = source.tokens[source.match[i - 1] - 1].text
        return keyword in ("if", "while", "for")
    return False


def call_statement_end(source, i):
    """The `)` of a statement that is a call alone (`a.b(...);`), or None."""
    tokens = source.tokens
    while tokens[i + 1].text in ("::", ".", "->") and tokens[i + 2].kind == "ident":
        i += 2
    if i + 1 in source.angle:
        i = source.match[i + 1] or i
    if tokens[i + 1].text != "(" or source.match[i + 1] is None:
        return None
    close = source.match[i + 1]
    return close if tokens[close + 1].text == ";" else None


def flat(source, first, last):
    """Tokens first..last on one line, a space wherever the file has any."""
    out = []
    for i in range(first, last + 1):
        if i > first and source.tokens[i - 1].end != source.tokens[i].start:
            out.append(" ")
        out.append(source.tokens[i].text)
    return "".join(out)


# Schemata ------------------------------------------------------------------------------------

RUNTIME = """\
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>
namespace {
// Mutants of scripts/mutate: mutant ID runs in a process whose CORVELSTOW_MUTANT is ID.
// CORVELSTOW_MUTANT_TRACE names a file where each process adds the mutants it reaches, through
// system calls rather than libc, which the tests' fault seams intercept.
[[maybe_unused]] bool corvelstow_mutant(int id) {
  static const long active = [] {
    const char* value = std::getenv("CORVELSTOW_MUTANT");
    return value ? std::atol(value) : 0L;
  }();
  static const char* const trace = std::getenv("CORVELSTOW_MUTANT_TRACE");
  static std::atomic<bool> reached[@COUNT@];
  if (trace && !reached[id - @FIRST@].exchange(true)) {
    const int saved = errno;
    char line[16];
    int length = 0;
    for (long rest = id; rest; rest /= 10) line[length++] = static_cast<char>('0' + rest % 10);
    for (int i = 0; i < length / 2; ++i) std::swap(line[i], line[length - 1 - i]);
    line[length++] = '\\n';
    long fd = syscall(SYS_openat, AT_FDCWD, trace, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd >= 0) {
      syscall(SYS_write, fd, line, length);
      syscall(SYS_close, fd);
    }
    errno = saved;
  }
  return id == active;
}
}  // namespace
#line 1 "@PATH@"
"""


def schema_text(source, mutants, compiled_path):
    """The source with every mutant in place behind its switch; its lines stay where they were."""
    if not mutants:
        return source.text
    first_id = min(m.id for m in mutants)
    prelude = RUNTIME.replace("@COUNT@", str(max(m.id for m in mutants) - first_id + 1))
    prelude = prelude.replace("@FIRST@", str(first_id)).replace("@PATH@", str(compiled_path))
    insertions = {}
    for m in sorted(mutants, key=lambda m: m.id):
        if m.kind == "insert":
            returned = m.change.replace(" inserted", "")
            insertions.setdefault(m.first, []).append(f" if (corvelstow_mutant({m.id})) {returned}")
    nested = sorted((m for m in mutants if m.kind != "insert"),
                    key=lambda m: (m.first, -m.last, m.id))  # the outer one first
    return prelude + render(source, 0, len(source.tokens) - 1, nested, insertions)


def render(source, first, last, nested, insertions=None):
    """The text of tokens first..last, as laid out in the file, with the mutants of `nested`."""
    tokens, text = source.tokens, source.text
    out, i = [text[:tokens[0].start] if first == 0 else ""], first
    while i <= last:
        if i > first:
            out.append(text[tokens[i - 1].end:tokens[i].start])
        outer = next((m for m in nested if m.first == i), None)
        if outer:
            inner = [m for m in nested if m is not outer and m.last <= outer.last]
            out.append(schema(source, outer, inner))
            nested = [m for m in nested if m is not outer and m not in inner]
            i = outer.last + 1
            continue
        out.append(tokens[i].text)
        out.extend((insertions or {}).get(i + 1, []))
        i += 1
    if last == len(tokens) - 1:
        out.append(text[tokens[-1].end:])
    return "".join(out)


def schema(source, m, inner):
    """Mutant `m` behind its switch, over the original with the mutants inside it."""
    original = render(source, m.first, m.last, inner)
    switch = f"corvelstow_mutant({m.id})"
    if m.kind == "condition":
        forced = f"{switch} ||" if m.after == "true" else f"!{switch} &&"
        return f"({forced} ({original}))"
    if m.kind == "call":
        return f"({switch} ? void() : void({original}))"
    return f"({switch} ? ({m.after}) : ({original}))"


def crosses(a, b):
    """Whether the tokens of two mutants overlap without one lying inside the other."""
    if a.kind == "insert" or b.kind == "insert" or a.last < b.first or b.last < a.first:
        return False
    return not (a.first <= b.first and b.last <= a.last or b.first <= a.first and a.last <= b.last)


# Choosing the mutants -----------------------------------------------------------------------

def read_keys(path):
    """Mutant keys, one a line, each optionally followed by " # " and a reason."""
    keys = {}
    for line in Path(path).read_text().splitlines():
        if line.strip() and not line.lstrip().startswith("#"):
            key, _, reason = line.partition(" # ")
            keys[key.strip()] = reason.strip()
    return keys


class Selection:
    """The mutants of each file in the order they are taken: all of them, those a list names,
    or a seeded sample; one that does not compile gives way to the next of its file."""

    def __init__(self, sources, sample, seed, wanted):
        self.queues, self.taken, self.dropped, self.next_id = {}, {}, {}, 1
        self.keys = set()  # of every mutant of the files
        for path, source in sources.items():
            candidates = find_mutants(source)
            self.keys.update(m.key for m in candidates)
            if wanted is not None:
                candidates = [m for m in candidates if m.key in wanted]
            if sample is not None:
                random.Random(f"{seed}:{path}").shuffle(candidates)
            self.queues[path] = candidates
            self.taken[path], self.dropped[path] = [], []
            self.top_up(path, len(candidates) if sample is None else sample)

    def top_up(self, path, count):
        while count > 0 and self.queues[path]:
            m = self.queues[path].pop(0)
            if any(crosses(m, other) for other in self.taken[path]):
                continue  # the two could not nest one in the other
            m.id, self.next_id = self.next_id, self.next_id + 1
            self.taken[path].append(m)
            count -= 1

    def drop(self, path, mutants, refill):
        for m in mutants:
            self.taken[path].remove(m)
            self.dropped[path].append(m)
        if refill:
            self.top_up(path, len(mutants))

    def all(self):
        return [m for path in self.taken for m in self.taken[path]]
