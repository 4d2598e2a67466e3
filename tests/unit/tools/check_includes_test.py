"""Tests of tools/check/check_includes.py. Run by ctest; argument: the folder tools/check."""

import sys
import tempfile
import unittest
from pathlib import Path

sys.path.insert(0, sys.argv.pop(1))
import check_includes  # noqa: E402


class Tree(unittest.TestCase):
    """A tree of a few files in the rooms of the project."""

    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.root = Path(scratch.name).resolve()
        self.write("hostkit/line/Line.h", "#pragma once\n")
        self.write("hostkit/poll/PollLoop.h", '#pragma once\n#include "Line.h"\n')
        self.write("hostkit/poll/PollLoop.cpp", '#include "PollLoop.h"\n#include <vector>\n')

    def write(self, name, text):
        path = self.root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text, encoding="utf-8")

    def problems(self):
        return check_includes.problems(self.root)[0]


class Includes(Tree):
    def test_accepts_an_include_of_a_lower_room(self):
        self.assertEqual(self.problems(), [])

    def test_refuses_an_include_of_a_higher_room(self):
        self.write("hostkit/wire/Frame.cpp", '#include "Line.h"\n#include "PollLoop.h"\n')
        self.assertEqual(self.problems(), ["hostkit/wire/Frame.cpp:2: must not include hostkit/poll/PollLoop.h: "
                                           "hostkit/wire sees only common, hostkit/line"])

    def test_refuses_an_include_of_a_higher_room_by_a_relative_path(self):
        self.write("hostkit/line/Line.cpp", '#include "../poll/PollLoop.h"\n')
        self.assertIn("hostkit/line/Line.cpp:1: must not include hostkit/poll/PollLoop.h", self.problems()[0])

    def test_refuses_an_include_of_the_room_beside(self):
        self.write("hostkit/record/Recorder.cpp", '#include "PollLoop.h"\n')
        self.assertIn("hostkit/record/Recorder.cpp:1: must not include hostkit/poll/PollLoop.h", self.problems()[0])

    def test_refuses_an_include_of_the_host_kit_by_the_simulator_and_the_other_way(self):
        self.write("simulator/FaultScript.h", "#pragma once\n")
        self.write("simulator/FaultScript.cpp", '#include "Line.h"\n')
        self.write("hostkit/poll/Session.cpp", '#include "FaultScript.h"\n')
        self.assertEqual([problem.split(":")[0] for problem in self.problems()],
                         ["hostkit/poll/Session.cpp", "simulator/FaultScript.cpp"])

    def test_refuses_an_include_of_the_driver_by_the_simulator(self):
        self.write("src/Device_Driver.h", "#pragma once\n")
        self.write("simulator/FaultScript.cpp", '#include "Device_Driver.h"\n')
        self.assertIn("simulator/FaultScript.cpp:1: must not include src/Device_Driver.h", self.problems()[0])

    def test_lets_the_host_kit_see_the_declarations_of_the_driver_but_not_its_internals(self):
        self.write("src/Device_Driver.h", "#pragma once\n")
        self.write("src/internal/TagStore.h", "#pragma once\n")
        self.write("hostkit/driver/Driver.cpp", '#include "Device_Driver.h"\n#include "internal/TagStore.h"\n')
        self.assertEqual(len(self.problems()), 1)
        self.assertIn("hostkit/driver/Driver.cpp:2: must not include src/internal/TagStore.h", self.problems()[0])

    def test_lets_the_internals_of_the_driver_see_records_but_no_other_unit(self):
        self.write("src/Device_Driver.h", "#pragma once\n")
        self.write("src/Func_Read.h", "#pragma once\n")
        self.write("src/internal/TagStore.h", '#include "Device_Driver.h"\n#include "Func_Read.h"\n')
        self.assertEqual(len(self.problems()), 1)
        self.assertIn("src/internal/TagStore.h:2: must not include src/Func_Read.h", self.problems()[0])

    def test_takes_the_file_beside_the_includer_before_one_of_the_same_name_elsewhere(self):
        self.write("simulator/Line.h", "#pragma once\n")
        self.write("simulator/FaultScript.cpp", '#include "Line.h"\n')
        self.assertEqual(self.problems(), [])

    def test_refuses_a_name_that_two_visible_rooms_have(self):
        self.write("common/Line.h", "#pragma once\n")
        self.assertEqual(self.problems(), ['hostkit/poll/PollLoop.h: "Line.h" may be common/Line.h or '
                                           "hostkit/line/Line.h: rename one of them"])

    def test_refuses_a_folder_that_is_in_no_room(self):
        self.write("hostkit/attic/Old.h", "#pragma once\n")
        self.assertEqual(self.problems(), ["hostkit/attic/Old.h: the folder is in no room (add it to ROOMS)"])


class Circles(Tree):
    def test_refuses_headers_that_include_each_other(self):
        self.write("hostkit/poll/Session.h", '#include "Station.h"\n')
        self.write("hostkit/poll/Station.h", '#include "Session.h"\n')
        self.assertEqual(self.problems(),
                         ["a circle: hostkit/poll/Session -> hostkit/poll/Station -> hostkit/poll/Session"])

    def test_refuses_sources_that_use_each_other_through_their_headers(self):
        for one, other in (("Session", "Station"), ("Station", "Session")):
            self.write(f"hostkit/poll/{one}.h", "#pragma once\n")
            self.write(f"hostkit/poll/{one}.cpp", f'#include "{one}.h"\n#include "{other}.h"\n')
        self.assertEqual(self.problems(),
                         ["a circle: hostkit/poll/Session -> hostkit/poll/Station -> hostkit/poll/Session"])

    def test_lets_the_units_of_the_driver_call_each_other(self):
        for one, other in (("Func_Read", "Func_Write"), ("Func_Write", "Func_Read")):
            self.write(f"src/{one}.h", "#pragma once\n")
            self.write(f"src/{one}.cpp", f'#include "{one}.h"\n#include "{other}.h"\n')
        self.assertEqual(self.problems(), [])

    def test_refuses_headers_of_the_driver_that_include_each_other(self):
        self.write("src/Func_Read.h", '#include "Func_Write.h"\n')
        self.write("src/Func_Write.h", '#include "Func_Read.h"\n')
        self.assertEqual(self.problems(), ["a circle: src/Func_Read.h -> src/Func_Write.h -> src/Func_Read.h"])

    def test_refuses_programs_that_import_each_other(self):
        self.write("tools/bench/bench.py", "def main():\n    import report\n")
        self.write("tools/bench/report.py", "from bench import main\n")
        self.assertEqual(self.problems(),
                         ["a circle: tools/bench/bench.py -> tools/bench/report.py -> tools/bench/bench.py"])


if __name__ == "__main__":
    unittest.main()
