"""A keyboard and a window for a Wayland compositor: physical keys pressed by their evdev codes,
and another program's window that takes the keys.

Tools such as wtype upload a keymap of their own in which the characters they type sit on
made-up key codes, so a program that reads physical keys (Qt's native scan code) sees made-up
keys. This one speaks the Wayland wire protocol itself (a small client of the virtual-keyboard
protocol, which sway offers): it uploads the keymap of a real layout, compiled by xkbcli from
libxkbcommon-tools, and presses the real key codes, as a physical keyboard would.
"""

import array
import os
import socket
import struct
import subprocess
import time

# Modifier masks of the real modifiers in a keymap compiled by libxkbcommon.
SHIFT, CONTROL = 0x1, 0x4
# evdev codes of the keys these tests press.
KEY = {
    "esc": 1, "1": 2, "2": 3, "3": 4, "4": 5, "5": 6, "6": 7, "7": 8, "8": 9, "9": 10, "0": 11,
    "tab": 15, "q": 16, "w": 17, "e": 18, "r": 19, "t": 20, "y": 21, "u": 22, "i": 23, "o": 24, "p": 25,
    "enter": 28, "ctrl": 29, "a": 30, "s": 31, "d": 32, "f": 33, "g": 34, "h": 35, "j": 36, "k": 37,
    "l": 38, "semicolon": 39, "shift": 42, "z": 44, "x": 45, "c": 46, "v": 47, "b": 48, "n": 49,
    "m": 50, "comma": 51,
}
KEY.update({"Return": KEY["enter"], "Escape": KEY["esc"], "Tab": KEY["tab"]})
MODIFIER_MASK = {"shift": SHIFT, "ctrl": CONTROL}


def compile_keymap(layout):
    """The text of the XKB keymap of `layout` (us, fr, de, ...)."""
    return subprocess.run(["xkbcli", "compile-keymap", "--layout", layout], check=True, capture_output=True,
                          text=True, timeout=30).stdout


class Connection:
    """One client connection to the compositor at `socket_path`, its globals listed."""

    def __init__(self, socket_path):
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.sock.connect(socket_path)
        self.next_id = 2  # 1 is wl_display
        self.buffer = b""
        self.globals = {}
        registry = self._new_id()
        self._send(1, 1, struct.pack("<I", registry))  # wl_display.get_registry
        callback = self._new_id()
        self._send(1, 0, struct.pack("<I", callback))
        self._wait_for(callback, 0, registry=registry)

    def sync(self):
        """Returns when the compositor has handled everything sent before."""
        callback = self._new_id()
        self._send(1, 0, struct.pack("<I", callback))  # wl_display.sync
        self._wait_for(callback, 0)

    def close(self):
        self.sock.close()

    def _new_id(self):
        self.next_id += 1
        return self.next_id - 1

    @staticmethod
    def _string(text):
        data = text.encode() + b"\0"
        return struct.pack("<I", len(data)) + data + b"\0" * (-len(data) % 4)

    def _bind(self, interface, version):
        if interface not in self.globals:
            raise AssertionError(f"the compositor offers no {interface}")
        new = self._new_id()
        # wl_registry.bind(name, interface, version, id): the registry is object 2
        self._send(2, 0, struct.pack("<I", self.globals[interface]) + self._string(interface)
                   + struct.pack("<II", version, new))
        return new

    def _send(self, obj, opcode, payload, fds=()):
        message = struct.pack("<II", obj, ((8 + len(payload)) << 16) | opcode) + payload
        ancillary = [(socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", fds))] if fds else []
        self.sock.sendmsg([message], ancillary)

    def _event(self, sender, event, body):
        """An event not waited for; subclasses answer the ones that need an answer."""

    def _wait_for(self, obj, opcode, registry=None):
        """Reads events until `obj` sends event `opcode`; returns its body."""
        while True:
            while len(self.buffer) < 8:
                self._read()
            sender, word = struct.unpack_from("<II", self.buffer)
            size, event = word >> 16, word & 0xFFFF
            while len(self.buffer) < size:
                self._read()
            body, self.buffer = self.buffer[8:size], self.buffer[size:]
            if sender == 1 and event == 0:  # wl_display.error
                _, code, length = struct.unpack_from("<III", body)
                raise AssertionError(f"Wayland error {code}: {body[12:12 + length - 1].decode()}")
            if sender == registry and event == 0:  # wl_registry.global(name, interface, version)
                name, length = struct.unpack_from("<II", body)
                self.globals[body[8:8 + length - 1].decode()] = name
            if sender == obj and event == opcode:
                return body
            self._event(sender, event, body)

    def _read(self):
        data = self.sock.recv(65536)
        if not data:
            raise AssertionError("the compositor closed the connection")
        self.buffer += data


class WaylandKeyboard(Connection):
    """One virtual keyboard with the keymap of `layout`."""

    def __init__(self, socket_path, layout):
        super().__init__(socket_path)
        self.mods = 0
        seat = self._bind("wl_seat", 1)
        manager = self._bind("zwp_virtual_keyboard_manager_v1", 1)
        self.keyboard = self._new_id()
        self._send(manager, 0, struct.pack("<II", seat, self.keyboard))  # create_virtual_keyboard
        self.set_layout(layout)

    def set_layout(self, layout):
        """Uploads the keymap of `layout`; the compositor passes it on to the focused program."""
        text = compile_keymap(layout).encode() + b"\0"
        fd = os.memfd_create("keymap")
        try:
            os.write(fd, text)
            # keymap(format xkb_v1 = 1, fd, size)
            self._send(self.keyboard, 0, struct.pack("<II", 1, len(text)), fds=[fd])
        finally:
            os.close(fd)
        self.sync()

    def press(self, name):
        self._key(name, 1)

    def release(self, name):
        self._key(name, 0)

    def tap(self, *names):
        """Presses and releases each key; "ctrl+q" holds the modifier around the key."""
        for name in names:
            *modifiers, key = name.split("+")
            for modifier in modifiers:
                self.press(modifier)
            self.press(key)
            self.release(key)
            for modifier in reversed(modifiers):
                self.release(modifier)

    def _key(self, name, state):
        code = KEY[name]
        self._send(self.keyboard, 1, struct.pack("<III", int(time.monotonic() * 1000) & 0xFFFFFFFF, code, state))
        if name in MODIFIER_MASK:
            self.mods = self.mods | MODIFIER_MASK[name] if state else self.mods & ~MODIFIER_MASK[name]
            self._send(self.keyboard, 2, struct.pack("<IIII", self.mods, 0, 0, 0))  # modifiers
        self.sync()


class OtherWindow(Connection):
    """Another program's window, titled `title`: a plain toplevel of the xdg-shell protocol that
    the compositor shows and gives the keys to, as any program's window opening."""

    WIDTH, HEIGHT = 200, 100

    def __init__(self, socket_path, title):
        super().__init__(socket_path)
        compositor = self._bind("wl_compositor", 4)
        shm = self._bind("wl_shm", 1)
        self.wm_base = self._bind("xdg_wm_base", 1)
        self.surface = self._new_id()
        self._send(compositor, 0, struct.pack("<I", self.surface))  # create_surface
        xdg_surface = self._new_id()
        self._send(self.wm_base, 2, struct.pack("<II", xdg_surface, self.surface))  # get_xdg_surface
        toplevel = self._new_id()
        self._send(xdg_surface, 1, struct.pack("<I", toplevel))  # get_toplevel
        self._send(toplevel, 2, self._string(title))  # set_title
        self._send(self.surface, 6, b"")  # commit: asks for the first configure
        serial, = struct.unpack_from("<I", self._wait_for(xdg_surface, 0))
        self._send(xdg_surface, 4, struct.pack("<I", serial))  # ack_configure
        # One white buffer in shared memory (ARGB8888 = format 0).
        stride = self.WIDTH * 4
        fd = os.memfd_create("window")
        try:
            os.ftruncate(fd, stride * self.HEIGHT)
            os.pwrite(fd, b"\xff" * (stride * self.HEIGHT), 0)
            pool = self._new_id()
            self._send(shm, 0, struct.pack("<II", pool, stride * self.HEIGHT), fds=[fd])  # create_pool
        finally:
            os.close(fd)
        buffer = self._new_id()
        self._send(pool, 0, struct.pack("<IiiiiI", buffer, 0, self.WIDTH, self.HEIGHT, stride, 0))
        self._send(self.surface, 1, struct.pack("<Iii", buffer, 0, 0))  # attach
        self._send(self.surface, 6, b"")  # commit: the window is shown
        self.sync()

    def _event(self, sender, event, body):
        if sender == getattr(self, "wm_base", None) and event == 0:  # ping: answered, or the window looks hung
            self._send(self.wm_base, 3, body[:4])
