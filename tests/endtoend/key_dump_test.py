"""A machine made from a table of keys gives the same table again, but for what is somebody's own."""

import pathlib
import sys
import tempfile
import unittest

from simulated import BIN, Mac

TABLES = sorted((pathlib.Path(__file__).resolve().parents[1] / "data/controllers").glob("*.csv"))
LIVE = {"B0AC", "ID0R", "PPBR"}  # what the simulated machine's power says, whatever the table said
MORE = "RPlt,ch8*,3,80,4A3133,00\nzFAN,{fds,6,80,00000A004578,00\n"  # left out; not left out


def rows(table):
    """Key -> type, size, attributes, bytes, result; in the table's order, spelt in one way."""
    keys = {}
    for line in table.splitlines()[1:]:
        names, size, attributes, value, result = line.rsplit(",", 4)
        kind, value = names[5:].replace("\\0", "\0").ljust(4), value.replace("NOT READABLE", "")
        result = "85" if value == "" and (result == "00" or int(size) > 32) else result
        if value == "" or kind != "ch8*" and (int(size) <= 4 or kind in ("ioft", "{fds")):
            keys[names[:4]] = kind, size, attributes or "80", names[:4] in LIVE or value, result
    return keys


@unittest.skipIf(sys.platform == "darwin", "the program dumps the real Mac there")
class KeyDumpTest(unittest.TestCase):
    def dump_of(self, model, made_from="--keys"):
        with Mac(model, "speed=0", made_from=made_from) as mac:
            return mac.tool("run", mac.path, "--", BIN / "key-dump")

    def dump_of_table(self, table):
        with tempfile.NamedTemporaryFile("w", suffix=".csv") as file:
            file.write(table)
            file.flush()
            return self.dump_of(file.name)

    def test_real_controllers(self):
        for file in TABLES:
            with self.subTest(file.name):
                table = file.read_text(encoding="utf-8-sig").rstrip("\n") + "\n" + MORE
                wanted, dumped = rows(table), rows(self.dump_of_table(table))
                if "#KEY" not in wanted:
                    dumped.pop("#KEY")
                self.assertEqual(list(dumped.items()), list(wanted.items()))

    def test_models(self):
        for line in Mac.tool("models").splitlines():
            with self.subTest(line):
                if not line.startswith("NoController"):
                    first = self.dump_of(line.split()[0], "--model")
                    self.assertGreater(first.count("\n"), 200)
                    self.assertEqual(self.dump_of_table(first), first)


if __name__ == "__main__":
    unittest.main()
