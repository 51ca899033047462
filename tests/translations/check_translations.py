"""Fails when a text the user sees or hears is not ready for translation:

1. lupdate run over the source into a copy of each translations/plinkora_LANG.ts finds a text
   that file does not translate yet (new, or changed in the source), or one it no longer needs;
   a translation whose %1, %2, ... differ from its source text's also fails.
2. A string literal handed straight to a call that shows or speaks text (setText,
   setWindowTitle, addAction, announce, speak, ...) bypasses tr() and is reported.

Usage: check_translations.py --lupdate PATH --source-dir DIR --folders "app;ui;..."
"""

import argparse
import glob
import os
import re
import shutil
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as ET

# Calls whose text argument is shown or spoken.
SHOWING_CALLS = [
    "setText", "setWindowTitle", "setToolTip", "setStatusTip", "setWhatsThis", "setPlaceholderText",
    "setAccessibleName", "setAccessibleDescription", "addAction", "addMenu", "showMessage",
    "announce", "announce_", "speak", "postAnnouncement", "speakWithoutScreenReader",
    "makeLabel", "QLabel", "QPushButton", "QCheckBox", "QGroupBox", "SettingsGroup", "QAction", "QMenu",
    "getOpenFileName",
]
LITERAL = r'(?:QStringLiteral|QLatin1String|QString::fromLatin1|QString::fromUtf8|QString)?\(?\s*"((?:[^"\\]|\\.)*)"'
CALL = re.compile(r"\b(?:new\s+)?(" + "|".join(re.escape(c) for c in SHOWING_CALLS) + r")\s*\(\s*(?:[^(),]*,\s*)?" + LITERAL)
PLACEHOLDER = re.compile(r"%\d")


# The folders whose texts reach the user (--folders).
FOLDERS = []


def sources(root):
    files = []
    for folder in FOLDERS:
        for pattern in ("*.cpp", "*.h"):
            files += glob.glob(os.path.join(root, folder, pattern))
    return sorted(files)


def untranslated_literals(root):
    """(file, line, text) of literals with letters handed straight to a showing call."""
    found = []
    for path in sources(root):
        with open(path, encoding="utf-8") as f:
            for number, line in enumerate(f, 1):
                stripped = line.strip()
                if stripped.startswith("//") or stripped.startswith("///"):
                    continue
                for match in CALL.finditer(line):
                    text = match.group(2)
                    if re.search(r"[A-Za-z]", text):
                        found.append((os.path.relpath(path, root), number, text))
    return found


def translation_problems(lupdate, root, ts_file):
    problems = []
    with tempfile.TemporaryDirectory() as scratch:
        copy = os.path.join(scratch, os.path.basename(ts_file))
        shutil.copyfile(ts_file, copy)
        subprocess.run([lupdate, "-silent", "-locations", "none", "-I", root, *sources(root), "-ts", copy],
                       check=True, stdout=subprocess.DEVNULL)
        for context in ET.parse(copy).getroot().iter("context"):
            name = context.findtext("name")
            for message in context.iter("message"):
                source = message.findtext("source") or ""
                translation = message.find("translation")
                kind = translation.get("type") if translation is not None else "missing"
                text = translation.text or "" if translation is not None else ""
                where = f"{os.path.basename(ts_file)}: {name}: {source!r}"
                if kind in ("unfinished", "missing") or not text:
                    problems.append(f"{where} has no translation (new or changed in the source)")
                elif kind in ("vanished", "obsolete"):
                    problems.append(f"{where} is no longer in the source")
                elif sorted(PLACEHOLDER.findall(source)) != sorted(PLACEHOLDER.findall(text)):
                    problems.append(f"{where}: the translation {text!r} has other placeholders")
    return problems


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--lupdate", required=True)
    parser.add_argument("--source-dir", required=True)
    parser.add_argument("--folders", required=True, help="the source folders, separated by ';'")
    args = parser.parse_args()
    FOLDERS.extend(f for f in args.folders.split(";") if f)
    root = os.path.abspath(args.source_dir)

    problems = [f"{f}:{n}: {t!r} is shown or spoken without tr()" for f, n, t in untranslated_literals(root)]
    ts_files = sorted(glob.glob(os.path.join(root, "translations", "plinkora_*.ts")))
    if not ts_files:
        problems.append("no translations/plinkora_*.ts")
    for ts_file in ts_files:
        problems += translation_problems(args.lupdate, root, ts_file)

    for problem in problems:
        print(problem)
    if problems:
        print(f"{len(problems)} problem(s). Mark texts with tr() or QT_TRANSLATE_NOOP, then run "
              "'cmake --build build --target plinkora_translations_lupdate' and translate what it adds.")
        return 1
    print(f"{len(ts_files)} translation(s) complete; every shown or spoken literal goes through tr()")
    return 0


if __name__ == "__main__":
    sys.exit(main())
