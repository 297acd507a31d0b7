#!/usr/bin/env python3
"""Fails when docs/messages.zh.md does not explain exactly the texts that the sources can show.

A text of the document stands between backquotes, with 〈…〉 where something is put in; what is between
two of these is one string of the sources. Files that hold names and no messages are listed in the
document itself, by their paths.
"""

import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parents[1]
DOCUMENT = ROOT / "docs/messages.zh.md"
FOLDERS = ("shim", "core", "helper")

HAN = re.compile("[\u4e00-\u9fff]")
# A comment, a raw string, a string, a character that is no digit separator; longest first.
TOKEN = re.compile(r"""//[^\n]*|/\*.*?\*/|R"(\w*)\((?P<raw>.*?)\)\1"|"(?P<text>(?:\\.|[^"\\\n])*)\""""
                   r"""|(?<!\w)'(?:\\.|[^'\\\n])*'""", re.S)


def strings_of(source: str):
    """The string literals, neighbours joined as the compiler joins them."""
    joined, end = None, 0
    for token in TOKEN.finditer(source):
        text = token["raw"] if token["text"] is None else token["text"].replace("\\n", "\n")
        if source[end:token.start()].strip():
            yield joined
            joined = None
        end = token.end()
        if text is not None:
            joined = (joined or "") + text
    yield joined


def messages(texts):
    return {text.strip() for text in texts if text and HAN.search(text)}


def main() -> int:
    document = DOCUMENT.read_text(encoding="utf-8")
    quoted = re.findall("`([^`]+)`", document)
    names = {text for text in quoted if (ROOT / text).is_file()}
    explained = messages(part for text in quoted for part in re.split("〈[^〉]*〉", text))
    spoken, faults = {}, []
    for path in sorted(file for folder in FOLDERS for file in (ROOT / folder).rglob("*")):
        if path.suffix in (".cpp", ".h"):
            place = str(path.relative_to(ROOT))
            found = messages(strings_of(path.read_text(encoding="utf-8")))
            if place not in names:
                spoken.update((text, place) for text in found)
            elif not found:
                faults.append(f"{place} holds no names")
    faults += [f"{spoken[text]}: not explained: {text}" for text in sorted(spoken.keys() - explained)]
    faults += [f"nowhere in the sources: {text}" for text in sorted(explained - spoken.keys())]
    rows = [row.strip("| ").split("|") for row in document.splitlines() if row.startswith("| `")]
    faults += [f"cause or remedy is missing: {row[0]}" for row in rows
               if len(row) != 3 or not all(cell.strip() for cell in row)]
    print("\n".join(faults) or f"{len(spoken)} texts are explained.")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
