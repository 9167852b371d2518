"""The small faults that can be planted into a source file: where, and what stands there instead.

It works on the text, in the layout that clang-format gives it: blanks around binary operators, a statement
on lines of its own. What is logged is no target: the tests hold a few of the lines, and no more is wanted.
"""
import re

PAIRS = "== != < <= > >= && || + - * / & | << >> += -= |= &= ++ -- true false".split()
SWAPS = dict(zip(PAIRS[::2], PAIRS[1::2])) | dict(zip(PAIRS[1::2], PAIRS[::2])) | {"%": "/", "^": "|", "^=": "|="}
CONDITION = re.compile(r"\b(?:if|while) \(")
CHANGED_WHOLE = re.compile(r"!\w[^&|]*|(?:(?!&&|\|\|)[^=])*(?:==|!=)(?:(?!&&|\|\|)[^=])*")  # by one of the others
# What stands before one that can be left out. Behind a call with a comment none is found: one fault more would
# change which ones a seed stands for.
STATEMENT = re.compile(
    r"(?:(?:[{}]|(?<!\));|\);(?! ))\s*|(?:[):]|\belse)\s*\n\s*)"
    r"(?!(?:if|while|for|switch|static_assert|return \w|do|using)\b)"
    r"(?=[\w*(][\w:.>*\[\]()-]+(?:\(| [-+|&^]?= )|[-+]{2}|\w+[-+]{2};|(?:return|break|continue);)")
# Comments, directives, texts and what is logged, as blanks.
HIDDEN = re.compile(r'//[^\n]*|#[^\n]*|"(?:\\.|[^"\\])*"|\'(?:\\.|[^\'\\])\'|\bstatic_assert\((?:[^;])*;')
LOGGED = re.compile(r"\blog_(?:error|warning|info|debug|text)\([^;]*;")


def numbers_beside(match):
    value = int(match.group().replace("'", ""), 0)
    return [str(value + 1)] + [str(value - 1)] * (value > 1)


# What is found, and all that may stand there instead: operators, numbers, negations, arguments.
SIMPLE = (
    (r"(?<=\s)[-=!<>&|+*/%^]{1,2}(?=\s)|\+\+|--|\btrue\b|\bfalse\b",
     lambda match: [SWAPS[match[0]]] if match[0] in SWAPS else []),
    (r"(?<![\w.'])(0x[\dA-F]+|\d[\d']*)(?![\w.'])", numbers_beside),
    (r"(?<![\w)])!(?=[\w(])", lambda match: [""]),
    (r"(?<=[\w>])\((\w+), (\w+)(?=[,)])", lambda match: [f"({match[2]}, {match[1]}"] * (match[1] != match[2])))


class Fault:
    def __init__(self, name, text, start, end, instead):
        self.name, self.start, self.end, self.instead = name, start, end, instead
        self.line = text.count("\n", 0, start) + 1
        first, last = text.rfind("\n", 0, start) + 1, text.find("\n", end)
        self.before = " ".join(text[first:last].split())
        self.after = " ".join((text[first:start] + instead + text[end:last]).split())
        heads = re.findall(r"^(?!namespace|static|constexpr |struct |using )\w[^\n;=]*?(\w+)\(", text[:end], re.M)
        self.place = f"{name} {heads[-1] if heads else '-'}"

    def key(self):  # holds when lines above it change
        return f"{self.place}\n- {self.before}\n+ {self.after}"

    def planted(self, text):
        # The lines below keep their numbers.
        lost = text.count("\n", self.start, self.end) - self.instead.count("\n")
        return text[: self.start] + self.instead + "\n" * lost + text[self.end :]


def end_of(text, at, last):
    """Where the `last` is that stands outside all brackets opened from `at` on; None: those around close before."""
    depth = 0
    for i in range(at, len(text)):
        depth += (text[i] in "([{") - (text[i] in ")]}")
        if depth <= 0 and text[i] == last:
            return i
        if depth < 0:
            return None


def faults_of(name, text):
    """All faults of a file, in its order."""
    code, found = text, []
    for pattern in HIDDEN, LOGGED:
        code = pattern.sub(lambda match: re.sub(".", " ", match[0]), code)

    def add(start, end, instead):
        found.append(Fault(name, text, start, end, instead))

    for pattern, insteads in SIMPLE:
        for match in re.finditer(pattern, code):
            for instead in insteads(match):
                add(*match.span(), instead)
    for match in CONDITION.finditer(code):
        end = end_of(code, match.end() - 1, ")")
        start = max(match.end(), code.rfind("; ", match.end(), end) + 2)
        if not CHANGED_WHOLE.fullmatch(code, start, end):
            add(start, end, f"!({text[start:end]})")
    for match in STATEMENT.finditer(code):
        if end := end_of(code, match.end(), ";"):  # otherwise an expression inside something
            add(match.end(), end + 1, ";")
    seen = {}
    found.sort(key=lambda f: (f.start, f.end, f.instead))
    for fault in found:
        seen[fault.key()] = nth = seen.get(fault.key(), 0) + 1
        if nth > 1:  # the same line once more in the same function
            fault.place += f" {nth}"
    return found
