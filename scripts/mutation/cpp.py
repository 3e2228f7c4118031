"""C++ read as tokens, with what a mutation needs to know about each of them: the brackets, the
template arguments, the bodies of functions and the places that must stay constant."""

import re
from dataclasses import dataclass

# Lexing --------------------------------------------------------------------------------------

TOKEN = re.compile(r"""
   (?P<space>[ \t\r\f\v]+|\n)
  |(?P<comment>//[^\n]*|/\*.*?\*/)
  |(?P<raw>(?:u8|[uUL])?R"(?P<delimiter>[^()\\\s]{0,16})\(.*?\)(?P=delimiter)")
  |(?P<string>(?:u8|[uUL])?"(?:\\.|[^"\\\n])*")
  |(?P<char>(?:u8|[uUL])?'(?:\\.|[^'\\\n])*')
  |(?P<number>\.?\d(?:[eEpP][+-]|[\w.'])*)
  |(?P<ident>[A-Za-z_]\w*)
  |(?P<punct>>>=|<<=|<=>|\.\.\.|->\*|::|->|\+\+|--|<<|>>|<=|>=|==|!=|&&|\|\||[-+*/%&|^]=
            |[][(){};:,.?~!%^&*+\-/<>=|\#])
""", re.X | re.S)
DIRECTIVE = re.compile(r"#(?:\\\n|[^\n])*")  # a preprocessor line, continuations included


@dataclass
class Token:
    kind: str  # ident, number, string, char, raw, punct, directive
    text: str
    start: int
    end: int
    line: int


def tokenize(text):
    """The tokens of `text`, blanks and comments left out; a preprocessor line is one token."""
    tokens, pos, line, line_start = [], 0, 1, True
    while pos < len(text):
        if line_start and text[pos] == "#":
            match, kind = DIRECTIVE.match(text, pos), "directive"
        else:
            match = TOKEN.match(text, pos)
            if not match:
                raise SyntaxError(f"line {line}: cannot read {text[pos:pos + 20]!r}")
            kind = match.lastgroup
        piece = match.group()
        if kind not in ("space", "comment"):
            tokens.append(Token(kind, piece, pos, match.end(), line))
        if piece == "\n":
            line_start = True
        elif kind != "space" and not piece.startswith("/*"):
            line_start = False  # a directive's # comes first on its line, bar blanks and /* */
        line += piece.count("\n")
        pos = match.end()
    return tokens


# Reading the structure -----------------------------------------------------------------------

# Binary operators by C++ precedence (a smaller number binds tighter).
PRECEDENCE = {"*": 5, "/": 5, "%": 5, "+": 6, "-": 6, "<<": 7, ">>": 7, "<=>": 8, "<": 9, ">": 9,
              "<=": 9, ">=": 9, "==": 10, "!=": 10, "&": 11, "^": 12, "|": 13, "&&": 14, "||": 15}
# Tokens that end an operand whichever side it is on: the conditional and assignments.
ENDS_OPERAND = {"?", ":", "=", "+=", "-=", "*=", "/=", "%=", "&=", "|=", "^=", "<<=", ">>=", ";",
                ","}
# Keywords that are (part of) an operand; any other keyword ends one.
OPERAND_KEYWORDS = {"this", "true", "false", "nullptr", "sizeof", "alignof", "new", "delete",
                    "static_cast", "dynamic_cast", "reinterpret_cast", "const_cast", "typeid",
                    "noexcept", "decltype", "bool", "char", "int", "long", "short", "signed",
                    "unsigned", "float", "double", "void", "operator"}
KEYWORDS = OPERAND_KEYWORDS | {
    "alignas", "asm", "auto", "break", "case", "catch", "class", "co_await", "co_return",
    "co_yield", "concept", "const", "consteval", "constexpr", "constinit", "continue", "default",
    "do", "else", "enum", "explicit", "export", "extern", "for", "friend", "goto", "if", "inline",
    "mutable", "namespace", "private", "protected", "public", "register", "requires", "return",
    "static", "static_assert", "struct", "switch", "template", "thread_local", "throw", "try",
    "typedef", "typename", "union", "using", "virtual", "volatile", "while"}
CASTS = {"static_cast", "dynamic_cast", "reinterpret_cast", "const_cast"}
# A statement holding one of these needs constant expressions, or is no place for a schema.
CONSTANT_STATEMENT = {"constexpr", "consteval", "constinit", "static_assert", "template",
                      "typedef", "using", "goto", "asm", "enum", "co_await", "co_yield",
                      "co_return"}
# Their parenthesised operand is never evaluated, or must be constant.
UNEVALUATED = {"sizeof", "alignof", "decltype", "noexcept", "alignas", "requires", "typeid"}
TYPE_KEYWORDS = {"auto", "bool", "char", "const", "double", "float", "int", "long", "short",
                 "signed", "unsigned", "void"}
# Tokens after which a `<...>` is taken for template arguments.
AFTER_TEMPLATE_ARGUMENTS = {"(", ")", "::", "{", "}", ",", ";", ">", ">>", "&", "&&", "*", "...",
                            "[", "]", "=", ":"}


def is_type_word(token):
    return token.kind == "ident" and (token.text not in KEYWORDS or token.text in TYPE_KEYWORDS)


@dataclass
class Function:
    returns: str  # "void", "bool" or "" for anything else
    open: int  # the token of its body's `{`
    close: int


class Source:
    """A C++ file as tokens, with what a mutation needs to know about each of them."""

    def __init__(self, path, text):
        self.path, self.text = path, text
        self.tokens = tokenize(text)
        n = len(self.tokens)
        self.match = [None] * n  # bracket pairs; a template's `<` to its `>`
        self.angle_open = {}  # a template's `>` (or `>>`) to its outermost `<`
        self.enclosing = [None] * n  # the innermost bracket around each token
        self.angle = set()  # `<`, `>` and `>>` tokens of template arguments
        self.fixed = [False] * n  # tokens where a schema cannot go
        self.functions = []
        self._match_brackets()
        self._match_angles()
        self._find_functions(0, n)
        for function in self.functions:
            self._mark_fixed(function.open + 1, function.close)

    def is_operand_end(self, i):
        t = self.tokens[i]
        if t.kind == "ident":
            return t.text not in KEYWORDS or t.text in ("this", "true", "false", "nullptr")
        return t.kind in ("number", "string", "char", "raw") or t.text in (")", "]") or (
            i in self.angle and t.text != "<")

    def _match_brackets(self):
        stack = []
        for i, t in enumerate(self.tokens):
            if stack:
                self.enclosing[i] = stack[-1]
            if t.text in ("(", "[", "{"):
                stack.append(i)
            elif t.text in (")", "]", "}") and stack:
                self.match[i], self.match[stack[-1]] = stack[-1], i
                stack.pop()

    def _match_angles(self):
        tokens = self.tokens
        for i, t in enumerate(tokens):
            if t.text != "<" or i == 0 or i in self.angle:
                continue
            before = tokens[i - 1]
            if before.text not in CASTS | {"template"} and (
                    before.kind != "ident" or before.text in KEYWORDS):
                continue
            opened, j, counted = [i], i + 1, []
            while j < len(tokens) and opened:
                text = tokens[j].text
                if text in ("(", "[") and self.match[j]:
                    j = self.match[j]
                elif text in (";", "{", "}", ")", "]", "&&", "||", "?"):
                    break
                elif text == "<" and tokens[j - 1].kind == "ident":
                    opened.append(j)
                elif text in (">", ">>"):
                    closes = 2 if text == ">>" else 1
                    if closes > len(opened):
                        break
                    counted.append((opened[-closes:], j))
                    del opened[-closes:]
                j += 1
            follower = tokens[j].text if j < len(tokens) else ";"
            if opened or not (follower in AFTER_TEMPLATE_ARGUMENTS or tokens[j].kind == "ident"):
                continue
            for opens, close in counted:
                self.angle.update(opens + [close])
                self.angle_open[close] = opens[0]
                for o in opens:
                    self.match[o] = close
            self.angle.add(i)
            for k in range(i, j):
                self.fixed[k] = True  # template arguments must be constant

    def _find_functions(self, begin, end):
        """Walks the declarations of a namespace or class, finding the bodies of functions."""
        declaration = begin
        i = begin
        while i < end:
            text = self.tokens[i].text
            if text in (";", "}"):
                declaration = i + 1
            elif text in ("(", "[") and self.match[i]:
                i = self.match[i]
            elif text == "{" and self.match[i]:
                close = self.match[i]
                kind = self._brace_kind(declaration, i)
                if kind == "scope":
                    self._find_functions(i + 1, close)
                elif kind == "function":
                    self.functions.append(Function(self._return_type(declaration, i), i, close))
                if kind != "member":
                    declaration = close + 1
                i = close
            i += 1

    def _brace_kind(self, begin, brace):
        words = [t.text for t in self.tokens[begin:brace]]
        if "namespace" in words or (words[:1] == ["extern"] and len(words) == 2):
            return "scope"
        if any(w in ("class", "struct", "union") for w in words) and "(" not in words:
            return "scope"
        if "enum" in words or self._top_level_assignment(begin, brace) or "(" not in words:
            return "data"
        before = self.tokens[brace - 1]
        if before.kind == "ident" and self.tokens[brace - 2].text in (",", ":"):
            return "member"  # a member initialised with braces in a constructor's list
        if "constexpr" in words or "consteval" in words:
            return "data"  # a constant context: nothing there may be mutated
        return "function"

    def _top_level_assignment(self, begin, end):
        i = begin
        while i < end:
            t = self.tokens[i]
            if t.text in ("(", "[", "{") and self.match[i]:
                i = self.match[i]
            elif t.text == "=" and self.tokens[i - 1].text != "operator":
                return True
            i += 1
        return False

    def _return_type(self, begin, brace):
        words = []
        i = begin
        while i < brace and self.tokens[i].text != "(":
            t = self.tokens[i]
            if t.text == "template" and i + 1 < brace and self.tokens[i + 1].text == "<":
                i = self.match[i + 1] or i + 1
            elif t.text == "[" and self.match[i]:
                words.append("[[" if self.tokens[i + 1].text == "[" else "[")
                words += [x.text for x in self.tokens[i + 1:self.match[i]]]
                i = self.match[i]
            else:
                words.append(t.text)
            i += 1
        if "noreturn" in words or len(words) < 2:
            return ""
        names = words[:-1]  # the function's own name goes
        while len(names) >= 2 and names[-1] == "::":
            names = names[:-2]  # and so do its class's
        names = [w for w in names if w not in ("static", "inline", "virtual", "friend")]
        return names[0] if names in (["void"], ["bool"]) else ""

    def _mark_fixed(self, begin, end):
        """Marks the tokens of a function body where a schema cannot go."""
        tokens = self.tokens
        statement = begin
        for i in range(begin, end + 1):
            text = tokens[i].text
            if text in (";", "{", "}") or i == end:
                if any(t.text in CONSTANT_STATEMENT for t in tokens[statement:i]):
                    for k in range(statement, i):
                        self.fixed[k] = True
                statement = i + 1
            elif text in UNEVALUATED and i + 1 < end and tokens[i + 1].text == "(":
                for k in range(i, (self.match[i + 1] or i + 1) + 1):
                    self.fixed[k] = True
            elif text == "case":
                k = i
                while k < end and tokens[k].text != ":":
                    self.fixed[k] = True
                    k += 1
            elif text == "[" and i >= 2 and tokens[i - 1].kind == "ident" and (
                    is_type_word(tokens[i - 2]) or tokens[i - 2].text in (">", "*", "&")):
                for k in range(i, (self.match[i] or i) + 1):
                    self.fixed[k] = True  # an array's bound in its declaration
            elif tokens[i].kind in ("directive", "raw"):
                self.fixed[i] = True

    # Operands, scanned as C++ precedence binds them

    def is_binary(self, i):
        return i > 0 and self.is_operand_end(i - 1)

    def left_operand(self, op):
        """The first token of the left operand of the binary operator at `op`, or None."""
        level, i = PRECEDENCE[self.tokens[op].text], op - 1
        while i >= 0:
            t = self.tokens[i]
            if t.text in (")", "]", "}") or (i in self.angle and t.text != "<"):
                if self.match[i] is None and i not in self.angle_open:
                    return None
                i = (self.match[i] if t.text in (")", "]", "}") else self.angle_open[i]) - 1
                continue
            if t.text in ("(", "[", "{") or t.text in ENDS_OPERAND or i in self.angle:
                break
            if t.kind == "ident" and t.text in KEYWORDS and t.text not in OPERAND_KEYWORDS:
                break
            if t.kind == "directive":
                return None
            if t.text in PRECEDENCE and self.is_binary(i) and PRECEDENCE[t.text] > level:
                break
            i -= 1
        return i + 1 if i + 1 < op else None

    def right_operand(self, op):
        """The last token of the right operand of the binary operator at `op`, or None."""
        level, i, n = PRECEDENCE[self.tokens[op].text], op + 1, len(self.tokens)
        while i < n:
            t = self.tokens[i]
            if t.text in ("(", "[", "{") or (i in self.angle and t.text == "<"):
                if self.match[i] is None:
                    return None
                i = self.match[i] + 1
                continue
            if t.text in (")", "]", "}") or t.text in ENDS_OPERAND or i in self.angle:
                break
            if t.kind == "ident" and t.text in KEYWORDS and t.text not in OPERAND_KEYWORDS:
                break
            if t.kind == "directive":
                return None
            if t.text in PRECEDENCE and self.is_binary(i) and PRECEDENCE[t.text] >= level:
                break
            i += 1
        return i - 1 if i - 1 > op else None
