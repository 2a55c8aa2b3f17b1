"""Configuring the build: the versions of the libraries, the one place that names the root, the components."""

import glob
import os
import shutil
import subprocess
import tempfile
import unittest

import world

SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
LIMIT = 240  # seconds


class Scratch(unittest.TestCase):
    def setUp(self):
        self.scratch = tempfile.mkdtemp(prefix="orv-configure-", dir="/tmp")
        self.addCleanup(shutil.rmtree, self.scratch, ignore_errors=True)
        self.build = self.at("build")

    def at(self, *pieces):
        return os.path.join(self.scratch, *pieces)

    def write(self, name, text):
        os.makedirs(os.path.dirname(self.at(name)), exist_ok=True)
        with open(self.at(name), "w", encoding="utf-8") as file:
            file.write(text)

    def execute(self, *command, **environment):
        """Runs a command to its end; its exit status and all that it says, in one line."""
        result = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False,
                                env=dict(os.environ, **environment), timeout=LIMIT)
        return result.returncode, " ".join(result.stdout.split())

    def configure(self, *options, source=SOURCE, **environment):
        cache = world.configured()
        return self.execute(
            "cmake", "-G", cache["CMAKE_GENERATOR"], "-S", source, "-B", self.build, "-DCMAKE_BUILD_TYPE=Debug",
            *("-D%s=%s" % (name, shutil.which(cache[name])) for name in ("CMAKE_C_COMPILER", "CMAKE_CXX_COMPILER")),
            "-DORV_BUILD_TESTS=OFF", *options, **environment)


class Versions(Scratch):
    def given(self, *names):
        """Programs that need not be looked for."""
        return ["-D%s=%s" % (name, world.configured()[name]) for name in names]

    def check_refused(self, text, *options, **environment):
        status, told = self.configure(*options, **environment)
        self.assertNotEqual(status, 0)
        self.assertIn(text, told)

    def test_an_older_library_is_refused_with_both_versions(self):
        for name, old, wanted in (("jansson", "2.7", "2.8"), ("lmdb", "0.9.18", "0.9.21"), ("dbus-1", "1.10.32", "1.12")):
            self.write("old/%s.pc" % name, "Name: %s\nDescription: old\nVersion: %s\nLibs:\nCflags:\n" % (name, old))
            self.check_refused("Package dependency requirement '%s >= %s' could not be satisfied. Package '%s' has version "
                               "'%s'" % (name, wanted, name, old), PKG_CONFIG_PATH=self.at("old"))
            os.unlink(self.at("old", name + ".pc"))

    def test_an_older_library_of_headers_is_refused_with_both_versions(self):
        found = ["-DCMAKE_FIND_USE_CMAKE_SYSTEM_PATH=OFF", "-DCMAKE_FIND_USE_SYSTEM_ENVIRONMENT_PATH=OFF",
                 "-DORV_STATIC_LIBRARIES=OFF", "-DORV_BUILD_TESTS=ON", "-DCMAKE_PREFIX_PATH=" + self.at("old")]
        found += self.given("CMAKE_MAKE_PROGRAM", "PKG_CONFIG_EXECUTABLE")
        for name, old, wanted in (("fmt", "7.1.3", "8"), ("CLI11", "1.9.1", "2.1"), ("GTest", "1.10.0", "1.11")):
            self.write("old/%sConfig.cmake" % name, "")
            self.write("old/%sConfigVersion.cmake" % name, "set(PACKAGE_VERSION %s)\n"
                       "if(NOT PACKAGE_FIND_VERSION VERSION_GREATER PACKAGE_VERSION)\n"
                       "  set(PACKAGE_VERSION_COMPATIBLE TRUE)\nendif()\n" % old)
            self.check_refused('Could not find a configuration file for package "%s" that is compatible with requested '
                               'version "%s". The following configuration files were considered but not accepted: '
                               '%s/%sConfig.cmake, version: %s' % (name, wanted, self.at("old"), name, old), *found)
            found.append("-D%s_DIR=%s" % (name, world.configured().get(name + "_DIR")))

    def test_lmdb_without_a_pkg_config_file_is_found_and_its_version_asked_for(self):
        os.mkdir(self.at("others"))
        directory = self.execute("pkg-config", "--variable=pcfiledir", "jansson")[1]
        for name in ("jansson", "dbus-1"):
            shutil.copy(os.path.join(directory, name + ".pc"), self.at("others"))
        self.assertEqual(self.configure(PKG_CONFIG_LIBDIR=self.at("others"))[0], 0)
        self.assertEqual(self.execute("cmake", "--build", self.build, "--target", "orvstore")[0], 0)
        header = "\n".join("#define MDB_VERSION_%s\t%s" % part for part in (("MAJOR", 0), ("MINOR", 9), ("PATCH", 18)))
        self.write("old/lmdb.h", header + "\n")
        self.check_refused("LMDB 0.9.21 or newer is needed; %s/lmdb.h is of version '0.9.18'" % self.at("old"),
                           "-DORV_LMDB_INCLUDE=" + self.at("old"), PKG_CONFIG_LIBDIR=self.at("others"))
        shutil.rmtree(self.build)
        self.check_refused("LMDB is not installed: neither lmdb.pc nor lmdb.h and liblmdb are found",
                           "-DORV_LMDB_INCLUDE=NOTFOUND", "-DCMAKE_FIND_USE_CMAKE_SYSTEM_PATH=OFF",
                           "-DCMAKE_FIND_USE_SYSTEM_ENVIRONMENT_PATH=OFF", "-DORV_STATIC_LIBRARIES=OFF",
                           *self.given("CMAKE_MAKE_PROGRAM", "PKG_CONFIG_EXECUTABLE"), PKG_CONFIG_LIBDIR=self.at("others"))

    def test_a_missing_library_is_named(self):
        os.mkdir(self.at("none"))
        self.check_refused("Package 'jansson', required by 'virtual:world', not found", PKG_CONFIG_LIBDIR=self.at("none"))


class Root(Scratch):
    def texts(self):
        """The configured files, and the program that is one."""
        found = {}
        for path in glob.glob(os.path.join(self.build, "packaging", "**", "*"), recursive=True):
            if os.path.isfile(path) and {"configured", "man"} & set(path.split(os.sep)):
                found[os.path.basename(path)] = path
        found["orvexchanged"] = os.path.join(self.build, "bin", "orvexchanged")
        return found

    def test_another_root_is_configured_in_one_place(self):
        self.assertEqual(self.configure("-DORV_ROOT=/usr/local//agent/")[0], 0)
        texts = self.texts()
        for name in ("exchange.conf", "orvbrokerd.init", "orvbrokerd.service", "orvexchanged.service", "orvexchanged",
                     "orvbrokerd.tmpfiles.conf", "orvctl.1", "orvagentsim.1", "orvexchanged.1", "orvbrokerd.8"):
            with open(texts[name], encoding="utf-8") as file:
                text = file.read()
            self.assertIn("/usr/local/agent", text, name)
            self.assertNotIn("/opt/orvane", text, name)
            self.assertNotIn("agent//", text, name)
        self.assertTrue(os.access(texts["orvexchanged"], os.X_OK))
        # The programs ask one library where it is.
        self.assertEqual(self.execute("cmake", "--build", self.build, "--target", "orvbase")[0], 0)
        with open(os.path.join(self.build, "platform", "orvbase", "liborvbase.a"), "rb") as library:
            code = library.read()
        self.assertIn(b"/usr/local/agent\0", code)
        self.assertNotIn(b"/opt/orvane", code)
        with open(os.path.join(self.build, "cmake_install.cmake"), encoding="utf-8") as script:
            self.assertIn('set(CMAKE_INSTALL_PREFIX "/usr/local/agent")', script.read())

    def test_the_default_root_leaves_the_files_as_they_are(self):
        self.assertEqual(self.configure()[0], 0)
        texts = self.texts()
        for source in (*glob.glob(os.path.join(SOURCE, "docs", "man", "*")),
                       *glob.glob(os.path.join(SOURCE, "packaging", "systemd", "*")),
                       os.path.join(SOURCE, "packaging", "etc", "exchange.conf"),
                       os.path.join(SOURCE, "tools", "orvexchanged", "orvexchanged")):
            with open(source, encoding="utf-8") as one, open(texts[os.path.basename(source)], encoding="utf-8") as other:
                self.assertEqual(one.read(), other.read())

    def test_no_other_source_names_the_root(self):
        """What is compiled or installed asks for it, or is configured; the documents speak of the default."""
        listed = subprocess.run(["git", "-C", SOURCE, "grep", "-l", "/opt/orvane", "--", "daemons", "libs/*.cpp", "libs/*.h",
                                 "platform/*.cpp", "tools/*.cpp", "tools/*.h", "cmake", "*CMakeLists.txt"],
                                stdout=subprocess.PIPE, text=True, check=False).stdout.split()
        self.assertEqual(listed, ["cmake/root.cmake"])

    def test_a_prefix_that_a_distribution_sets_does_not_move_the_root(self):
        status, told = self.configure("-DCMAKE_INSTALL_PREFIX=/usr")
        self.assertEqual(status, 0)
        self.assertIn("Installing below /opt/orvane, not /usr: ORV_ROOT says where", told)

    def test_a_root_that_files_cannot_name_is_refused(self):
        for root in ("relative/path", "/with space", "/quote'", "/a;b", "/"):
            status, told = self.configure("-DORV_ROOT=" + root)
            self.assertNotEqual(status, 0, root)
            self.assertIn("it must be an absolute path of letters, digits and the characters -_./", told)


class Installing(Scratch):
    """On a project that is small, and otherwise like this one."""

    def setUp(self):
        super().setUp()
        self.write("small/CMakeLists.txt", "cmake_minimum_required(VERSION 3.25)\nproject(small LANGUAGES C)\n"
                   "set(ORV_BUILD_TOOLS ON)\n"
                   "set(ORV_ROOT /opt/orvane)\ninclude(%s/cmake/components.cmake)\n"
                   "foreach(one orvbrokerd:runtime orvctl:tools orvagentsim:development orvbroker_client:development)\n"
                   "  string(REGEX MATCH [[(.+):(.+)]] matched ${one})\n"
                   "  add_executable(${CMAKE_MATCH_1} main.c)\n"
                   "  install(TARGETS ${CMAKE_MATCH_1} DESTINATION bin COMPONENT ${CMAKE_MATCH_2})\n"
                   "endforeach()\n" % SOURCE)
        self.write("small/main.c", "int main(void) { return 0; }\n")
        self.assertEqual(self.configure(source=self.at("small"))[0], 0)

    def install(self, *options):
        return self.execute("cmake", "--install", self.build, "--prefix", self.at("root"), *options)

    def test_it_builds_what_it_installs_whatever_was_built_before(self):
        self.assertEqual(self.install("--component", "tools")[0], 0)
        self.assertEqual(os.listdir(self.at("root", "bin")), ["orvctl"])
        self.assertEqual(self.install()[0], 0)
        self.assertEqual(sorted(os.listdir(self.at("root", "bin"))),
                         ["orvagentsim", "orvbroker_client", "orvbrokerd", "orvctl"])

    def test_what_cannot_be_built_is_told_and_nothing_is_installed(self):
        self.write("small/main.c", "#error it does not compile\n")
        status, told = self.install()
        self.assertNotEqual(status, 0)
        self.assertIn("cannot build what is to be installed:", told)
        self.assertIn("it does not compile", told)
        self.assertFalse(os.path.exists(self.at("root")))

    def test_another_prefix_than_the_configured_one_is_told(self):
        note = "The files are for /opt/orvane: configure with -DORV_ROOT=%s to run them from there" % self.at("root")
        self.assertIn(note, self.install()[1])


if __name__ == "__main__":
    world.main()
