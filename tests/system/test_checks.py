"""The checks of the sources that CI makes, each in a small tree of its own."""

import os
import re
import shutil
import subprocess
import tempfile
import unittest

import world

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")


class Includes(unittest.TestCase):
    """scripts/check-includes"""

    def setUp(self):
        self.tree = tempfile.mkdtemp(prefix="orv-checks-", dir="/tmp")
        self.addCleanup(shutil.rmtree, self.tree, ignore_errors=True)
        self.write("scripts/check-includes")
        shutil.copy(os.path.join(ROOT, "scripts", "check-includes"), os.path.join(self.tree, "scripts"))
        subprocess.run(["git", "init", "-q", self.tree], check=True)

    def write(self, name, *included):
        """A source with these includes, each as it is spelled: "x.h" or <x.h>."""
        path = os.path.join(self.tree, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w", encoding="utf-8") as source:
            source.write("// What it is.\n" + "".join("#include %s\n" % each for each in included))

    def findings(self, *arguments):
        """What the script tells of the files that are written; it fails when it tells something."""
        subprocess.run(["git", "-C", self.tree, "add", "--all"], check=True)
        result = subprocess.run([os.path.join(self.tree, "scripts", "check-includes"), *arguments],
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=world.DEADLINE, text=True,
                                check=False)
        self.assertEqual((result.returncode, result.stdout), (1 if result.stderr else 0, ""), result.stderr)
        return result.stderr.splitlines()

    def test_a_tree_in_order_is_passed_without_a_word(self):
        self.write("platform/include/orvutils/log.h", "<string>")
        self.write("platform/orvbase/include/orvbase/clock.h", "<ctime>")
        self.write("platform/orvstore/include/orvstore/store.h", "<orvbase/clock.h>")
        self.write("platform/orvstore/store.cpp", "<orvstore/store.h>", "<lmdb.h>")
        self.write("platform/orvutils/log.cpp", "<orvutils/log.h>", '"log_state.h"', "<orvstore/store.h>")
        self.write("platform/orvutils/log_state.h")
        self.write("platform/include/orvexchange/orvexchange.h")
        self.write("platform/orvexchange/link.h", "<orvexchange/orvexchange.h>")
        self.write("platform/orvexchange/orvexchange.cpp", '"link.h"', "<orvutils/log.h>", "<dbus/dbus.h>")
        self.write("platform/orvkarma/orvkarma.cpp", "<orvexchange/orvexchange.h>")
        self.write("libs/orvbroker-client/include/orvbroker/client.h")
        self.write("libs/orvutils/include_cpp/orvutils/orvcommon/cache.h", "<orvutils/log.h>")
        self.write("daemons/orvbrokerd/src/answer.h", "<orvutils/log.h>", "<orvutils/orvcommon/cache.h>")
        self.write("daemons/orvbrokerd/src/sock.h", '"answer.h"')
        self.write("daemons/orvbrokerd/src/main.cpp", '"sock.h"')
        self.write("tools/orvctl/main.cpp", "<orvbroker/client.h>", "<orvstore/store.h>", "<unistd.h>")
        self.write("examples/client.cpp", "<orvbroker/client.h>")
        self.write("bench/load.cpp", "<orvexchange/orvexchange.h>", "<dbus/dbus.h>")
        self.write("tests/platform/link_test.cpp", '"link.h"', '"log_state.h"', "<dbus/dbus.h>", "<lmdb.h>")
        self.assertEqual(self.findings(), [])

    def test_units_of_one_library_that_include_each_other_are_a_circle(self):
        self.write("tools/orvctl/a.h", '"b.h"')
        self.write("tools/orvctl/b.h")
        self.write("tools/orvctl/b.cpp", '"b.h"', '"c.h"')
        self.write("tools/orvctl/c.h", '"a.h"')
        self.write("tools/orvctl/main.cpp", '"a.h"', '"c.h"')
        self.assertEqual(self.findings(), ["tools/orvctl: a circle: a -> b -> c -> a"])

    def test_a_header_apart_in_its_include_folder_is_one_unit_with_its_source(self):
        self.write("libs/orvbroker-client/include/orvbroker/text.h")
        self.write("libs/orvbroker-client/src/text.cpp", "<orvbroker/text.h>", '"deadline.h"')
        self.write("libs/orvbroker-client/src/deadline.h", "<orvbroker/text.h>")
        self.assertEqual(self.findings(), ["libs/orvbroker-client: a circle: deadline -> text -> deadline"])

    def test_each_circle_is_told(self):
        for pair in ("ab", "xy"):
            self.write("tools/orvctl/%s.h" % pair[0], '"%s.h"' % pair[1])
            self.write("tools/orvctl/%s.h" % pair[1], '"%s.h"' % pair[0])
        self.assertEqual(self.findings(), ["tools/orvctl: a circle: a -> b -> a", "tools/orvctl: a circle: x -> y -> x"])

    def test_a_leaf_of_the_daemon_must_not_include_a_role(self):
        self.write("daemons/orvbrokerd/src/orvex.h")
        self.write("daemons/orvbrokerd/src/answer.cpp", '"orvex.h"')
        self.assertEqual(self.findings(), [
            "daemons/orvbrokerd/src/answer.cpp:2: the leaf answer must not use the role orvex"])

    def test_libraries_use_those_below_them_only(self):
        self.write("platform/orvbase/include/orvbase/clock.h")
        self.write("platform/include/orvutils/log.h")
        self.write("platform/include/orvexchange/orvexchange.h")
        self.write("libs/orvbroker-client/include/orvbroker/client.h")
        self.write("daemons/orvbrokerd/src/sock.cpp", "<orvbase/clock.h>")
        self.write("libs/orvbroker-client/src/client.cpp", "<orvutils/log.h>")
        self.write("platform/orvbase/clock.cpp", "<orvutils/log.h>")
        self.write("platform/orvdevmgmt/changes.cpp", "<orvexchange/orvexchange.h>")
        self.write("platform/orvutils/log.cpp", "<orvbroker/client.h>")
        self.assertEqual(self.findings(), [
            "daemons/orvbrokerd/src/sock.cpp:2: daemons/orvbrokerd must not use platform/orvbase "
            "(platform/orvbase/include/orvbase/clock.h)",
            "libs/orvbroker-client/src/client.cpp:2: libs/orvbroker-client must not use platform/orvutils "
            "(platform/include/orvutils/log.h)",
            "platform/orvbase/clock.cpp:2: platform/orvbase must not use platform/orvutils "
            "(platform/include/orvutils/log.h)",
            "platform/orvdevmgmt/changes.cpp:2: platform/orvdevmgmt must not use platform/orvexchange "
            "(platform/include/orvexchange/orvexchange.h)",
            "platform/orvutils/log.cpp:2: platform/orvutils must not use libs/orvbroker-client "
            "(libs/orvbroker-client/include/orvbroker/client.h)"])

    def test_nobody_but_tests_uses_tests_and_no_tool_another(self):
        self.write("tests/unit/fixture.h")
        self.write("tests/platform/one_test.cpp", '"../unit/fixture.h"')
        self.write("tools/orvctl/output.h")
        self.write("tools/orvagentsim/main.cpp", '"../../tests/unit/fixture.h"', '"../orvctl/output.h"')
        self.write("bench/wire.h")
        self.write("tools/orvctl/main.cpp", '"../../bench/wire.h"')
        self.assertEqual(self.findings(), [
            "tools/orvagentsim/main.cpp:2: tools/orvagentsim must not use tests/unit (tests/unit/fixture.h)",
            "tools/orvagentsim/main.cpp:3: tools/orvagentsim must not use tools/orvctl (tools/orvctl/output.h)",
            "tools/orvctl/main.cpp:2: tools/orvctl must not use bench (bench/wire.h)"])

    def test_another_librarys_private_header_is_found_however_it_is_spelled(self):
        self.write("platform/orvutils/root.h")
        self.write("libs/orvbroker-client/include/orvbroker/client.h")
        self.write("libs/orvbroker-client/src/deadline.h")
        self.write("platform/orvexchange/a.cpp", '"../orvutils/root.h"')
        self.write("platform/orvexchange/b.cpp", '"root.h"')
        self.write("platform/orvexchange/c.cpp", "<root.h>")
        self.write("tools/orvctl/waiting.h", '"src/deadline.h"', "<deadline.h>")
        private = "platform/orvutils/root.h is private to platform/orvutils"
        deadline = "libs/orvbroker-client/src/deadline.h is private to libs/orvbroker-client"
        self.assertEqual(self.findings(), [
            "platform/orvexchange/a.cpp:2: " + private,
            "platform/orvexchange/b.cpp:2: " + private,
            "platform/orvexchange/c.cpp:2: " + private,
            "tools/orvctl/waiting.h:2: " + deadline,
            "tools/orvctl/waiting.h:3: " + deadline])

    def test_a_folders_own_header_comes_before_one_of_the_same_name_elsewhere(self):
        self.write("platform/orvutils/root.h")
        self.write("platform/orvexchange/root.h")
        self.write("platform/orvexchange/parts/a.cpp", '"root.h"')
        self.assertEqual(self.findings(), [])

    def test_headers_of_the_bus_and_of_the_store_stand_behind_one_library_each(self):
        self.write("platform/orvstore/environment.cpp", "<lmdb.h>")
        self.write("platform/orvutils/settings.cpp", "<lmdb.h>")
        self.write("daemons/orvbrokerd/src/sock.cpp", "<lmdb.h>", "<dbus/dbus.h>")
        self.assertEqual(self.findings(), [
            "daemons/orvbrokerd/src/sock.cpp:2: LMDB stands behind platform/orvstore alone (lmdb.h)",
            "daemons/orvbrokerd/src/sock.cpp:3: D-Bus stands behind platform/orvexchange alone (dbus/dbus.h)",
            "platform/orvutils/settings.cpp:2: LMDB stands behind platform/orvstore alone (lmdb.h)"])

    def test_a_tool_keeps_out_of_detail_headers(self):
        self.write("platform/orvstore/include/orvstore/detail/pages.h")
        self.write("platform/orvstore/pages.cpp", "<orvstore/detail/pages.h>")
        self.write("tools/orvctl/stores.cpp", "<orvstore/detail/pages.h>")
        self.assertEqual(self.findings(), [
            "tools/orvctl/stores.cpp:2: a tool must not use the detail "
            "platform/orvstore/include/orvstore/detail/pages.h"])

    def test_nothing_to_look_at_is_not_nothing_to_find(self):
        self.assertEqual(self.findings(), ["scripts/check-includes: git lists no sources"])
        self.write("tools/orvctl/main.cpp")
        shutil.rmtree(os.path.join(self.tree, ".git"))
        result = subprocess.run([os.path.join(self.tree, "scripts", "check-includes")], stderr=subprocess.PIPE,
                                timeout=world.DEADLINE, check=False)
        self.assertEqual(result.returncode, 1, result.stderr)


class Notices(unittest.TestCase):
    """NOTICES, which goes with the programs"""

    # What the build looks for, but does not put into the programs that are installed.
    NOT_LINKED = {"PkgConfig", "Threads", "GTest", "Python3"}

    def libraries(self):
        files = subprocess.run(["git", "-C", ROOT, "ls-files", "*CMakeLists.txt", "*.cmake"], stdout=subprocess.PIPE,
                               text=True, check=True).stdout.split()
        for name in files:
            with open(os.path.join(ROOT, name), encoding="utf-8") as file:
                yield from re.findall(r"^\s*(?:find_package|pkg_check_modules)\((\w+)", file.read(), re.MULTILINE)

    def test_every_library_that_is_linked_is_named_with_its_licence(self):
        with open(os.path.join(ROOT, "NOTICES"), encoding="utf-8") as file:
            parts = re.split(r"^=+\n(.+)\n=+\n", file.read(), flags=re.MULTILINE)
        licences = dict(zip(parts[1::2], parts[2::2]))
        linked = set(self.libraries()) - self.NOT_LINKED
        self.assertTrue({"jansson", "lmdb", "dbus", "fmt", "CLI11"} <= linked, linked)
        for library in [*linked, "libstdc++ and libgcc", "musl"]:
            self.assertRegex(licences.get(library, "not named"), r"(?is)\A\s.*copyright .*(warranty|warranties)", library)
            for name in library.split(" and "):
                self.assertRegex(parts[0], r"(?m)^    %s " % re.escape(name), "the list at the top")


if __name__ == "__main__":
    world.main()
