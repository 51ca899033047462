"""An AT-SPI client, as a screen reader sees an application: reads questions as JSON lists on
standard input, one a line, and answers each with one JSON line on standard output.

    ["tree"]      every top-level window of the application with its descendants:
                  {"role", "name", "description", "states", "text", "value", "labelled_by",
                  "children"}; "labelled_by" names the objects of the "labelled by" relation, which
                  screen readers read instead of the name
    ["focused"]   the object that has the keyboard focus ({"role", "name", "window"}), or null
    ["windows"]   the names of the application's top-level windows

Run with Debian's interpreter (/usr/bin/python3, which has python3-pyatspi), with
DBUS_SESSION_BUS_ADDRESS naming the session bus whose accessibility bus to use. The first
argument is the application's name (compared without regard to case). Prints "ready" once it
has connected.
"""

import json
import sys

import pyatspi

STATES = {
    pyatspi.STATE_ENABLED: "enabled",
    pyatspi.STATE_SENSITIVE: "sensitive",
    pyatspi.STATE_FOCUSABLE: "focusable",
    pyatspi.STATE_FOCUSED: "focused",
    pyatspi.STATE_SHOWING: "showing",
    pyatspi.STATE_VISIBLE: "visible",
    pyatspi.STATE_ACTIVE: "active",
    pyatspi.STATE_EDITABLE: "editable",
    pyatspi.STATE_CHECKABLE: "checkable",
    pyatspi.STATE_CHECKED: "checked",
}
MAX_DEPTH = 30


def application(name):
    desktop = pyatspi.Registry.getDesktop(0)
    for i in range(desktop.childCount):
        app = desktop.getChildAtIndex(i)
        if app is not None and (app.name or "").lower() == name.lower():
            return app
    return None


def states_of(acc):
    state = acc.getState()
    return sorted(label for code, label in STATES.items() if state.contains(code))


def text_of(acc):
    try:
        text = acc.queryText()
    except NotImplementedError:
        return None
    return text.getText(0, -1)


def value_of(acc):
    try:
        value = acc.queryValue()
    except NotImplementedError:
        return None
    return {"current": value.currentValue, "minimum": value.minimumValue, "maximum": value.maximumValue}


def labelled_by(acc):
    names = []
    for relation in acc.getRelationSet():
        if relation.getRelationType() == pyatspi.RELATION_LABELLED_BY:
            for i in range(relation.getNTargets()):
                target = relation.getTarget(i)
                names.append(target.name or "" if target is not None else "")
    return names


def describe(acc, depth=0):
    node = {
        "role": acc.getRoleName(),
        "name": acc.name or "",
        "description": acc.description or "",
        "states": states_of(acc),
        "text": text_of(acc),
        "value": value_of(acc),
        "labelled_by": labelled_by(acc),
        "children": [],
    }
    if depth < MAX_DEPTH:
        for i in range(acc.childCount):
            child = acc.getChildAtIndex(i)
            if child is not None:
                node["children"].append(describe(child, depth + 1))
    return node


def find_focused(acc, depth=0):
    if acc.getState().contains(pyatspi.STATE_FOCUSED):
        return acc
    if depth >= MAX_DEPTH:
        return None
    for i in range(acc.childCount):
        child = acc.getChildAtIndex(i)
        if child is None:
            continue
        found = find_focused(child, depth + 1)
        if found is not None:
            return found
    return None


def answer(app_name, question):
    app = application(app_name)
    if app is None:
        return {"error": f"no application named {app_name!r} on the accessibility bus"}
    windows = [app.getChildAtIndex(i) for i in range(app.childCount)]
    windows = [w for w in windows if w is not None]
    what = question[0]
    if what == "tree":
        return [describe(window) for window in windows]
    if what == "windows":
        return [window.name for window in windows]
    if what == "focused":
        for window in windows:
            found = find_focused(window)
            if found is not None and found is not window:
                return {"role": found.getRoleName(), "name": found.name or "", "window": window.name or ""}
        return None
    return {"error": f"unknown question {what!r}"}


def main():
    app_name = sys.argv[1] if len(sys.argv) > 1 else "plinkora"
    print("ready", flush=True)
    for line in sys.stdin:
        line = line.strip()
        if not line:
            continue
        try:
            reply = answer(app_name, json.loads(line))
        except Exception as error:  # an object that went away while it was read, for example
            reply = {"error": f"{type(error).__name__}: {error}"}
        print(json.dumps(reply), flush=True)


if __name__ == "__main__":
    main()
