#!/usr/bin/env python3
"""scripts/check_layers against copies of the sources, each with one thing put wrong.

QUIL_SOURCE is the source folder (default: the checkout that this file is in).
"""

import os
import shutil
import subprocess
import sys
import tempfile
import unittest

SOURCE = os.environ.get("QUIL_SOURCE") or os.path.join(os.path.dirname(os.path.realpath(__file__)), "../..")
TREES = ["agent", "client", "examples", "platform", "ppsd", "pushsim", "tools"]


def run_check(root):
    """(exit status, lines of both outputs)"""
    ran = subprocess.run([sys.executable, os.path.join(SOURCE, "scripts/check_layers"), "--root", root],
                         stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    return ran.returncode, ran.stdout.splitlines()


class CheckLayers(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.root = scratch.name
        for tree in TREES:
            shutil.copytree(os.path.join(SOURCE, tree), os.path.join(self.root, tree),
                            ignore=lambda folder, names: [name for name in names
                                                          if os.path.isfile(os.path.join(folder, name))
                                                          and not name.endswith((".hpp", ".cpp"))])
        self.before = set(run_check(self.root)[1])

    def write(self, path, text):
        path = os.path.join(self.root, path)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)

    def prepend(self, path, text):
        """Puts `text` before the first line of a file that is there."""
        with open(os.path.join(self.root, path), encoding="utf-8") as file:
            rest = file.read()
        self.write(path, text + rest)

    def append(self, path, text):
        with open(os.path.join(self.root, path), encoding="utf-8") as file:
            rest = file.read()
        self.write(path, rest + text)

    def check_finds(self, *expected):
        """The check fails, and says each of `expected` in a line that it did not say before."""
        status, lines = run_check(self.root)
        said = [line for line in lines if line not in self.before]
        self.assertEqual(status, 1, "\n".join(lines))
        for text in expected:
            self.assertTrue(any(text in line for line in said), f"'{text}' is not in:\n" + "\n".join(said))

    def check_finds_nothing_new(self):
        said = [line for line in run_check(self.root)[1] if line not in self.before and not line.startswith("layers: ")]
        self.assertEqual(said, [])

    def test_SourcesAsTheyArePass(self):
        status, lines = run_check(self.root)
        self.assertEqual(status, 0, "\n".join(lines))

    def test_NothingToLookAtIsNoSuccess(self):
        with tempfile.TemporaryDirectory() as empty:
            self.assertEqual(run_check(empty)[0], 2)

    # Rooms.

    def test_IncludeOfAHigherRoomIsFoundInASourceFile(self):
        self.write("agent/process/probe.hpp", "#pragma once\n")
        self.write("agent/support/probe.cpp", '// A comment.\n#include "agent/process/probe.hpp"\n')
        self.check_finds("agent/support/probe.cpp:2: agent/support must not include agent/process/probe.hpp")

    def test_IncludeOfAHigherRoomIsFoundInAHeader(self):
        self.prepend("ppsd/store/store.hpp", '#include "ppsd/fuse/open_files.hpp"\n')
        self.check_finds("ppsd/store/store.hpp:1: ppsd/store must not include ppsd/fuse/open_files.hpp",
                         "circle of rooms: ppsd/fuse, ppsd/store")

    def test_RoomsOfOneHeightDoNotKnowEachOther(self):
        for room, other in [("sessions", "messages"), ("messages", "sessions"), ("registration", "pushes"),
                            ("pushes", "registration"), ("requests", "registration")]:
            self.write(f"agent/{other}/{room}_probe.hpp", "#pragma once\n")
            self.write(f"agent/{room}/{other}_probe.cpp", f'#include "agent/{other}/{room}_probe.hpp"\n')
            self.check_finds(f"agent/{room}/{other}_probe.cpp:1: agent/{room} must not include")

    def test_IncludeBackUpIsFoundInEveryTree(self):
        for path, included in [("platform/root/root.cpp", "tools/common/terminal.hpp"),
                               ("tools/common/terminal.cpp", "tools/quilctl/verbs.hpp"),
                               ("tools/ppsctl/verbs.cpp", "tools/quilctl/verbs.hpp"),
                               ("client/include/quilclient/result.hpp", "client/messages.hpp"),
                               ("pushsim/push.cpp", "platform/root/root.hpp"),
                               ("examples/listen.cpp", "client/connection.hpp")]:
            self.prepend(path, f'#include "{included}"\n')
            self.check_finds(f"{path}:1: {os.path.dirname(path)} must not include {included}")

    def test_IncludeByARelativePathIsFollowed(self):
        self.prepend("tools/common/terminal.cpp", '#include "../quilctl/verbs.hpp"\n')
        self.check_finds("tools/common/terminal.cpp:1: tools/common must not include tools/quilctl/verbs.hpp")

    def test_IncludeThatCannotBeFollowedIsFound(self):
        self.prepend("tools/common/terminal.cpp", '#include HEADER\n#include "tools/common/no_such.hpp"\n')
        self.check_finds("tools/common/terminal.cpp:1: cannot follow #include HEADER",
                         "tools/common/terminal.cpp:2: tools/common/no_such.hpp is not there")

    def test_IncludeInACommentIsNone(self):
        self.prepend("tools/common/terminal.cpp",
                     '// #include "tools/quilctl/verbs.hpp"\n/*\n#include "tools/quilctl/verbs.hpp"\n*/\n')
        self.check_finds_nothing_new()

    def test_FolderWithoutARoomIsFound(self):
        self.write("agent/elsewhere/probe.hpp", "#pragma once\n")
        self.check_finds("agent/elsewhere/probe.hpp:1: the folder agent/elsewhere is no room")

    def test_StoreIncludesNoFuse(self):
        self.prepend("ppsd/store/disk.cpp", "#include <fuse_lowlevel.h>\n")
        self.check_finds("ppsd/store/disk.cpp:1: ppsd/store must not include fuse_lowlevel.h")

    # Circles.

    def test_CircleOfHeadersIsFound(self):
        self.prepend("platform/pps/text.hpp", '#include "platform/pps/probe.hpp"\n')
        self.write("platform/pps/probe.hpp", '#include "platform/pps/text.hpp"\n')
        self.check_finds("circle of units: platform/pps/probe, platform/pps/text",
                         "platform/pps/text.hpp:1: includes platform/pps/probe.hpp",
                         "platform/pps/probe.hpp:1: includes platform/pps/text.hpp")

    def test_CircleThatOnlySourceFilesCloseIsFound(self):
        self.prepend("platform/pps/text.cpp", '#include "platform/pps/encoder.hpp"\n')
        self.check_finds("circle of units: platform/pps/encoder, platform/pps/text",
                         "platform/pps/text.cpp:1: includes platform/pps/encoder.hpp",
                         "includes platform/pps/text.hpp")

    def test_CircleOfThreeUnitsIsFoundWithAllItsIncludes(self):
        self.write("agent/pushes/probe_a.hpp", "#pragma once\n")
        self.write("agent/pushes/probe_a.cpp", '#include "agent/pushes/probe_b.hpp"\n')
        self.write("agent/pushes/probe_b.hpp", '#include "agent/pushes/probe_c.hpp"\n')
        self.write("agent/pushes/probe_c.hpp", "#pragma once\n")
        self.write("agent/pushes/probe_c.cpp", '#include "agent/pushes/probe_a.hpp"\n')
        self.check_finds("circle of units: agent/pushes/probe_a, agent/pushes/probe_b, agent/pushes/probe_c",
                         "agent/pushes/probe_a.cpp:1: includes agent/pushes/probe_b.hpp",
                         "agent/pushes/probe_b.hpp:1: includes agent/pushes/probe_c.hpp",
                         "agent/pushes/probe_c.cpp:1: includes agent/pushes/probe_a.hpp")

    def test_PublicHeaderAndItsSourceFileAreOneUnit(self):
        self.prepend("client/result.cpp", '#include "client/base64.hpp"\n')
        self.prepend("client/base64.cpp", '#include "quilclient/result.hpp"\n')
        self.check_finds("circle of units: client/base64, client/result")

    def test_SessionAndItsStatesMayKnowEachOther(self):
        self.write("agent/sessions/session.hpp",
                   '#include "agent/sessions/states/probe.hpp"\nclass QuilSession {};\n')
        self.write("agent/sessions/session.cpp", '#include "agent/sessions/session.hpp"\n')
        self.write("agent/sessions/states/probe.hpp", "class QuilSession;\n")
        self.write("agent/sessions/states/probe.cpp", '#include "agent/sessions/session.hpp"\n')
        self.check_finds_nothing_new()

    def test_StatesAmongThemselvesMayNot(self):
        self.write("agent/sessions/states/probe_a.hpp", '#include "agent/sessions/states/probe_b.hpp"\n')
        self.write("agent/sessions/states/probe_b.hpp", '#include "agent/sessions/states/probe_a.hpp"\n')
        self.check_finds("circle of units: agent/sessions/states/probe_a, agent/sessions/states/probe_b")

    def test_NobodyElseMayJoinASessionAndItsStates(self):
        self.write("agent/sessions/session.hpp", '#include "agent/sessions/probe.hpp"\n')
        self.write("agent/sessions/probe.hpp", '#include "agent/sessions/states/probe.hpp"\n')
        self.write("agent/sessions/states/probe.hpp", '#include "agent/sessions/session.hpp"\n')
        self.check_finds("circle of units: ", "agent/sessions/probe.hpp:1: includes agent/sessions/states/probe.hpp")

    # Around the includes.

    def test_FunctionDeclaredBesideItsHeaderIsFound(self):
        self.append("platform/pps/text.cpp", "void pps_encoder_reset(pps_encoder_t* encoder);\n")
        self.append("tools/common/terminal.cpp", "\nextern ExitStatus\nmakeRequest(int number);\n")
        self.check_finds("declares pps_encoder_reset, which is of platform/pps/encoder", "platform/pps/text.cpp:",
                         "declares makeRequest, which is of tools/quilctl/verbs", "tools/common/terminal.cpp:")

    def test_FunctionDeclaredInsideAnotherIsFound(self):
        self.append("platform/root/root.cpp", "void probe() {\n    void slogf(unsigned code);\n    slogf(1);\n}\n")
        self.check_finds("platform/root/root.cpp:", "declares slogf, which is of platform/slog/slog")

    def test_FunctionDeclaredInANamespaceIsFound(self):
        self.append("client/base64.cpp", "namespace quilclient {\nbool isAnswered(Verb verb);\n}\n")
        self.check_finds("client/base64.cpp:", "declares isAnswered, which is of client/messages")

    def test_FunctionWithoutAHeaderIsFoundWhereSomebodyElseDeclaresIt(self):
        self.write("agent/process/probe.cpp", "void probeWakeUp() {\n}\n")
        self.write("agent/support/probe.cpp", 'extern "C" {\nvoid probeWakeUp();\n}\n')
        self.check_finds("agent/support/probe.cpp:2: declares probeWakeUp, which is of agent/process/probe")

    def test_VariableDeclaredBesideItsHeaderIsFound(self):
        self.write("agent/process/probe.hpp", "extern int g_probe;\n")
        self.write("agent/process/probe.cpp", '#include "agent/process/probe.hpp"\nint g_probe = 1;\n')
        self.write("agent/support/probe.cpp", "extern int g_probe;\n")
        self.check_finds("agent/support/probe.cpp:1: declares g_probe, which is of agent/process/probe")

    def test_HeaderWhoseFunctionIsDefinedInAnotherUnitIsFound(self):
        self.write("agent/support/probe_wake_up.hpp", "void probeWakeUp();\n")
        self.write("agent/process/probe.cpp", '#include "agent/support/probe_wake_up.hpp"\nvoid probeWakeUp() {\n}\n')
        self.check_finds("agent/support/probe_wake_up.hpp:1: declares probeWakeUp, which is of agent/process/probe")

    def test_MethodDefinedInAnotherUnitIsFound(self):
        self.write("agent/support/probe.hpp", "class Probe {\n  public:\n    static void wake();\n};\n")
        self.write("agent/process/loop.cpp", '#include "agent/support/probe.hpp"\n\nvoid Probe::wake() {\n}\n')
        self.check_finds("agent/process/loop.cpp:3: defines a method of Probe, which is of agent/support/probe")

    def test_ClassOfAHigherRoomIsNotEvenNamed(self):
        self.write("agent/process/probe.hpp", "class Probe {};\n")
        self.write("agent/support/probe.hpp", "class Probe;\nvoid wake(Probe* probe);\n")
        self.check_finds("agent/support/probe.hpp:1: agent/support must not know Probe of agent/process")

    def test_OwnNamesAreNobodyElses(self):
        self.write("agent/process/probe.hpp", "void probe();\nclass Shared {\n    void run();\n};\n")
        self.write("agent/process/probe.cpp", '#include "agent/process/probe.hpp"\nvoid probe() {\n}\n')
        self.write("agent/support/probe.cpp",
                   "namespace {\nvoid probe();\nclass Shared {\n    void run();\n};\nvoid Shared::run() {\n}\n}\n"
                   "static void probe();\nvoid call(Shared& one) {\n    one.probe();\n    return probe();\n}\n")
        self.check_finds_nothing_new()


if __name__ == "__main__":
    unittest.main()
