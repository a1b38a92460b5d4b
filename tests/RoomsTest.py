"""What scripts/rooms says of trees in which somebody left the rooms."""
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

ROOMS = Path(__file__).resolve().parent.parent / "scripts" / "rooms"
# Two rooms, one upon the other, and the ground that may speak to the kernel.
TABLE = ("ground:platform/linux/files:Files.h Files.cpp:\n"
         "model:Vornik:Model.h:ground\n"
         "daemon:vkd:Daemon.cpp:model\n")
TREE = {
    "platform/linux/files/Files.h": "#include <sys/stat.h>\n#include <string>\n",
    "platform/linux/files/Files.cpp": '#include "platform/linux/files/Files.h"\n',
    "Vornik/Model.h": '#include "platform/linux/files/Files.h"\n',
    "vkd/Daemon.cpp": '#include <vector>\n\n#include "Vornik/Model.h"\n',
}


class RoomsTest(unittest.TestCase):
    def said(self, changes, table=TABLE):
        with tempfile.TemporaryDirectory() as folder:
            tree = Path(folder)
            for path, text in {**TREE, **changes}.items():
                (tree / path).parent.mkdir(parents=True, exist_ok=True)
                (tree / path).write_text(text, encoding="utf-8")
            (tree / "rooms.txt").write_text(table, encoding="utf-8")
            result = subprocess.run([sys.executable, ROOMS, tree / "rooms.txt", tree], capture_output=True, text=True,
                                    check=False)
            self.assertEqual(result.returncode, 1 if result.stderr else 0)
            return result.stderr

    def test_a_tree_that_keeps_to_its_rooms(self):
        self.assertEqual(self.said({}), "")

    def test_each_way_of_leaving_them(self):
        daemon = TREE["vkd/Daemon.cpp"]
        for name, changes, table, expected in [
                ("a room further down", {"vkd/Daemon.cpp": daemon + '#include "platform/linux/files/Files.h"\n'}, TABLE,
                 'vkd/Daemon.cpp: "platform/linux/files/Files.h" is in ground, which daemon does not use'),
                ("a room further up", {"platform/linux/files/Files.h": '#include "Vornik/Model.h"\n'}, TABLE,
                 "platform/linux/files/Files.h: \"Vornik/Model.h\" is in model, which ground does not use"),
                ("no room at all", {"vkd/Daemon.cpp": daemon + '#  include "tests/Fakes.h"\n'}, TABLE,
                 'vkd/Daemon.cpp: "tests/Fakes.h" is in no room'),
                ("a file that nobody lists", {"vkd/New.cpp": ""}, TABLE, "vkd/New.cpp: no target lists it"),
                ("a room that is not needed", {}, TABLE.replace("model\n", "model ground\n"),
                 "vkd: daemon uses ground and includes nothing of it"),
                ("a circle", {}, TABLE.replace("Files.cpp:", "Files.cpp:daemon"),
                 "a circle: ground uses daemon uses model uses ground"),
                ("sockets", {"vkd/Daemon.cpp": daemon + "#include <sys/socket.h>\n"}, TABLE,
                 "vkd/Daemon.cpp: <sys/socket.h> belongs into platform/linux/"),
                ("threads", {"Vornik/Model.h": TREE["Vornik/Model.h"] + "#include <thread>\n"}, TABLE,
                 "Vornik/Model.h: <thread> belongs into platform/linux/"),
        ]:
            with self.subTest(name):
                self.assertIn(expected, self.said(changes, table))


if __name__ == "__main__":
    unittest.main()
