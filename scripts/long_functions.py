#!/usr/bin/env python3
"""Lists the functions longer than a bound (80 lines unless given) and the files
longer than another (400), in the given folders (default: the libraries).

    scripts/long_functions.py [--lines N] [--file-lines M] [DIR...]

A function is a brace block whose head holds a parameter list and that is not
inside another function; lambdas and local classes count into the function
that holds them. Comments, strings and character literals are skipped. Prints
"LINES path:first-line name" per function, "LINES path" per file; exits 1 when
it printed anything."""
import os
import re
import sys

CONTROL = re.compile(r"^(if|for|while|switch|catch|do|else|return|try)\b")
NOT_FUNCTION = re.compile(r"\b(class|struct|namespace|enum|union)\b")


def strip(text):
    """Blanks comments, strings and characters, keeping line breaks."""
    out = []
    i, n = 0, len(text)
    while i < n:
        c = text[i]
        if text.startswith("//", i):
            j = text.find("\n", i)
            j = n if j < 0 else j
            out.append(" " * (j - i))
            i = j
        elif text.startswith("/*", i):
            j = text.find("*/", i + 2)
            j = n if j < 0 else j + 2
            out.append(re.sub(r"[^\n]", " ", text[i:j]))
            i = j
        elif text.startswith('R"', i) and (i == 0 or not (text[i - 1].isalnum() or text[i - 1] == "_")):
            m = re.match(r'R"([^(]*)\(', text[i:])
            end = text.find(")" + m.group(1) + '"', i) if m else -1
            j = n if end < 0 else end + len(m.group(1)) + 2
            out.append(re.sub(r"[^\n]", " ", text[i:j]))
            i = j
        elif c in "\"'":
            j = i + 1
            while j < n and text[j] != c and text[j] != "\n":
                j += 2 if text[j] == "\\" else 1
            j = min(j + 1, n)
            out.append(c + " " * (j - i - 2) + c if j - i >= 2 else text[i:j])
            i = j
        else:
            out.append(c)
            i += 1
    return "".join(out)


def functions(path):
    text = strip(open(path, encoding="utf-8", errors="replace").read())
    found = []
    depth = 0
    head_start = 0  # index where the current statement's head begins
    inside = None   # (depth at open, first line, name) of the function we are in
    for i, c in enumerate(text):
        if c == "{":
            head = text[head_start:i].strip()
            if inside is None and "(" in head and not CONTROL.match(head) and not NOT_FUNCTION.search(
                    head.split("(")[0]) and not head.endswith("=") and "=" not in head.split("(")[0]:
                name = re.findall(r"([~A-Za-z_][A-Za-z0-9_:~<>]*)\s*\(", head)
                first = text.count("\n", 0, i) + 1
                inside = (depth, first - head.count("\n"), name[0] if name else "?")
            depth += 1
            head_start = i + 1
        elif c == "}":
            depth -= 1
            if inside is not None and depth == inside[0]:
                last = text.count("\n", 0, i) + 1
                found.append((last - inside[1] + 1, inside[1], inside[2]))
                inside = None
            head_start = i + 1
        elif c == ";":
            head_start = i + 1
        elif c == ":" and inside is None and text[i - 1:i + 1] != "::" and text[i:i + 2] != "::":
            # access specifiers and the like end a head; an initialiser list
            # keeps the parameter list before it
            head = text[head_start:i].strip()
            if head in ("public", "private", "protected") or head.startswith("case "):
                head_start = i + 1
    return found


def main(argv):
    bound, file_bound, dirs = 80, 400, []
    it = iter(argv)
    for a in it:
        if a == "--lines":
            bound = int(next(it))
        elif a == "--file-lines":
            file_bound = int(next(it))
        else:
            dirs.append(a)
    dirs = dirs or ["dct", "include", "sqlitedb", "catalog_shadow", "appdb"]
    printed = False
    for d in dirs:
        for root, _, names in sorted(os.walk(d)):
            for name in sorted(names):
                if not name.endswith((".cpp", ".h")):
                    continue
                path = os.path.join(root, name)
                with open(path, encoding="utf-8", errors="replace") as f:
                    lines = sum(1 for _ in f)
                if lines > file_bound:
                    print("%d %s" % (lines, path))
                    printed = True
                for length, first, fname in functions(path):
                    if length > bound:
                        print("%d %s:%d %s" % (length, path, first, fname))
                        printed = True
    return 1 if printed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
