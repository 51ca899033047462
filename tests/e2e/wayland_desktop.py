"""A private Wayland desktop for end-to-end tests: the desktop of desktop.py (private JACK server,
MIDI receiver, plinkora, stopping by process id) with a headless sway compositor in place of the
X server, and keys pressed through a virtual keyboard that has the keymap of a real layout.

sway refuses to run as root, so it runs as the user nobody, in a runtime folder of its own;
plinkora and the keyboard reach its socket by its full path.
"""

import json
import os
import pwd
import re
import subprocess

from desktop import DEFAULT_TIMEOUT, Desktop
from wayland_client import OtherWindow, WaylandKeyboard

# Keys repeat quickly, so that a held key repeats within a short hold.
SWAY_CONFIG = """xwayland disable
input * {{
    xkb_layout {layout}
    repeat_delay 250
    repeat_rate 30
}}
"""


class WaylandDesktop(Desktop):
    def __init__(self, layout="us"):
        super().__init__(with_jack=True)
        self.layout = layout
        self.keyboard = None
        self.others = []

    def close(self):
        for connection in [self.keyboard, *self.others]:
            if connection:
                connection.close()
        self.keyboard, self.others = None, []
        super().close()

    def _start_display(self):
        user = pwd.getpwnam("nobody")
        os.chmod(self.tmp, 0o711)  # sway, as nobody, reaches its folder inside
        runtime = os.path.join(self.tmp, "sway-runtime")
        os.makedirs(runtime, mode=0o700)
        os.chown(runtime, user.pw_uid, user.pw_gid)
        config = os.path.join(runtime, "config")
        with open(config, "w") as f:
            f.write(SWAY_CONFIG.format(layout=self.layout))
        env = dict(self.env, XDG_RUNTIME_DIR=runtime, HOME=runtime, WLR_BACKENDS="headless",
                   WLR_LIBINPUT_NO_DEVICES="1", WLR_RENDERER="pixman")
        self._spawn("sway", ["setpriv", f"--reuid={user.pw_uid}", f"--regid={user.pw_gid}", "--clear-groups",
                             "sway", "--config", config], env=env)
        found = {}

        def sockets():
            for name in os.listdir(runtime):
                if name.startswith("wayland-") and not name.endswith(".lock"):
                    found["wayland"] = os.path.join(runtime, name)
                if name.startswith("sway-ipc."):
                    found["ipc"] = os.path.join(runtime, name)
            return len(found) == 2

        self.wait_until(sockets, what="sway's sockets")
        self.socket = found["wayland"]
        self.env.update({"WAYLAND_DISPLAY": self.socket, "XDG_SESSION_TYPE": "wayland", "SWAYSOCK": found["ipc"]})
        self.keyboard = WaylandKeyboard(self.socket, self.layout)

    def stop_x_server(self):
        raise NotImplementedError("a Wayland desktop has no X server")

    # --- windows ------------------------------------------------------------------------

    def swaymsg(self, *args):
        result = subprocess.run(["swaymsg", *args], env=self.env, capture_output=True, text=True, timeout=30)
        if result.returncode != 0:
            raise AssertionError(f"swaymsg {' '.join(args)} failed: {result.stdout} {result.stderr}")
        return result.stdout

    def keyboard_layouts(self):
        """The layout names sway reports for its keyboards (the virtual keyboard's included)."""
        inputs = json.loads(self.swaymsg("-t", "get_inputs", "--raw"))
        return [i.get("xkb_active_layout_name") for i in inputs if i.get("type") == "keyboard"]

    def windows(self):
        """The windows sway shows: (title, focused) for each."""
        found = []

        def walk(node):
            if node.get("type") == "con" and node.get("name") is not None:
                found.append((node["name"], node.get("focused", False)))
            for child in node.get("nodes", []) + node.get("floating_nodes", []):
                walk(child)

        walk(json.loads(self.swaymsg("-t", "get_tree", "--raw")))
        return found

    def wait_for_window(self, name_regex, timeout=DEFAULT_TIMEOUT):
        regex = re.compile(name_regex)
        found = {}

        def search():
            for title, _ in self.windows():
                if regex.search(title):
                    found["title"] = title
                    return True
            return False

        self.wait_until(search, timeout=timeout, what=f"a window named {name_regex}")
        return found["title"]

    def focused_window(self):
        return next((title for title, focused in self.windows() if focused), None)

    def activate(self, window):
        self.swaymsg(f'[title="^{window}$"] focus')
        self.wait_until(lambda: self.focused_window() == window, timeout=10, what=f"{window} to have the focus")

    def open_other_window(self, title="Other window"):
        """Another program's window opens and takes the keys."""
        self.others.append(OtherWindow(self.socket, title))
        self.wait_until(lambda: self.focused_window() == title, timeout=10, what=f"{title} to have the focus")

    # --- keys (physical keys: names of wayland_client.KEY) ------------------------------

    def key(self, *keys):
        self.keyboard.tap(*keys)

    def chord(self, modifier, k):
        self.keyboard.tap(f"{modifier}+{k}")

    def keydown(self, k):
        self.keyboard.press(k)

    def keyup(self, k):
        self.keyboard.release(k)

    def set_layout(self, layout):
        raise NotImplementedError("a Wayland desktop's layout is chosen when it starts")
