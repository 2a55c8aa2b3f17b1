#!/usr/bin/env python3
"""Who may include what of the platform: looks at the sources of the platform's libraries and of the tools."""

import os
import re
import tempfile
import unittest

TREE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))

# The libraries below each one. Those in parentheses are taken as the daemon sees them, in platform/include, alone:
# what stands behind may be somebody else's.
BELOW = {
    "orvbase": [],
    "orvstore": ["orvbase"],
    "orvutils": ["orvbase", "orvstore"],
    "orvexchange": ["orvbase", "(orvutils)"],
    "orvdevmgmt": ["orvbase", "orvstore", "(orvutils)"],
    "orvdiagnosis": ["orvbase", "(orvutils)", "orvexchange", "(orvdevmgmt)"],
    "orvkarma": ["orvbase", "orvstore", "(orvutils)", "(orvexchange)"],
}

# What the daemon uses of a namespace that is nobody else's business.
PUBLIC_DETAILS = ("orv::detail::print_common_path", "CLI::detail::")


def sources(tree, folder):
    for directory, _, names in os.walk(os.path.join(tree, folder)):
        for name in sorted(names):
            if name.endswith((".h", ".cpp")):
                yield os.path.relpath(os.path.join(directory, name), tree)


def read(tree, file):
    with open(os.path.join(tree, file), encoding="utf-8") as source:
        return source.read()


def includes(text):
    """Pairs of a quote or bracket and the name behind it."""
    return re.findall(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]', text, re.MULTILINE)


def is_file(tree, *parts):
    return os.path.isfile(os.path.join(tree, *parts))


def is_private(tree, name):
    """Whether a name is that of a header that stands beside some library's sources."""
    return any(os.path.basename(file) == os.path.basename(name) and "/include/" not in file
               for file in sources(tree, "platform") if file.endswith(".h"))


def fault_of_library(tree, file, bracket, name):
    library = file.split("/")[1]
    if bracket == '"':
        is_own = "/" not in name and is_file(tree, os.path.dirname(file), name)
        return None if is_own else "is not in the same folder"
    other = name.split("/")[0]
    if "/" not in name:
        return "is a private header" if is_private(tree, name) else None
    if other == library or other not in BELOW:
        return None
    if other in BELOW[library]:
        return None
    if "(%s)" % other not in BELOW[library]:
        return "is of a library that is not below %s" % library
    return None if is_file(tree, "platform/include", name) else "is not what the daemon sees of %s" % other


def fault_of_tool(tree, file, bracket, name):
    if bracket == '"':
        meant = os.path.normpath(os.path.join(os.path.dirname(file), name))
        return "is a private header" if meant.startswith("platform/") else None
    library = name.split("/")[0]
    if library in BELOW:
        public = is_file(tree, "platform/include", name) or is_file(tree, "platform", library, "include", name)
        return None if public else "is no public header"
    return "is a private header" if "/" not in name and is_private(tree, name) else None


def faults(tree):
    for file in sources(tree, "platform"):
        if file.startswith("platform/include/"):
            for bracket, name in includes(read(tree, file)):
                if name.startswith("orv") and not is_file(tree, "platform/include", name):
                    yield "%s: %s is not in platform/include" % (file, name)
            continue
        for bracket, name in includes(read(tree, file)):
            fault = fault_of_library(tree, file, bracket, name)
            if fault:
                yield "%s: %s %s" % (file, name, fault)
    for file in sources(tree, "tools"):
        text = read(tree, file)
        for bracket, name in includes(text):
            fault = fault_of_tool(tree, file, bracket, name)
            if fault:
                yield "%s: %s %s" % (file, name, fault)
        for use in re.findall(r"[\w:]*\bdetail::\w*", text):
            if not use.lstrip(":").startswith(PUBLIC_DETAILS):
                yield "%s: uses %s" % (file, use)


class HeadersTest(unittest.TestCase):
    def test_everybody_includes_only_what_is_meant_for_him(self):
        self.assertEqual(list(faults(TREE)), [])

    def test_the_libraries_are_those_that_are_there(self):
        folders = next(os.walk(os.path.join(TREE, "platform")))[1]
        self.assertEqual(set(folders) - {"include"}, set(BELOW))

    def planted(self, file, line):
        """What is found in a small tree with that line in that file."""
        with tempfile.TemporaryDirectory() as tree:
            for name in ("platform/include/orvutils/log.h", "platform/orvutils/include/orvutils/log_control.h",
                         "platform/orvstore/check.h", "platform/orvstore/include/orvstore/failure.h"):
                os.makedirs(os.path.join(tree, os.path.dirname(name)), exist_ok=True)
                open(os.path.join(tree, name), "w").close()
            os.makedirs(os.path.join(tree, os.path.dirname(file)), exist_ok=True)
            with open(os.path.join(tree, file), "w", encoding="utf-8") as source:
                source.write(line + "\n")
            return list(faults(tree))

    def test_what_is_allowed_is_not_found(self):
        for file, line in (("tools/orvctl/a.cpp", "#include <orvutils/log_control.h>"),
                           ("tools/orvctl/a.cpp", '#include "own.h"'),
                           ("tools/orvctl/a.cpp", "orv::detail::print_common_path(out, which);"),
                           ("platform/orvdevmgmt/a.cpp", "#include <orvutils/log.h>"),
                           ("platform/orvdevmgmt/a.cpp", "#include <orvstore/failure.h>"),
                           ("platform/orvstore/a.cpp", '#include "check.h"')):
            self.assertEqual(self.planted(file, line), [], line)

    def test_what_is_not_allowed_is_found(self):
        for file, line in (("tools/orvctl/a.cpp", "#include <check.h>"),
                           ("tools/orvctl/a.cpp", '#include "../../platform/orvstore/check.h"'),
                           ("tools/orvctl/a.cpp", "#include <orvstore/check.h>"),
                           ("tools/orvctl/a.cpp", "orv::detail::root_path();"),
                           ("tools/orvctl/a.cpp", "log::detail::g_threshold = 0;"),
                           ("platform/include/orvutils/a.h", "#include <orvutils/log_control.h>"),
                           ("platform/orvdevmgmt/a.cpp", "#include <orvutils/log_control.h>"),
                           ("platform/orvdevmgmt/a.cpp", '#include "../orvstore/check.h"'),
                           ("platform/orvdevmgmt/a.cpp", "#include <check.h>"),
                           ("platform/orvstore/a.cpp", "#include <orvutils/log.h>"),
                           ("platform/orvutils/a.cpp", "#include <orvexchange/orvexchange.h>")):
            self.assertEqual(len(self.planted(file, line)), 1, line)


if __name__ == "__main__":
    unittest.main()
