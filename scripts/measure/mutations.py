"""Finds what can be changed in a C++ source: small mistakes, each of one of the kinds below.

It reads tokens, not the language: enough to know statements, conditions and operators in code that is formatted as the
house does. What it takes for something else does not compile, and counts as not built.
"""

import random
import re
from collections import namedtuple

KINDS = ("operator", "constant", "return value", "deleted call", "swapped statements", "log text", "log level",
         "condition negated", "deleted line")

# begin and end are offsets in the text, replacement what stands there instead, line the first line that is another.
Mutation = namedtuple("Mutation", "path kind begin end replacement line")
Token = namedtuple("Token", "kind text begin end")

TOKEN = re.compile(r"""
    (?P<space>\s+|//[^\n]*|/\*.*?\*/|^[ \t]*\#(?:[^\n\\]|\\.)*)
  | (?P<string>(?:u8|[uUL])?R"(?P<raw>[^(\s]*)\(.*?\)(?P=raw)"|(?:u8|[uUL])?"(?:[^"\\\n]|\\.)*")
  | (?P<char>'(?:[^'\\\n]|\\.)+')
  | (?P<number>\.?[0-9](?:'?[0-9a-zA-Z.])*)
  | (?P<word>[A-Za-z_]\w*)
  | (?P<sign><=>|->\*|<<=|>>=|\.\.\.|::|->|\+\+|--|<<|<=|>=|==|!=|&&|\|\||[-+*/%&|^]=|.)
""", re.VERBOSE | re.DOTALL | re.MULTILINE)

CLOSING = {"(": ")", "[": "]", "{": "}"}
CONTROL = {"if", "for", "while", "switch"}
NO_STATEMENT = {"using", "static_assert", "struct", "class", "enum", "union", "typedef", "template", "namespace",
                "friend", "extern", "goto", "throw", "co_return"}
LOGS = {"ORV_LOG", "ORV_LOG_AS"}
LEVELS = ("kError", "kWarning", "kInfo", "kDebug", "kTrace")
OPERATORS = {"==": ["!="], "!=": ["=="], "<": ["<="], "<=": ["<"], ">": [">="], ">=": [">"], "&&": ["||"], "||": ["&&"],
             "+": ["-"], "-": ["+"], "*": ["/"], "/": ["*"], "%": ["*"], "&": ["|"], "|": ["&"], "^": ["|"],
             "<<": [">>"], ">>": ["<<"], "+=": ["-="], "-=": ["+="], "|=": ["&="], "&=": ["|="], "++": ["--"],
             "--": ["++"]}


def tokens_of(text):
    found = []
    for match in TOKEN.finditer(text):
        if match.lastgroup != "space" and match.group("space") is None:
            kind = next(name for name in ("string", "char", "number", "word", "sign") if match.group(name) is not None)
            found.append(Token(kind, match.group(), match.start(), match.end()))
    # ">>" is left as two signs by the expression above, since it ends templates, too: one again with space around it.
    joined = []
    for token in found:
        last = joined[-1] if joined else None
        if last and token.text == ">" == last.text and last.end == token.begin and text[last.begin - 1] == " ":
            joined[-1] = Token("sign", ">>", last.begin, token.end)
        else:
            joined.append(token)
    return joined


class Source:
    """One source, taken apart."""

    def __init__(self, path, text):
        self.path = path
        self.text = text
        self.tokens = tokens_of(text)
        self.partner = {}       # of each bracket the other one, as indices of tokens
        self.in_function = []   # of each token
        self.in_log = {}        # of the tokens of a line of the log
        self.statements = []    # (first, last, is controlled, number of its block), the last one being the semicolon
        self._read()

    # ---- brackets, blocks and statements

    def _text(self, index):
        return self.tokens[index].text if 0 <= index < len(self.tokens) else ""

    def _is_block(self, index, start):
        """What an opening brace begins: "block", "type", "names" or a value."""
        before = self._text(index - 1)
        head = [token.text for token in self.tokens[start:index]]
        if "namespace" in head or head[:1] == ["extern"]:
            return "names"
        words = set(head)
        if words & {"struct", "class", "union", "enum"} and "(" not in head and before != "=":
            return "type"
        if before in ("", ";", "{", "}", ":", "else", "do", "try", "const", "noexcept", "override", "mutable", "final"):
            return "block"
        if before == ")":
            return "block"
        if before == "]":
            ahead = self._text(self.partner.get(index - 1, 0) - 1)
            return "block" if not re.match(r"[\w\])]", ahead[-1:]) or ahead == "return" else "value"
        # A result's type behind the parameters
        for back in range(index - 1, max(start, index - 12), -1):
            if self._text(back) == "->":
                return "block" if self._text(back - 1) == ")" else "value"
            if self._text(back) in (";", "{", "}", "(", "="):
                break
        return "value"

    def _read(self):
        stack = []      # (bracket's index, what it is, number of the block)
        start = 0       # of the statement, in the innermost block
        starts = []
        blocks = 0
        for index, token in enumerate(self.tokens):
            inside = any(kind == "block" for _, kind, _ in stack)
            self.in_function.append(inside)
            if token.kind != "sign":
                continue
            if token.text in "([":
                stack.append((index, "bracket", 0))
            elif token.text == "{":
                kind = self._is_block(index, start)
                if stack and stack[-1][1] in ("bracket", "value") and kind == "block" and \
                        self._text(index - 1) in ("{", "}", ":", ";", ","):
                    kind = "value"
                blocks += 1
                stack.append((index, kind, blocks))
                if kind != "value":
                    starts.append(start)
                    start = index + 1
            elif token.text in ")]}" and stack:
                opened, kind, _ = stack.pop()
                self.partner[opened] = index
                self.partner[index] = opened
                if kind in ("block", "type", "names"):
                    outer = starts.pop()
                    # A lambda in the middle of something ends nothing.
                    ends = not stack or stack[-1][1] in ("block", "type", "names")
                    start = index + 1 if ends else outer
            elif token.text == ";" and stack and stack[-1][1] == "block":
                self._add_statement(start, index, stack[-1][2])
                start = index + 1
            elif token.text == ";" and (not stack or stack[-1][1] in ("type", "names")):
                start = index + 1
        for index, token in enumerate(self.tokens):
            if token.text in LOGS and self._text(index + 1) == "(" and index + 1 in self.partner:
                for inner in range(index + 1, self.partner[index + 1]):
                    self.in_log[inner] = index

    def _add_statement(self, first, last, block):
        controlled = False
        while first < last:
            word = self._text(first)
            if word in CONTROL:
                first += 1
                if self._text(first) == "constexpr":
                    first += 1
                first = self.partner.get(first, last) + 1
                controlled = True
            elif word == "else":
                first += 1
                controlled = True
            elif word == "case":
                while first < last and self._text(first) != ":":
                    first += 1
                first += 1
            elif word == "default" and self._text(first + 1) == ":":
                first += 2
            else:
                break
        if first < last:
            self.statements.append((first, last, controlled, block))

    def _is_declaration(self, first, last):
        """A statement that brings a name: two words side by side, or a type with its * or &, before any bracket."""
        index = first
        word_before = False
        if self._text(first) in NO_STATEMENT or self._text(first) in ("const", "constexpr", "static", "auto", "unsigned"):
            return True
        while index < last:
            token = self.tokens[index]
            if token.kind == "word":
                if word_before:
                    return True
                word_before = True
            elif token.text == "::":
                word_before = False
            elif token.text in "*&" and word_before and self._text(index + 1) and \
                    self.tokens[index + 1].kind == "word" and self.text[token.begin - 1] != " ":
                return True
            elif token.text == "<" and self.text[token.begin - 1] != " ":
                depth = 0
                while index < last:
                    depth += {"<": 1, ">": -1}.get(self._text(index), 0)
                    if depth == 0:
                        break
                    index += 1
            else:
                return False
            index += 1
        return False

    # ---- mutations

    def _line(self, offset):
        return self.text.count("\n", 0, offset) + 1

    def _make(self, kind, begin, end, replacement):
        # As many lines as before, so that those behind keep their numbers.
        missing = self.text.count("\n", begin, end) - replacement.count("\n")
        return Mutation(self.path, kind, begin, end, replacement + "\n" * max(missing, 0), self._line(begin))

    def _of_token(self, kind, index, replacement):
        token = self.tokens[index]
        return self._make(kind, token.begin, token.end, replacement)

    def _span(self, first, last):
        return self.text[self.tokens[first].begin:self.tokens[last].end]

    def _is_shared(self, index):
        """What is looked at by the compiler alone, or belongs to no code."""
        begin = self.text.rfind("\n", 0, self.tokens[index].begin) + 1
        line = self.text[begin:self.text.find("\n", begin)]
        return "static_assert" in line or line.lstrip().startswith(("template", "using ", "extern"))

    def mutations(self, chance):
        """All of this source, each place once for each kind; chance picks where there are several."""
        found = []
        found += self._operators()
        found += self._constants(chance)
        found += self._of_statements(chance)
        found += self._of_logs(chance)
        found += self._conditions()
        return found

    def _operators(self):
        found = []
        for index, token in enumerate(self.tokens):
            if token.kind != "sign" or not self.in_function[index] or index in self.in_log or self._is_shared(index):
                continue
            spaced = self.text[token.begin - 1] in " \n" and self.text[token.end:token.end + 1] in (" ", "\n")
            if token.text == "!" and self.tokens[index + 1].text != "=":
                found.append(self._of_token("operator", index, ""))
            elif token.text in OPERATORS and (spaced or token.text in ("++", "--")):
                before = self._text(index - 1)
                if before in ("template", "operator", "(", ",", "=", "return") and token.text not in ("++", "--"):
                    continue
                found.append(self._of_token("operator", index, OPERATORS[token.text][0]))
        return found

    def _constants(self, chance):
        found = []
        for index, token in enumerate(self.tokens):
            if self._is_shared(index) or index in self.in_log:
                continue
            if token.kind == "number":
                found.append(self._of_token("constant", index, other_number(token.text, chance)))
            elif token.kind == "char":
                found.append(self._of_token("constant", index, "'x'" if token.text != "'x'" else "'y'"))
            elif token.kind == "string" and token.text[0] == '"':
                inner = token.text[1:-1]
                if not inner:
                    changed = "x"
                elif inner[0] not in "\\{":
                    changed = ("x" if inner[0] != "x" else "y") + inner[1:]
                else:
                    changed = inner + "x"
                found.append(self._of_token("constant", index, '"' + changed + '"'))
            elif token.text in ("true", "false") and self._text(index - 1) != "return":
                found.append(self._of_token("constant", index, "false" if token.text == "true" else "true"))
        return found

    def _of_statements(self, chance):
        found = []
        plain = None  # the statement before, when it can change places
        for first, last, controlled, block in self.statements:
            begin, end = self.tokens[first].begin, self.tokens[last].end
            word = self._text(first)
            if word == "return":
                plain = None
                if last > first + 1:
                    found.append(self._make("return value", self.tokens[first + 1].begin, self.tokens[last].begin,
                                            self._other_result(first + 1, last - 1, chance)))
                if controlled or last == first + 1:
                    found.append(self._make("deleted line", begin, end, ";"))
                continue
            if word in ("break", "continue"):
                plain = None
                found.append(self._make("deleted line", begin, end, ";"))
                continue
            if self._is_declaration(first, last):
                plain = None
                continue
            is_call = self._text(last - 1) == ")" and not self._assigns(first, last)
            found.append(self._make("deleted call" if is_call else "deleted line", begin, end, ";"))
            if plain and not controlled and plain[2] == block and plain[1] + 1 == first:
                one, two = self._span(plain[0], plain[1]), self._span(first, last)
                if one != two:
                    between = self.text[self.tokens[plain[1]].end:begin]
                    found.append(self._make("swapped statements", self.tokens[plain[0]].begin, end, two + between + one))
            plain = None if controlled else (first, last, block)
        return found

    def _assigns(self, first, last):
        index = first
        while index < last:
            text = self._text(index)
            if text in CLOSING and index in self.partner:
                index = self.partner[index]
            elif text in ("=", "+=", "-=", "|=", "&=", "^=", "*=", "/=", "%=", "<<=", ">>="):
                return True
            index += 1
        return False

    def _other_result(self, first, last, chance):
        whole = self._span(first, last)
        if whole in ("true", "false"):
            return "false" if whole == "true" else "true"
        if whole == "nullptr" or whole == "{}":
            return "{1}"
        if first == last and self.tokens[first].kind == "number":
            return other_number(whole, chance)
        if re.fullmatch(r"-\s*\d+", whole):
            return chance.choice(["0", "1"])
        if re.fullmatch(r"(\w+::)*k?[A-Z]\w*(::\w+)?|(\w+::)*\w+::\w+", whole) and "(" not in whole:
            return "static_cast<decltype(%s)>(static_cast<int>(%s) + 1)" % (whole, whole)
        if re.search(r" (==|!=|<|>|<=|>=|&&|\|\|) |^!", whole):
            return "!(%s)" % whole
        return chance.choice(["{}", "!(%s)" % whole, "{}"])

    def _of_logs(self, chance):
        found = []
        for index, start in self.in_log.items():
            token = self.tokens[index]
            if token.text in LEVELS:
                others = [level for level in LEVELS if level != token.text]
                found.append(self._of_token("log level", index, chance.choice(others)))
            elif token.kind == "string" and token.text[0] == '"':
                found.append(self._of_token("log text", index, other_text(token.text, chance)))
        return found

    def _conditions(self):
        found = []
        for index, token in enumerate(self.tokens):
            if token.text not in ("if", "while") or self._text(index + 1) != "(" or index + 1 not in self.partner:
                continue
            last = self.partner[index + 1] - 1
            first = index + 2
            for inner in range(first, last):
                if self._text(inner) == ";" and not any(
                        self._text(other) == "{" and other < inner < self.partner.get(other, 0)
                        for other in range(first, inner)):
                    first = inner + 1
            if self._assigns(first, last + 1):
                continue
            found.append(self._make("condition negated", self.tokens[first].begin, self.tokens[last].end,
                                    "!(%s)" % self._span(first, last)))
        return found


def other_number(text, chance):
    if re.fullmatch(r"[0-9']+", text):
        value = int(text.replace("'", ""))
        if value == 0:
            return "1"
        return str(chance.choice([value + 1, value - 1]))
    match = re.fullmatch(r"(0[xX])?([0-9a-fA-F']+)([uUlLzZ]*)", text)
    if match and match.group(1):
        return hex(int(match.group(2).replace("'", ""), 16) ^ 1) + match.group(3)
    if match and text[0] != "0":
        return str(int(match.group(2).replace("'", "")) + 1) + match.group(3)
    return text + " + 1"


def other_text(text, chance):
    """The same text of a line of the log with one letter more, at its begin, in its middle or at its end."""
    places = [1]
    depth = 0
    for at in range(1, len(text) - 1):
        depth += {"{": 1, "}": -1}.get(text[at], 0)
        if depth == 0 and text[at] not in "{}" and text[at - 1] != "\\":
            places.append(at + 1 if text[at] != "\\" else at)
    place = chance.choice([places[0], places[len(places) // 2], places[-1]])
    return text[:place] + "x" + text[place:]


def all_mutations(files, seed):
    """Of files (path and text), by kind."""
    by_kind = {kind: [] for kind in KINDS}
    for path, text in files:
        # Of one source always the same, whatever else there is.
        for mutation in Source(path, text).mutations(random.Random("%s %s" % (seed, path))):
            by_kind[mutation.kind].append(mutation)
    return by_kind


def pick(by_kind, count, seed):
    """As many of each kind as there are to be had, at random but for the seed."""
    chance = random.Random(seed)
    queues = []
    for kind in KINDS:
        queue = list(by_kind[kind])
        chance.shuffle(queue)
        queues.append(queue)
    picked = []
    while len(picked) < count and any(queues):
        for queue in queues:
            if queue and len(picked) < count:
                picked.append(queue.pop())
    return picked


def apply(mutation, text):
    return text[:mutation.begin] + mutation.replacement + text[mutation.end:]


def change_of(mutation, text):
    """What is changed, whatever its line: the lines before and after, each in one piece."""
    begin = text.rfind("\n", 0, mutation.begin) + 1
    end = text.find("\n", mutation.end)
    end = len(text) if end < 0 else end
    before = text[begin:end]
    after = text[begin:mutation.begin] + mutation.replacement + text[mutation.end:end]
    return " ".join(before.split()), " ".join(after.split())
