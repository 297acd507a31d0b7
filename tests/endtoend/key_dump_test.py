"""A machine made from a table of keys gives the same table again, but for what is somebody's own."""

import os
import pathlib
import tempfile
import unittest

from simulated import BIN, Mac

TABLES = sorted((pathlib.Path(__file__).resolve().parents[1] / "data/controllers").glob("*.csv"))
LIVE = {"B0AC", "ID0R", "PPBR"}  # what the simulated machine's power says, whatever the table said


def rows(table):
    """Key -> type, size, attributes, bytes, result; in the table's order, spelt in one way."""
    keys = {}
    for line in table.lstrip("\ufeff").splitlines()[1:]:
        names, size, attributes, value, result = line.rsplit(",", 4)
        kind = names[5:].replace("\\0", "\0").ljust(4)
        value = "" if value == "NOT READABLE" else value
        if value == "" and (result == "00" or int(size) > 32):
            result = "85"
        keys[names[:4]] = (kind, int(size), attributes or "80", value, result)
    return keys


def personal(row):
    kind, size, _, value, _ = row
    return value != "" and (kind == "ch8*" or size > 4 and kind not in ("ioft", "{fds"))


@unittest.skipIf(os.uname().sysname == "Darwin", "the program dumps the real Mac there")
class KeyDumpTest(unittest.TestCase):
    def dump_of(self, table):
        with tempfile.NamedTemporaryFile("w", suffix=".csv") as file:
            file.write(table)
            file.flush()
            with Mac(file.name, "speed=0", made_from="--keys") as mac:
                return mac.tool("run", mac.path, "--", BIN / "key-dump")

    def test_real_controllers(self):
        for file in TABLES:
            with self.subTest(file.name):
                text = 'RPlt,ch8*,3,80,4A3133,00\nzFAN,{fds,6,80,00000A004578,00\n'
                table = file.read_text(encoding="utf-8").rstrip("\n") + "\n" + text
                wanted = {key: row for key, row in rows(table).items() if not personal(row)}
                dumped = rows(self.dump_of(table))
                if "#KEY" not in wanted:
                    dumped.pop("#KEY")
                self.assertEqual(list(dumped), list(wanted))
                for key in wanted.keys() & LIVE:
                    wanted[key], dumped[key] = wanted[key][:3], dumped[key][:3]
                self.assertEqual(dumped, wanted)

    def test_models(self):
        for line in Mac.tool("models").splitlines():
            model = line.split()[0]
            with self.subTest(model), Mac(model, "speed=0") as mac:
                if model == "NoController":
                    continue
                first = mac.tool("run", mac.path, "--", BIN / "key-dump")
                self.assertGreater(first.count("\n"), 200)
                self.assertEqual(self.dump_of(first), first)


if __name__ == "__main__":
    unittest.main()
