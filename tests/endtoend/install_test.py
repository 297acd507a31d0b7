"""What is installed: a stranger's program builds with it, and it can be replaced and taken away."""

import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

from simulated import BIN, Mac, Owner, end, needs_root, session_on

SOURCE = pathlib.Path(__file__).resolve().parents[2]
CONSUMER = pathlib.Path(__file__).resolve().parent / "consumer"
# The library is compiled a second time there: as few files, in a hurry, and kept for the next run.
HASTE = ("-DCMAKE_UNITY_BUILD=ON", "-DCMAKE_UNITY_BUILD_BATCH_SIZE=0", "-DCMAKE_BUILD_TYPE=Debug",
         "-DCMAKE_CXX_FLAGS_DEBUG=-O0")


def run(*words, **environment):
    """The exit status and everything that was printed."""
    done = subprocess.run([*map(str, words)], env={**os.environ, **environment}, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    return done.returncode, done.stdout


@needs_root
@unittest.skipIf(sys.platform == "darwin", "the installed helper drives the real fans there")
class InstallTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="ferovane-test-")
        self.addCleanup(folder.cleanup)
        self.folder, self.prefix = folder.name, pathlib.Path(folder.name, "a b")

    def script(self, name, **environment):
        build = ["--build", BIN.parent] if name == "install" else []
        return run("sh", SOURCE / "scripts" / name, *build, "--prefix", self.prefix, **environment)

    def install(self):
        status, output = self.script("install")
        self.assertEqual(status, 0, output)

    def test_a_strangers_program_builds_with_it(self):
        self.install()
        for found, build in ((f"-DFerovane_DIR={self.prefix}/lib/cmake/Ferovane", "installed"),
                             (f"-DFEROVANE_SOURCE={SOURCE}", "added")):
            with self.subTest(build), Mac("M1Pro") as mac:
                build = BIN.parent / "consumer" / build
                for words in (("-G", "Ninja", "-S", CONSUMER, "-B", build, found, *HASTE),
                              ("--build", build, "--target", "consumer")):
                    status, output = run("cmake", *words)
                    self.assertEqual(status, 0, output)
                self.assertRegex(mac.tool("run", mac.path, "--", build / "consumer"),
                                 r'^\[{"id":0,"rpm":\d.*,{"id":1,.*"controllable":true}]\n$')

    def test_it_is_replaced_and_removed_when_nobody_holds_a_fan_with_it(self):
        self.addCleanup(os.umask, os.umask(0))
        self.install()
        for path in self.prefix.rglob("*"):
            self.assertEqual(path.stat().st_mode & 0o022 | path.stat().st_uid, 0, path)
        helper = self.prefix / "libexec/FerovaneHelper"
        with Mac("M1Pro") as mac, Owner() as owner:
            machine = {"FEROVANE_SIMULATED_MAC": mac.path}
            session = session_on(mac, owner, helper)
            before = helper.stat().st_ino
            for name in ("install", "uninstall"):
                status, output = self.script(name, **machine)
                self.assertIn(f"(process {session.process.pid} ", output)
                self.assertEqual((status, helper.stat().st_ino), (1, before))
            end(session)
            # A header of a version before, and something of somebody else's.
            listed = self.prefix / "share/ferovane/installed-files"
            gone, other = self.prefix / "include/gone.h", self.prefix / "include/other.h"
            listed.write_text(f"{listed.read_text()}{gone}\n")
            gone.touch()
            other.touch()
            self.install()
            self.assertNotEqual(helper.stat().st_ino, before)
            self.assertFalse(gone.exists())
            mac.write("F0Md", 1)
            mac.fault("refuse-write", "key=F0Md", "code=0x82")
            self.assertEqual(self.script("uninstall", **machine)[0], 1)
            self.assertTrue(helper.exists())
            mac.fault("clear")
            status, output = self.script("uninstall", **machine)
            self.assertEqual((status, f"  {helper}\n" in output), (0, True), output)
            self.assertTrue(mac.automatic())
        self.assertEqual([path for path in self.prefix.rglob("*") if path.is_file()], [other])

    def test_no_place_that_others_may_write_to(self):
        for mode, user in ((0o775, 0), (0o757, 0), (0o755, 1)):
            os.chmod(self.folder, mode)
            os.chown(self.folder, user, 0)
            status, output = self.script("install")
            self.assertEqual((status, "no place for what root runs" in output), (1, True), output)
            self.assertFalse(self.prefix.exists())


if __name__ == "__main__":
    unittest.main()
