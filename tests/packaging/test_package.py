"""The Debian package as a user meets it: built by scripts/package.sh (which fails on lintian
errors), installed with apt-get, its files in the places the desktop looks for them, the
installed program publishing its port, and removed cleanly again."""

import glob
import os
import re
import struct
import subprocess
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "e2e"))
from desktop import Desktop  # noqa: E402

SOURCE = os.environ["PLINKORA_SOURCE_DIR"]
VERSION = os.environ["PLINKORA_VERSION"]


def run(*argv, check=True, env=None):
    result = subprocess.run(argv, capture_output=True, text=True, env=env, timeout=1500)
    if check and result.returncode != 0:
        raise AssertionError(f"{' '.join(argv)} failed ({result.returncode}):\n{result.stdout[-4000:]}\n{result.stderr[-4000:]}")
    return result


def installed(package):
    result = run("dpkg-query", "-W", "-f=${Status}", package, check=False)
    return result.returncode == 0 and "install ok installed" in result.stdout


def png_size(path):
    with open(path, "rb") as f:
        header = f.read(24)
    assert header[:8] == b"\x89PNG\r\n\x1a\n", f"{path} is not a PNG file"
    return struct.unpack(">II", header[16:24])


class PackageTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        if installed("plinkora"):
            raise unittest.SkipTest("a plinkora package is installed on this machine already; not replacing it")
        run("bash", os.path.join(SOURCE, "scripts", "package.sh"))
        debs = [f for f in os.listdir(os.path.join(SOURCE, "dist")) if re.fullmatch(r"plinkora_.*\.deb", f)]
        assert len(debs) == 1, f"expected one package in dist/, found {debs}"
        cls.deb = os.path.join(SOURCE, "dist", debs[0])
        env = dict(os.environ, DEBIAN_FRONTEND="noninteractive")
        run("apt-get", "install", "-y", "-q", cls.deb, env=env)

    @classmethod
    def tearDownClass(cls):
        if installed("plinkora"):
            env = dict(os.environ, DEBIAN_FRONTEND="noninteractive")
            run("apt-get", "remove", "--purge", "-y", "-q", "plinkora", env=env)

    def test_1_the_package_carries_the_projects_version(self):
        self.assertRegex(os.path.basename(self.deb), rf"^plinkora_{re.escape(VERSION)}_[a-z0-9]+\.deb$")
        fields = run("dpkg-deb", "-f", self.deb, "Depends", "Recommends").stdout
        self.assertIn("qt6-qpa-plugins", fields)
        self.assertIn("qt6-wayland", fields)
        self.assertIn("speech-dispatcher", fields)
        self.assertIn("timgm6mb-soundfont", fields)

    def test_2_the_desktop_finds_the_menu_entry_its_metadata_and_icons(self):
        run("desktop-file-validate", "/usr/share/applications/plinkora.desktop")
        run("appstreamcli", "validate", "--no-net", "/usr/share/metainfo/org.plinkora.Plinkora.metainfo.xml")
        self.assertTrue(os.path.isfile("/usr/share/icons/hicolor/scalable/apps/plinkora.svg"))
        for size in (48, 128, 256):
            path = f"/usr/share/icons/hicolor/{size}x{size}/apps/plinkora.png"
            self.assertEqual(png_size(path), (size, size), path)
        for sound in ("up.wav", "down.wav"):
            self.assertTrue(os.path.isfile(f"/usr/share/plinkora/{sound}"), sound)
        self.assertTrue(os.path.isfile("/usr/share/plinkora/translations/plinkora_de.qm"))
        # The sound module, which the program loads with its first feedback sound.
        modules = glob.glob("/usr/lib/*/plinkora/libplinkora_sound_output.so")
        self.assertEqual(len(modules), 1, modules)

    def test_3_the_manual_page_documents_every_option_of_help(self):
        page = run("man", "-P", "cat", "plinkora", env=dict(os.environ, MANWIDTH="200", LANG="C.UTF-8")).stdout
        page = re.sub(r".\x08", "", page)  # overstrike bold
        help_text = run("/usr/bin/plinkora", "--help").stdout
        # The option lines of --help: "  -h, --help ..." or "  --midi-api NAME ..."
        options = set()
        for short, long in re.findall(r"^ {2}(?:(-[a-z]), )?(--[a-z][a-z-]*)", help_text, re.M):
            options.update(o for o in (short, long) if o)
        self.assertIn("--midi-api", options)
        for option in sorted(options):
            self.assertRegex(page, rf"(?<![\w-]){re.escape(option)}\b", f"{option} is not in the manual page")

    def test_4_the_installed_program_publishes_its_port(self):
        os.environ["PLINKORA_BIN"] = "/usr/bin/plinkora"
        with Desktop() as desktop:
            plinkora = desktop.start_plinkora()  # waits for the receiver's connection to PLK:PLK
            self.assertTrue(plinkora.running())
            ports = subprocess.run(["jack_lsp"], env=desktop.env, capture_output=True, text=True).stdout.split()
            self.assertIn("PLK:PLK", ports)

    def test_5_removing_it_leaves_nothing_behind(self):
        files = run("dpkg-query", "-L", "plinkora").stdout.split()
        env = dict(os.environ, DEBIAN_FRONTEND="noninteractive")
        run("apt-get", "remove", "--purge", "-y", "-q", "plinkora", env=env)
        self.assertFalse(installed("plinkora"))
        left = [f for f in files if os.path.isfile(f)]
        self.assertEqual(left, [])


if __name__ == "__main__":
    unittest.main()
