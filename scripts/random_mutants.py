"""Small changes at random places of the sources, of the kinds that people make by mistake."""

import random
import re

FOLDERS = ("shim", "core/model", "core/fan", "core/hardware", "core/power", "core/control",
           "core/analysis", "helper")

# No code: comments, texts, preprocessor lines, and what only Apple's compiler sees.
NO_CODE = re.compile(
    r'^[ \t]*#[ \t]*if[^\n]*__APPLE__.*?^[ \t]*#[ \t]*(?:else|endif)|^[ \t]*#(?:[^\n]*\\\n)*[^\n]*'
    r'|//[^\n]*|/\*.*?\*/|R"(\w*)\(.*?\)\1"|"(?:\\.|[^"\\\n])*"|(?<!\w)\'(?:\\.|[^\'\\\n])+\'',
    re.S | re.M)
# Nothing there runs.
DECLARATION = re.compile(r"\b(?:virtual|static_assert|template|friend|using)\b")

LARGE = 100
NEGATED = {"==": "!=", "!=": "==", "<": ">=", ">=": "<", ">": "<=", "<=": ">"}
SHIFTED = {"<": "<=", "<=": "<", ">": ">=", ">=": ">"}
INVERTED = {"+": "-", "-": "+", "*": "/", "/": "*", "+=": "-=", "-=": "+=", "++": "--", "--": "++"}


def counted(literal, dice):
    digits, suffix = re.fullmatch(r"(0[xX][\da-fA-F']+|[\d']+(?:\.\d+)?)(\w*)", literal).groups()
    digits = digits.replace("'", "")
    value = float(digits) if "." in digits else int(digits, 16 if digits[1:2] in ("x", "X") else 10)
    if value >= LARGE:  # mostly a patience; nobody notices a second more in a day
        return f"{value * 2}{suffix}"
    return f"{value + (1 if value < 1 else dice.choice((1, -1)))}{suffix}"


# Kind, what it finds, what then stands there.
RULES = [(kind, re.compile(pattern, re.M), change) for kind, pattern, change in (
    ("comparison", r"(?<= )(?:[=!<>]=|[<>])(?= )", lambda old, dice: NEGATED[old]),
    ("boundary", r"(?<= )[<>]=?(?= )", lambda old, dice: SHIFTED[old]),
    ("condition", r"(?<= )(?:&&|\|\|)(?= )", lambda old, dice: "&&" if old == "||" else "||"),
    ("condition", r"(?<![\w=])!(?=[\w(*])", lambda old, dice: ""),
    ("condition", r"\b(?:true|false)\b", lambda old, dice: "false" if old == "true" else "true"),
    ("condition", r"\b(?:if|while) \(", None),
    ("sign", r"(?<= )(?:[-+*/]|[-+]=)(?= )|\+\+|--", lambda old, dice: INVERTED[old]),
    ("sign", r"(?<=[(,=?:\[n] |.[(\[{])-(?=[\w(])", lambda old, dice: ""),
    ("constant", r"(?<![\w.'])(?:0[xX][\da-fA-F']+|\d[\d']*(?:\.\d+)?)[uUlLfF]*(?![\w.'>])", counted),
    ("statement", r"(?<=[;{}]\n)[ \t]+((?:throw|break|continue)\b|\+\+|--"
                  r"|\*?[\w:.]+(?:->|\(|\[| [-+*/|&^]?= ))[^;{}]*;", lambda old, dice: ";"),
)]


def condition_end(code, start):
    """Behind the parenthesis that closes the one before start."""
    depth = 1
    while depth:
        depth += {"(": 1, ")": -1}.get(code[start], 0)
        start += 1
    return start


def places(text, is_header):
    """Every (kind, start, end, change) by line; text[start:end] is what changes."""
    code = NO_CODE.sub(lambda match: re.sub(r"[^\n]", " ", match[0]), text)
    lines = {}
    for kind, pattern, change in RULES:
        if kind == "statement" and is_header:
            continue
        for match in pattern.finditer(code):
            start, end = match.span(1 if kind == "statement" else 0)
            line = code.count("\n", 0, start)
            if DECLARATION.search(code[code.rfind("\n", 0, start) + 1:code.find("\n", start)]):
                continue
            end = condition_end(code, end) if change is None else match.end()
            lines.setdefault(line, []).append((kind, start, end, change))
    return lines


def folder_of(number):
    return FOLDERS[number % len(FOLDERS)]


def draw(files, number, seed):
    """Endless changes (kind, file, start, end, new text) in one of the folders, each in turn by
    number. files: every path of the sources that a test build compiles, with its text."""
    dice = random.Random(f"{seed} {number}")
    folder = folder_of(number)
    found = [(path, line) for path, text in sorted(files.items()) if path.startswith(folder + "/")
             for _, line in sorted(places(text, path.endswith(".h")).items())]
    while True:
        path, line = dice.choice(found)
        kind, start, end, change = dice.choice(line)
        old = files[path][start:end]
        new = change(old, dice) if change else re.sub(r"\((.*)\)$", r"(!(\1))", old, flags=re.S)
        yield kind, path, start, end, new
