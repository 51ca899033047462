"""A private desktop whose sound server is PipeWire: the desktop of desktop.py (Xvfb, receiver,
plinkora, stopping by process id) with PipeWire, WirePlumber and a session bus of its own in
place of the JACK server, no sound card, and one null sink as the default output. Every program
started here, the receiver and plinkora included, uses PipeWire's JACK library."""

import os
import subprocess

from desktop import DEFAULT_TIMEOUT, Desktop

PIPEWIRE_JACK = "/usr/lib/x86_64-linux-gnu/pipewire-0.3/jack"
NULL_SINK = "plk-null-sink"


class PipeWireDesktop(Desktop):
    midi_api = None  # plinkora's own choice, which must find PipeWire's JACK interface

    def _start_jack(self):
        runtime = self.env["XDG_RUNTIME_DIR"]
        bus = f"unix:path={runtime}/bus"
        self.env.pop("JACK_DEFAULT_SERVER", None)
        self.env.update({
            "PIPEWIRE_RUNTIME_DIR": runtime,
            "DBUS_SESSION_BUS_ADDRESS": bus,
            "LD_LIBRARY_PATH": ":".join(filter(None, [PIPEWIRE_JACK, self.env.get("LD_LIBRARY_PATH")])),
        })
        self._spawn("dbus-daemon", ["dbus-daemon", "--session", "--nofork", f"--address={bus}"], capture=False)
        self.wait_until(lambda: os.path.exists(f"{runtime}/bus"), what="the session bus")
        self._spawn("pipewire", ["pipewire"], capture=False)
        self.wait_until(lambda: os.path.exists(f"{runtime}/pipewire-0"), what="PipeWire's socket")
        self._spawn("wireplumber", ["wireplumber"], capture=False)
        self.pw("pw-cli", "create-node", "adapter",
                f"{{ factory.name=support.null-audio-sink node.name={NULL_SINK} media.class=Audio/Sink "
                "object.linger=true audio.position=[FL FR] }")
        # WirePlumber configures the sink (its ports appear) and makes it the default output.
        self.wait_until(lambda: f"{NULL_SINK}:playback_FL" in self.pw("pw-link", "--input").split("\n"),
                        what="the null sink's ports")
        self.wait_until(lambda: NULL_SINK in self.pw("pw-metadata", "0", "default.audio.sink"),
                        what="the null sink to be the default output")
        self.receiver = self.start_receiver(connect=True)

    def pw(self, *argv):
        """Runs one of PipeWire's tools; its standard output."""
        return subprocess.run(argv, env=self.env, capture_output=True, text=True, check=True,
                              timeout=DEFAULT_TIMEOUT).stdout

    def links(self):
        """(output port, input port) of every link PipeWire has."""
        found, output = [], None
        for line in self.pw("pw-link", "--links").split("\n"):
            if line.startswith("  |-> "):
                found.append((output, line[len("  |-> "):].strip()))
            elif line and not line.startswith(" "):
                output = line.strip()
        return found
