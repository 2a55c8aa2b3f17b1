"""The programs as they were built: what makes a mistake in them hard to use (docs/security.md)."""

import glob
import os
import re
import subprocess
import unittest

import world

PROGRAMS = ("orvagentsim", "orvbrokerd", "orvctl")
LIBRARIES = ("daemons", "libs", "platform", "tools")
ENDBR = {b"\xf3\x0f\x1e\xfa", b"\xf3\x0f\x1e\xfb"}  # of 64 bits, of 32


def readelf(*arguments):
    return subprocess.run(["readelf", "--wide", *arguments], stdout=subprocess.PIPE, text=True, check=True).stdout


def linked(name):
    """The program itself, not the script that may stand before it."""
    emulated = os.path.join(world.BIN, "emulated", name)
    return emulated if os.path.exists(emulated) else world.program(name)


def machine():
    return re.search(r"Machine: +(.+)", readelf("--file-header", linked("orvbrokerd")))[1]


class Segment:
    def __init__(self, line):
        kind, offset, address, _, _, size, flags = re.match(
            r" +(\S+) +(\S+) (\S+) (\S+) (\S+) (\S+) ((?:[RWE] ?| )+)", line).groups()
        self.kind = kind
        self.begin = int(address, 16)
        self.end = self.begin + int(size, 16)
        self.to_offset = int(offset, 16) - self.begin
        self.flags = flags.replace(" ", "")


class Program:
    def __init__(self, name):
        self.path = linked(name)
        self.segments = [Segment(line) for line in readelf("--segments", self.path).splitlines()
                         if re.match(r" +[A-Z_]+ +0x", line)]

    def of_kind(self, kind):
        return [segment for segment in self.segments if segment.kind == kind]

    def sections(self):
        """Names with where they begin and end."""
        for name, begin, size in re.findall(r"\] (\S+) +\S+ +([0-9a-f]+) [0-9a-f]+ ([0-9a-f]+) ",
                                            readelf("--sections", self.path)):
            yield name, int(begin, 16), int(begin, 16) + int(size, 16)

    def bytes_at(self, address, count):
        segment = next(one for one in self.of_kind("LOAD") if one.begin <= address < one.end)
        with open(self.path, "rb") as file:
            file.seek(address + segment.to_offset)
            return file.read(count)


class Linking(unittest.TestCase):
    def each(self, check):
        for name in PROGRAMS:
            with self.subTest(name):
                check(Program(name))

    def test_a_program_can_be_at_any_address(self):
        def check(program):
            self.assertRegex(readelf("--file-header", program.path), r"Type: +DYN ")
            self.assertNotIn("TEXTREL", readelf("--dynamic", program.path))

        self.each(check)

    def test_its_tables_of_functions_are_complete_and_read_only_before_it_begins(self):
        def check(program):
            self.assertRegex(readelf("--dynamic", program.path), r"\(FLAGS_1\) +Flags: NOW")
            (protected,) = program.of_kind("GNU_RELRO")
            tables = [(begin, end) for name, begin, end in program.sections()
                      if name in (".got", ".got.plt", ".init_array", ".data.rel.ro", ".dynamic")]
            self.assertGreater(len(tables), 2)
            for begin, end in tables:
                self.assertTrue(protected.begin <= begin and end <= protected.end, hex(begin))

        self.each(check)

    def test_nothing_that_can_be_written_can_be_run(self):
        def check(program):
            self.assertEqual([stack.flags for stack in program.of_kind("GNU_STACK")], ["RW"])
            self.assertEqual([part.flags for part in program.of_kind("LOAD") if {"W", "E"} <= set(part.flags)], [])

        self.each(check)


class Running(world.ServedTestCase):
    def mappings(self, path):
        """Of a file's parts in the daemon's memory where they begin and end, and what may be done there."""
        with open("/proc/%d/maps" % self.served.daemon.pid, encoding="utf-8") as file:
            for line in file:
                fields = line.split()
                if fields[-1] == os.path.realpath(path):
                    begin, end = fields[0].split("-")
                    yield int(begin, 16), int(end, 16), fields[1]

    def test_the_daemons_tables_of_functions_cannot_be_written_to(self):
        program = Program("orvbrokerd")
        mappings = list(self.mappings(program.path))
        lowest = min(part.begin for part in program.of_kind("LOAD"))
        moved = mappings[0][0] - (lowest & ~0xfff)
        (protected,) = program.of_kind("GNU_RELRO")
        place = protected.begin + moved
        self.assertEqual([access for begin, end, access in mappings if begin <= place < end], ["r--p"])


class Compiling(unittest.TestCase):
    """Looks at our own libraries, of which the programs are made: others' have what their makers gave them."""

    def libraries(self):
        found = [path for folder in LIBRARIES
                 for path in glob.glob(os.path.join(world.BUILD, folder, "**", "*.a"), recursive=True)]
        self.assertGreater(len(found), 8)
        return found

    def test_functions_with_buffers_guard_the_stack(self):
        for library in self.libraries():
            self.assertIn(" UND __stack_chk_fail", readelf("--symbols", library), library)

    def test_copies_are_checked_where_the_c_library_can(self):
        if world.configured()["CMAKE_BUILD_TYPE"] != "Release" or not re.search(
                r"interpreter: .*/ld-linux", readelf("--segments", linked("orvbrokerd"))):
            self.skipTest("only what is optimised is checked, and by glibc only")
        checked = set()
        for library in self.libraries():
            checked.update(re.findall(r" UND (__(?:mem|str|sn?printf)\w*_chk)", readelf("--symbols", library)))
        self.assertIn("__memcpy_chk", checked)

    def test_control_flow_is_guarded_where_the_processor_can(self):
        features = {"X86-64": "IBT, SHSTK", "80386": "IBT, SHSTK", "AArch64": "BTI, PAC"}.get(
            re.sub(r".* ", "", machine()))
        if not features:
            self.skipTest("the processor has nothing for it")
        for library in self.libraries():
            objects = readelf("--notes", library).split("\nFile: ")[1:]
            self.assertGreater(len(objects), 0, library)
            self.assertEqual([each.splitlines()[0] for each in objects if features not in each], [])

    def test_programs_begin_where_a_jump_may_lead_to(self):
        if "86" not in machine():
            self.skipTest("the instruction is one of x86")
        for name in PROGRAMS:
            program = Program(name)
            main = re.search(r": ([0-9a-f]+) +\d+ FUNC .* main$", readelf("--symbols", program.path), re.MULTILINE)[1]
            self.assertIn(program.bytes_at(int(main, 16), 4), ENDBR, name)


if __name__ == "__main__":
    world.main()
