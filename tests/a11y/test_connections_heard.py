"""The Connections section without the screen: what an AT-SPI client reads of it (names, roles,
states), and what Orca says when PLK is connected and disconnected from the keyboard, and once
after start when nothing will sound.

A listener runs beside the harness's receiver (which connects itself to PLK); only Plinkora can
connect PLK to it."""

import os
import unittest

from a11y_services import START_UP_WARNING, wait_until
from test_heard import HeardTestCase, spoken_form

NO_PATCHBAY = "MIDI connections: none can be made on "


def find(node, role=None, name=None):
    """Every node below `node` (itself included) with that role and name."""
    found = []
    if (role is None or node["role"] == role) and (name is None or node["name"] == name):
        found.append(node)
    for child in node["children"]:
        found += find(child, role, name)
    return found


class ConnectionsTestCase(HeardTestCase):
    with_jack = True

    def start_listener(self):
        d = self.desktop
        self.listener_client = f"syn{os.getpid()}"
        self.destination = f"{self.listener_client}:in"
        self.receiver_input = f"rx{os.getpid()}:in"  # the harness's receiver
        listener = d._spawn("listener", [os.environ["PLINKORA_RECEIVER"], "--client", self.listener_client])
        listener.wait_for_line(r"^ready ")
        return listener

    def makes_connections(self):
        return not any(line.startswith(NO_PATCHBAY) for line in self.desktop.plinkora.snapshot())

    def open_connections(self, probe=None):
        """Opens the preferences and moves to the Connections list (last in the Tab order)."""
        d = self.desktop
        d.chord("ctrl", "comma")
        prefs = d.wait_for_window("^Preferences$")
        d.activate(prefs)
        if probe:
            wait_until(lambda: "Preferences" in probe.ask("windows"), timeout=10, what="the Preferences window")
        d.key("shift+Tab")


class ConnectionsTreeTest(ConnectionsTestCase):
    def test_the_connections_section_read_by_an_atspi_client(self):
        d = self.desktop
        self.start_listener()
        d.start_accessibility_bus()
        d.start_plinkora()
        probe = d.probe()
        self.open_connections(probe)
        wait_until(lambda: probe.ask("focused") == {"role": "list", "name": "Connections", "window": "Preferences"},
                   timeout=10, what=f"the Connections list to have the focus (focus: {probe.ask('focused')})")

        window = [w for w in probe.ask("tree") if w["name"] == "Preferences"][0]
        sections = [n for n in find(window, name="Connections") if n["role"] in ("panel", "grouping")]
        self.assertEqual(len(sections), 1, [n["role"] for n in find(window, name="Connections")])
        self.assertEqual(len(find(sections[0], "label", "Connections")), 1)
        lists = find(sections[0], "list", "Connections")
        self.assertEqual(len(lists), 1)
        self.assertIn("Space connects or disconnects", lists[0]["description"])
        # Above it, the built-in synthesizer's audio device: a combo box named by its entry (Qt on
        # Linux) and labelled by its caption, which screen readers say first.
        boxes = find(window, "combo box")
        self.assertEqual([(n["name"], n["labelled_by"]) for n in boxes], [("Automatic", ["Audio device:"])])
        # The main window's status bar names the MIDI system and the port.
        main = [w for w in probe.ask("tree") if w["name"] == "Plinkora"][0]
        status = [n["name"] for n in find(main, "label") if n["name"].startswith("MIDI: ")]
        self.assertEqual(len(status), 1, status)
        self.assertTrue(status[0].startswith("MIDI: jack, port PLK:PLK"), status)
        if not self.makes_connections():
            self.fail("Plinkora makes no connections on JACK: the list is empty")

        items = find(lists[0], "list item")
        # The built-in synthesizer first (the harness starts Plinkora with it off), then the
        # system's MIDI inputs.
        self.assertEqual([i["name"] for i in items],
                         ["Built-in synthesizer, off", f"{self.receiver_input}, connected",
                          f"{self.destination}, not connected"])
        # (Qt 6.4's bridge shows the check box's state as "checked", not as "checkable".)
        self.assertNotIn("checked", items[0]["states"])
        self.assertIn("checked", items[1]["states"])
        self.assertNotIn("checked", items[2]["states"])

        # With the keyboard alone: End selects the listener, Space connects it.
        start = len(d.plinkora.snapshot())
        d.key("End", "space")
        d.wait_for_announcement(f"Connected to {self.destination}", start=start)

        def listener_item():
            tree = [w for w in probe.ask("tree") if w["name"] == "Preferences"][0]
            return [i for i in find(tree, "list item") if i["name"].startswith(self.destination)]

        wait_until(lambda: listener_item() and listener_item()[0]["name"] == f"{self.destination}, connected",
                   timeout=10, what=f"the entry to say it is connected ({listener_item()})")
        self.assertIn("checked", listener_item()[0]["states"])


class ConnectionsOrcaTest(ConnectionsTestCase):
    # Connecting and disconnecting at once: both announcements reach Orca's queue before it has
    # read the first, which must still be heard with its own text.
    def test_orca_hears_connecting_and_disconnecting(self):
        d = self.desktop
        self.start_listener()
        d.start_accessibility_bus()
        speech = d.make_speech_service(speaking_time=0.5)
        d.start_orca(speech=speech)
        d.start_plinkora()
        if not self.makes_connections():
            self.fail("Plinkora makes no connections on JACK")
        self.open_connections()
        start = len(d.plinkora.snapshot())
        d.key("End", "space")
        d.wait_for_announcement(f"Connected to {self.destination}", start=start)
        d.key("space")
        d.wait_for_announcement(f"{self.destination} disconnected", start=start)
        for text in (f"Connected to {self.destination}", f"{self.destination} disconnected"):
            wait_until(lambda: text in [spoken_form(t) for t in speech.texts_of("orca")], timeout=60,
                       what=f"Orca to say {text!r} (Orca said: {speech.texts_of('orca')})")
        self.assertEqual(speech.texts_of("plinkora"), [], "Plinkora's own voice spoke over Orca")


class NothingConnectedOrcaTest(HeardTestCase):
    """The null MIDI system and no built-in synthesizer: nothing will sound, and Orca says so
    once after start."""

    def test_orca_says_once_that_nothing_is_connected(self):
        d = self.desktop
        d.keep_start_up_warning = True
        d.start_accessibility_bus()
        speech = d.make_speech_service(speaking_time=0.5)
        d.start_orca(speech=speech)
        d.start_plinkora()
        d.wait_for_announcement(START_UP_WARNING)
        self.assertEqual(d.announcements(), [START_UP_WARNING])
        wait_until(lambda: START_UP_WARNING in [spoken_form(t) for t in speech.texts_of("orca")], timeout=60,
                   what=f"Orca to say {START_UP_WARNING!r} (Orca said: {speech.texts_of('orca')})")
        self.assertEqual(speech.texts_of("plinkora"), [], "Plinkora's own voice spoke over Orca")
        # Once: a property change afterwards announces only itself.
        self.press_and_wait("Tab", "Program: 0, 2 of 8")
        self.assertEqual(d.announcements(), [START_UP_WARNING, "Program: 0, 2 of 8"])


if __name__ == "__main__":
    unittest.main()
