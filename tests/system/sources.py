"""What the tests' sources say of themselves: for documents that name tests."""

import os
import re
import unittest

ROOT = os.path.realpath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", ".."))


def missing_tests(names, root=ROOT):
    """Those of the names that no test has: "Suite.Test" of a C++ one, "system.test_file Class.test_name" of a Python one."""
    there = set(_of_cpp(root))
    return [name for name in names if name not in there and not _is_here(name)]


def _of_cpp(root):
    for folder in ("tests", "libs"):
        for directory, _, files in os.walk(os.path.join(root, folder)):
            for name in files:
                if name.endswith(".cpp"):
                    with open(os.path.join(directory, name), encoding="utf-8") as file:
                        for found in re.findall(r"^TEST(?:_[FP])?\((\w+), (\w+)\)", file.read(), re.MULTILINE):
                            yield ".".join(found)


def _is_here(name):
    place = re.fullmatch(r"system\.(test_\w+) (\w+\.test_\w+)", name)
    if not place:
        return False
    loader = unittest.TestLoader()
    loader.loadTestsFromName(".".join(place.groups()))
    return not loader.errors
