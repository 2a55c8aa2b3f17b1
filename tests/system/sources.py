"""What the tests' sources say of themselves: for documents that name tests."""

import os
import re

ROOT = os.path.realpath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", ".."))


def test_names(root=ROOT):
    """Every test's name: "Suite.Test" of a C++ one, "system.test_file Class.test_name" of a Python one."""
    names = set()
    for folder in ("tests", "libs"):
        for directory, _, files in os.walk(os.path.join(root, folder)):
            for name in files:
                if name.endswith(".cpp"):
                    names.update(_in_cpp(_text(directory, name)))
                elif name.startswith("test_") and name.endswith(".py"):
                    names.update(_in_python(name[:-len(".py")], _text(directory, name)))
    return names


def _text(directory, name):
    with open(os.path.join(directory, name), encoding="utf-8", errors="replace") as file:
        return file.read()


def _in_cpp(text):
    return (".".join(found) for found in re.findall(r"^TEST(?:_[FP])?\((\w+), (\w+)\)", text, re.MULTILINE))


def _in_python(module, text):
    for part in re.split(r"(?m)^class ", text)[1:]:
        for case in re.findall(r"^    def (test_\w+)", part, re.MULTILINE):
            yield "system.%s %s.%s" % (module, re.match(r"\w+", part)[0], case)
