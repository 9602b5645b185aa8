"""The layer check (scripts/check-layers) finds includes that point up the
layers, by any spelling, and lets the others pass."""

import importlib.machinery
import importlib.util
import os
import tempfile
import unittest

TOP = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
loader = importlib.machinery.SourceFileLoader("check_layers", os.path.join(TOP, "scripts", "check-layers"))
spec = importlib.util.spec_from_loader("check_layers", loader)
check_layers = importlib.util.module_from_spec(spec)
loader.exec_module(check_layers)


class Tree:
    def __init__(self, top):
        self.top = top

    def write(self, rel, text=""):
        path = os.path.join(self.top, rel)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w") as f:
            f.write(text)


class CheckLayersTest(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.TemporaryDirectory()
        self.tree = Tree(self.dir.name)
        for header in ("platform/Kiv/Ptr.h", "platform/Schema/Mfib/Route.h", "Mfib/MfibDir.h",
                       "MrouteLib/MrouteLib.h", "tests/Vorn/VornTestUtil.h", "daemons/agent/Agent.h"):
            self.tree.write(header)

    def tearDown(self):
        self.dir.cleanup()

    def found(self):
        return check_layers.violations(self.dir.name)

    def test_upward_includes_are_found_whatever_the_spelling(self):
        self.tree.write("platform/Schema/Mfib/Status.h", '#include "Kiv/Ptr.h"\n#include "Mfib/MfibDir.h"\n')
        self.tree.write("platform/Vorn/Table.cpp", '#include <MrouteLib/MrouteLib.h>\n')
        self.tree.write("platform/Stelo/Mount.cpp", '#include "../../Mfib/MfibDir.h"\n')
        self.tree.write("MrouteLib/Route.cpp", '  #  include "tests/Vorn/VornTestUtil.h"\n')
        self.tree.write("Mfib/Dir.cpp", '#include "daemons/agent/Agent.h"\n')
        self.assertEqual(self.found(), [
            "Mfib/Dir.cpp:1: library file includes daemons/agent/Agent.h (programs layer)",
            "MrouteLib/Route.cpp:1: library file includes tests/Vorn/VornTestUtil.h (programs layer)",
            "platform/Schema/Mfib/Status.h:2: platform file includes Mfib/MfibDir.h (library layer)",
            "platform/Stelo/Mount.cpp:1: platform file includes ../../Mfib/MfibDir.h (library layer)",
            "platform/Vorn/Table.cpp:1: platform file includes MrouteLib/MrouteLib.h (library layer)",
        ])

    def test_downward_and_unknown_includes_pass(self):
        self.tree.write("platform/Schema/Mfib/Status.h",
                        '#include "Kiv/Ptr.h"\n#include "Schema/Mfib/Route.h"\n#include "Route.h"\n')
        self.tree.write("MrouteLib/Route.cpp", '#include "Schema/Mfib/Route.h"\n#include "MrouteLib/MrouteLib.h"\n'
                        '#include <vector>\n#include "MrouteVersion.h"\n')
        self.tree.write("tests/Mfib/DirTest.cpp", '#include "Mfib/MfibDir.h"\n#include "daemons/agent/Agent.h"\n')
        # A header spelled like a library one that exists only in platform/ is the platform's.
        self.tree.write("platform/Wirly/Sock.cpp", '#include "Kiv/Ptr.h"\n// #include "Mfib/MfibDir.h"\n')
        # Build trees hold copies of sources: never checked.
        self.tree.write("build/default/platform/Kiv/Copy.h", '#include "Mfib/MfibDir.h"\n')
        self.assertEqual(self.found(), [])

if __name__ == "__main__":
    unittest.main()
