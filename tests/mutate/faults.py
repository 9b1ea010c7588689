"""Finds the places of a C++ source where a small fault can be made, and draws a sample of them.

The sources are formatted by clang-format, which makes tokens enough: an operator has a space on both sides, a template's bracket
has none, and a declaration begins with two names.
"""

import bisect
import hashlib
import os
import re
from dataclasses import dataclass

KINDS = ("boundary", "negation", "constant", "removed")
MOST_LINES = 5  # of a statement that is removed

TOKEN = re.compile(
    r"""(?P<gap>\s+|//[^\n]*|/\*.*?\*/|^[ \t]*\#(?:\\.|[^\\\n])*)
    |(?P<string>(?:u8|[uUL])?(?:R"(?P<mark>[^\s()]*)\(.*?\)(?P=mark)"|"(?:\\.|[^"\\])*"))
    |(?P<char>'(?:\\.|[^'\\])+')
    |(?P<number>\d(?:[eEpP][+-]|'?[\w.])*)
    |(?P<word>[A-Za-z_]\w*)
    |(?P<sign><<=|>>=|<=>|\.\.\.|->|::|\+\+|--|<<|>>|<=|>=|==|!=|&&|\|\||[-+*/%&|^]=|.)""",
    re.VERBOSE | re.DOTALL | re.MULTILINE,
)
BOUNDARY = {"<": "<=", "<=": "<", ">": ">=", ">=": ">"}
OPPOSITE = {"==": "!=", "!=": "==", "&&": "||", "||": "&&"}
HEADS = {"if", "for", "while", "switch"}
NEVER_REMOVED = HEADS | set(
    "do case default else goto using static constexpr const auto struct class enum union typedef namespace template extern try "
    "catch volatile unsigned signed int char long short bool void float double static_assert delete throw".split()
)
# What writes for people only, is for the compiler, or shows under a sanitizer alone.
QUIET = re.compile(r"CELMUX_LOG|log_(debug|enter|entry|error|info)|print_\w+|ril_log|write_system_log|static_assert")
SANITIZERS_ALONE = re.compile(r"free|pthread_mutex_lock|pthread_rwlock_\w*lock")
DECLARATION = re.compile(r"[A-Za-z_][\w:]*(<[^;()]*>)?(::\w+)*(\s+[*&]*|[*&]+)[A-Za-z_]\w*\s*([=;,({\[]|$)")


@dataclass(frozen=True)
class Fault:
    path: str
    line: int
    last_line: int
    kind: str
    start: int
    end: int
    replacement: str
    before: str
    after: str

    def __str__(self):
        return f"{self.path}:{self.line} {self.kind}: {self.before}  ->  {self.after}"


@dataclass
class Token:
    kind: str
    text: str
    start: int
    end: int


def tokens_of(text):
    return [Token(m.lastgroup if m.lastgroup != "mark" else "string", m.group(), m.start(), m.end())
            for m in TOKEN.finditer(text) if m.group("gap") is None]


def partners(tokens):
    """For each opening bracket the index of the one that closes it."""
    closing, stack = {}, []
    for i, token in enumerate(tokens):
        if token.kind != "sign":
            continue
        if token.text in "([{":
            stack.append(i)
        elif token.text in ")]}" and stack:
            closing[stack.pop()] = i
    return closing


def digest(*parts):
    return hashlib.sha256("\0".join(map(str, parts)).encode()).hexdigest()


class Finder:
    def __init__(self, path, text):
        self.path, self.text = path, text
        self.tokens = tokens_of(text)
        self.starts = [token.start for token in self.tokens]
        self.closing = partners(self.tokens)
        self.skipped = self.skipped_tokens()
        self.faults = []

    def skipped_tokens(self):
        skipped = set()
        for i, token in enumerate(self.tokens[:-1]):
            if token.kind == "word" and QUIET.fullmatch(token.text) and self.tokens[i + 1].text == "(":
                skipped.update(range(i, self.closing.get(i + 1, i) + 1))
        return skipped

    def at(self, i):
        return self.tokens[i].text if 0 <= i < len(self.tokens) else ""

    def add(self, kind, start, end, replacement):
        line = self.text.count("\n", 0, start) + 1
        last_line = self.text.count("\n", 0, end) + 1
        begin = self.text.rfind("\n", 0, start) + 1
        finish = max([end] + [t.end for t in self.tokens_at(begin, self.text.find("\n", end))])
        before = " ".join(self.text[begin:finish].split())
        after = " ".join((self.text[begin:start] + replacement + self.text[end:finish]).split())
        self.faults.append(Fault(self.path, line, last_line, kind, start, end, replacement, before, after))

    def tokens_at(self, begin, end):
        first = bisect.bisect_left(self.starts, begin)
        return self.tokens[first:bisect.bisect_left(self.starts, end)]

    def spaced(self, token):
        return self.text[token.start - 1].isspace() and self.text[token.end].isspace()

    def operator(self, i, token):
        if not self.spaced(token):
            if token.text == "!" and self.at(i + 1) != "=":
                self.add("negation", token.start, token.end, "")
        elif token.text in BOUNDARY and self.at(i - 1) != "template":
            self.add("boundary", token.start, token.end, BOUNDARY[token.text])
        elif token.text in OPPOSITE:
            self.add("negation", token.start, token.end, OPPOSITE[token.text])

    def condition(self, i):
        """A condition without an operator of its own that could be turned round."""
        end = self.closing.get(i)
        if end is None or any(t.text in ("!", ";") or t.text in BOUNDARY or t.text in OPPOSITE for t in self.tokens[i:end]):
            return
        start, stop = self.tokens[i].end, self.tokens[end].start
        self.add("negation", start, stop, f"!({self.text[start:stop]})")

    def size_of_array(self, i):
        """A number in the brackets of a declaration, as in `char name[16]`."""
        i -= 1
        while self.at(i) == "[" or self.at(i) == "]":
            if self.at(i) == "]":
                i -= 2
            i -= 1
        if self.tokens[i].kind != "word":
            return False
        before = self.tokens[i - 1]
        return (before.kind == "word" and before.text != "return") or (
            before.text in ("*", "&", ">") and self.text[before.end] != " ")

    def number(self, i, token):
        around = self.text[token.start - 1] + self.text[token.end]
        match = re.fullmatch(r"(0[xX])?([0-9a-fA-F']+?)([uUlLzZ]*)", token.text)
        if "<" in around or ">" in around or not match:
            return
        if self.at(i - 1) == "[" and self.at(i + 1) == "]" and self.size_of_array(i):
            return
        prefix, digits, suffix = match.group(1) or "", match.group(2).replace("'", ""), match.group(3)
        base = 16 if prefix else 8 if len(digits) > 1 and digits[0] == "0" else 10
        value = int(digits, base)
        up = value == 0 or int(digest(self.at(i - 2), self.at(i - 1), digits), 16) % 2
        value += 1 if up else -1
        shape = {16: f"{prefix}{value:x}", 8: f"0{value:o}", 10: str(value)}[base]
        self.add("constant", token.start, token.end, shape + suffix)

    def character(self, token):
        body = token.text[1:-1]
        other = {"\\r": "\\n", "\\n": "\\r", "\\0": "\\1", "z": "y", "Z": "Y", "9": "8", "~": "}"}.get(body)
        if not other:
            other = " " if body[0] == "\\" or body in "&[" else chr(ord(body[0]) + 1)
        self.add("constant", token.start, token.end, f"'{other}'")

    def statement(self, i):
        first = self.tokens[i]
        end = i
        while end < len(self.tokens) and self.at(end) != ";":
            end = self.closing.get(end, end) + 1
        if end >= len(self.tokens):
            return
        body = self.text[first.start:self.tokens[end].end]
        if body.count("\n") >= MOST_LINES or re.fullmatch(r"\(void\)\s*\w+;", body) or "{" in self.text[first.start:first.end]:
            return
        if first.text not in ("return", "break", "continue"):
            if first.text in NEVER_REMOVED or first.text in (";", "}", "#", "[", "case"):
                return
            if QUIET.fullmatch(first.text) or SANITIZERS_ALONE.fullmatch(first.text) or DECLARATION.match(body):
                return
        self.add("removed", first.start, self.tokens[end].end, "{}" + "\n" * body.count("\n"))

    def opens_code(self, i, inside):
        before = self.tokens[i - 1]
        if before.text in (")", "]", "else", "do", "const", "noexcept", "override"):
            return True
        return inside and before.text in (";", "{", "}", ":")

    def find(self):
        stack = []  # of (bracket, whether statements stand in it, whether it is the head of an `if` or a loop)
        begins = False  # whether a statement may begin here
        label = False
        for i, token in enumerate(self.tokens):
            in_code = bool(stack) and stack[-1][1]
            if begins and in_code and i not in self.skipped:
                label = token.text in ("case", "default")
                self.statement(i)
            begins = token.text in (";", "}", "else", "do") or (label and token.text == ":")
            if token.text == ":":
                label = False
            if token.kind == "sign" and token.text in "([{":
                head = token.text == "(" and (self.at(i - 1) in HEADS or (self.at(i - 1) == "constexpr" and self.at(i - 2) == "if"))
                code = token.text == "{" and i > 0 and self.opens_code(i, in_code)
                stack.append((token.text, code, head))
                begins = code
                if head and self.at(i - 1) in ("if", "while"):
                    self.condition(i)
            elif token.kind == "sign" and token.text in ")]}" and stack:
                begins = stack.pop()[2] or (token.text == "}")
            if i in self.skipped:
                continue
            if token.kind == "sign":
                self.operator(i, token)
            elif token.kind == "number":
                self.number(i, token)
            elif token.kind == "char":
                self.character(token)
            elif token.text in ("true", "false") and not self.at(i - 1).startswith("="):
                self.add("constant", token.start, token.end, "false" if token.text == "true" else "true")
        return self.faults


def code_lines(text):
    """The number of lines with anything but blanks and comments."""
    return len({text.count("\n", 0, token.start) for token in tokens_of(text)})


def order_of_file(path, faults, seed):
    """Shuffled, the kinds in turn. The key is the code of the line, so that a change elsewhere in the file leaves most in place."""
    seen, keyed = {}, []
    for fault in faults:
        identity = (fault.kind, fault.before, fault.after)
        seen[identity] = seen.get(identity, 0) + 1
        keyed.append((digest(seed, os.path.basename(path), *identity, seen[identity]), fault))
    ranks, ranked = dict.fromkeys(KINDS, 0), []
    for key, fault in sorted(keyed, key=lambda pair: pair[0]):
        ranked.append((ranks[fault.kind], key, fault))
        ranks[fault.kind] += 1
    return [fault for _, _, fault in sorted(ranked, key=lambda triple: triple[:2])]


def order_of_all(texts, seed):
    """All faults of the files (path -> text), so that each beginning of the list has of every file as its code lines deserve."""
    placed = []
    for path, text in texts.items():
        lines = code_lines(text)
        offset = int(digest(seed, os.path.basename(path))[:8], 16) / 2**32
        for place, fault in enumerate(order_of_file(path, Finder(path, text).find(), seed)):
            placed.append(((place + offset) / lines, path, place, fault))
    return [fault for _, _, _, fault in sorted(placed, key=lambda entry: entry[:3])]
