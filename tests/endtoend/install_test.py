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


@needs_root
@unittest.skipIf(sys.platform == "darwin", "the installed helper drives the real fans there")
class InstallTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="ferovane-test-")
        self.addCleanup(folder.cleanup)
        self.folder, self.prefix = folder.name, pathlib.Path(folder.name, "a b")

    def run_(self, *words, status=0, mac=None):
        """Everything that was printed."""
        done = subprocess.run([*map(str, words)], env=mac and mac.environment(), text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self.assertEqual(done.returncode, status, done.stdout)
        return done.stdout

    def script(self, name, **outcome):
        build = ["--build", BIN.parent] if name == "install" else []
        return self.run_("sh", SOURCE / "scripts" / name, *build, "--prefix", self.prefix, **outcome)

    def test_a_strangers_program_builds_with_it(self):
        self.script("install")
        for found, build in ((f"-DFerovane_DIR={self.prefix}/lib/cmake/Ferovane", "installed"),
                             (f"-DFEROVANE_SOURCE={SOURCE}", "added")):
            with self.subTest(build), Mac("M1Pro") as mac:
                build = BIN.parent / "consumer" / build
                self.run_("cmake", "-G", "Ninja", "-S", CONSUMER, "-B", build, found, *HASTE)
                self.run_("cmake", "--build", build, "--target", "consumer")
                self.assertRegex(self.run_(build / "consumer", mac=mac),
                                 r'^\[{"id":0,"rpm":\d.*,{"id":1,.*"controllable":true}]\n$')

    def test_it_is_replaced_and_removed_when_nobody_holds_a_fan_with_it(self):
        self.addCleanup(os.umask, os.umask(0))
        self.script("install")
        for path in self.prefix.rglob("*"):
            self.assertEqual(path.stat().st_mode & 0o022 | path.stat().st_uid, 0, path)
        helper = self.prefix / "libexec/FerovaneHelper"
        with Mac("M1Pro") as mac, Owner() as owner:
            session = session_on(mac, owner, helper)
            before = helper.stat().st_ino
            for name in ("install", "uninstall"):
                self.assertIn(f"(process {session.process.pid} ", self.script(name, status=1, mac=mac))
            self.assertEqual(helper.stat().st_ino, before)
            end(session)
            # A header of a version before, and something of somebody else's.
            gone, other = self.prefix / "include/gone.h", self.prefix / "include/other.h"
            with open(self.prefix / "share/ferovane/installed-files", "a") as listed:
                listed.write(f"{gone}\n")
            gone.touch()
            other.touch()
            self.script("install")
            self.assertEqual((helper.stat().st_ino == before, gone.exists()), (False, False))
            mac.write("F0Md", 1)
            mac.fault("refuse-write", "key=F0Md", "code=0x82")
            self.script("uninstall", status=1, mac=mac)
            self.assertTrue(helper.exists())
            mac.fault("clear")
            self.assertIn(f"  {helper}\n", self.script("uninstall", mac=mac))
            self.assertTrue(mac.automatic())
        self.assertEqual([path for path in self.prefix.rglob("*") if path.is_file()], [other])

    def test_no_place_that_others_may_write_to(self):
        for mode, user in ((0o775, 0), (0o757, 0), (0o755, 1)):
            os.chmod(self.folder, mode)
            os.chown(self.folder, user, 0)
            self.assertIn("no place for what root runs", self.script("install", status=1))
            self.assertFalse(self.prefix.exists())

    def test_nobody_else_says_what_root_writes_deletes_or_runs(self):
        os.chmod(self.folder, 0o755)
        self.script("install")
        share, victim = self.prefix / "share", pathlib.Path(self.folder, "victim")
        victim.touch()
        with open(share / "ferovane/installed-files", "a") as listed:
            listed.write(f"{victim}\n")
        os.chown(share, 1, 0)
        for name in ("install", "uninstall"):
            self.assertIn("share is not root's", self.script(name, status=1))
        os.chown(share, 0, 0)
        link = pathlib.Path(self.folder, "theirs", "link")
        link.parent.mkdir()
        link.symlink_to(self.prefix)
        os.chown(link.parent, 1, 0)
        real, self.prefix = self.prefix, link
        self.assertIn(f"sudo sh {real}/share", self.script("install"))
        self.assertTrue((real / "libexec/FerovaneHelper").exists())


if __name__ == "__main__":
    unittest.main()
