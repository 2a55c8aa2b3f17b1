"""The OpenWrt package and the Yocto recipe, as far as they can be tried without their build systems: the first by make with
OpenWrt's own makefiles replaced, the second by a reader of what it uses of the language."""

import fnmatch
import glob
import os
import re
import shutil
import subprocess
import tempfile

import world
from test_installed import DEVELOPMENT, RUNTIME, TOOLS, execute, files_below, install

SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
OPENWRT = os.path.join(SOURCE, "packaging", "openwrt", "orvbrokerd")
LAYER = os.path.join(SOURCE, "packaging", "yocto")

# What its build system compiles with, unless it is told otherwise.
OPENWRT_FLAGS = "-Os -pipe -fstack-protector -D_FORTIFY_SOURCE=1"

# What the package uses of OpenWrt's makefiles.
RULES = """
INCLUDE_DIR:=$(TOPDIR)
INSTALL_DIR:=install -d -m0755
INSTALL_BIN:=install -m0755
INSTALL_DATA:=install -m0644
CP:=cp -fpR
LN:=ln -sf
"""
PACKAGE = """
define BuildPackage
$(eval $(Package/$(1)))
install-$(1):
	$$(call Package/$(1)/install,$(DEST))
packages += $(1):$(DEPENDS)
endef
prepare:
	$(Build/Prepare)
stage:
	$(Build/Install)
show:
	@echo 'version=$(PKG_VERSION)'
	@echo 'packages=$(packages)'
	@echo 'options=$(CMAKE_OPTIONS)'
	@echo 'conffiles=$(strip $(Package/orvbrokerd/conffiles))'
"""


class Scratch(world.TestCase):
    def setUp(self):
        super().setUp()
        self.scratch = tempfile.mkdtemp(prefix="orv-feeds-", dir="/tmp")
        self.addCleanup(shutil.rmtree, self.scratch, ignore_errors=True)
        self.version = world.configured()["CMAKE_PROJECT_VERSION"]

    def at(self, *pieces):
        return os.path.join(self.scratch, *pieces)

    def check_options(self, options, **expected):
        """They are options that there are."""
        given = dict(re.findall(r"-D(\w+)=(\S+)", options))
        self.assertEqual(given, expected)
        self.assertEqual(set(given) - set(world.configured()), set())


class OpenWrt(Scratch):
    def setUp(self):
        super().setUp()
        os.mkdir(self.at("openwrt"))
        for name, text in (("rules.mk", RULES), ("package.mk", PACKAGE), ("cmake.mk", "")):
            with open(self.at("openwrt", name), "w", encoding="ascii") as file:
                file.write(text)

    def make(self, target, tools=True, destination=""):
        return execute("make", "--no-print-directory", "-C", OPENWRT, target, "TOPDIR=" + self.at("openwrt"),
                       "PKG_BUILD_DIR=" + self.at("build"), "PKG_INSTALL_DIR=" + self.at("staged"),
                       "CMAKE_BINARY_DIR=" + world.BUILD, "DEST=" + self.at(destination),
                       "CONFIG_PACKAGE_orvctl=" + ("y" if tools else ""))

    def shown(self, **options):
        return dict(line.split("=", 1) for line in self.make("show", **options).splitlines())

    def test_it_is_of_this_version_and_configures_what_there_is(self):
        shown = self.shown()
        self.assertEqual(shown["version"], self.version)
        self.assertEqual(shown["conffiles"], "/opt/orvane/etc/exchange.conf /opt/orvane/var/")
        for tools in (True, False):
            self.check_options(self.shown(tools=tools)["options"], ORV_ROOT="/opt/orvane", ORV_BUILD_TESTS="OFF",
                               ORV_BUILD_TOOLS="ON" if tools else "OFF", ORV_STATIC_LIBRARIES="OFF")

    def test_what_it_copies_is_enough_to_configure_and_install_from(self):
        self.make("prepare")
        cache = world.configured()
        execute("cmake", "-G", cache["CMAKE_GENERATOR"], "-S", self.at("build"), "-B", self.at("build", "openwrt"),
                *("-D%s=%s" % (name, cache[name]) for name in ("CMAKE_C_COMPILER", "CMAKE_CXX_COMPILER")),
                "-DCMAKE_BUILD_TYPE=Release", *("-DCMAKE_%s_FLAGS=%s" % (language, OPENWRT_FLAGS) for language in ("C", "CXX")),
                *self.shown(tools=False)["options"].split())
        execute("cmake", "--build", self.at("build", "openwrt"), "--target", "orvbase")
        with open(self.at("build", "openwrt", "build.ninja"), encoding="utf-8") as file:
            self.assertNotIn("orvctl/", file.read())

    def test_the_packages_hold_what_a_router_needs_in_its_places(self):
        root = world.default_root()
        if root != "/opt/orvane":
            self.skipTest("NOT TESTED: this build is for another root than the package's")
        self.make("stage")
        self.make("install-orvbrokerd", destination="daemon")
        self.make("install-orvctl", destination="tools")
        kept = [name for name in RUNTIME if not name.startswith(("share/man", "share/orvbrokerd"))]
        self.assertEqual(files_below(self.at("daemon")),
                         sorted(["etc/init.d/orvbrokerd", *(os.path.join(root[1:], name) for name in kept)]))
        for name in ("bin/orvbrokerd", "bin/orvexchanged"):
            self.assertTrue(os.access(self.at("daemon") + root + "/" + name, os.X_OK))
        self.assertTrue(os.access(self.at("daemon", "etc/init.d/orvbrokerd"), os.X_OK))
        self.assertEqual(files_below(self.at("tools")), [root[1:] + "/bin/orvctl", "usr/bin/orvctl"])
        self.assertEqual(os.readlink(self.at("tools", "usr/bin/orvctl")), root + "/bin/orvctl")

    def test_without_its_tool_only_the_daemon_is_staged(self):
        self.make("stage", tools=False)
        self.assertEqual(os.listdir(self.at("staged") + world.default_root() + "/bin").count("orvctl"), 0)


class Recipe:
    """Assignments, of which those to NAME:PACKAGE are told apart, and functions."""

    def __init__(self, path, **surroundings):
        with open(path, encoding="utf-8") as file:
            text = re.sub(r"(?m)^#.*\n", "", file.read()).replace("\\\n", " ")
        self.functions = dict(re.findall(r"(?ms)^([\w:]+)\(\) \{\n(.*?)^\}", text))
        text = re.sub(r"(?ms)^[\w:]+\(\) \{\n.*?^\}", "", text)
        self.variables = dict(surroundings)
        for name, value in re.findall(r'(?m)^([][\w:${}-]+) (?:=|\?\?=|=\+|\+=|\.=) "(.*)"$', text):
            self.variables[self.expand(name)] = value
        self.inherits = re.findall(r"(?m)^inherit (.*)$", text)[0].split()

    def expand(self, text):
        while True:
            expanded = re.sub(r"\$\{([\w-]+)\}", lambda match: self.variables[match[1]], text)
            if expanded == text:
                return expanded
            text = expanded

    def words(self, name):
        return self.expand(self.variables[name]).split()


class Yocto(Scratch):
    def setUp(self):
        super().setUp()
        (self.path,) = glob.glob(os.path.join(LAYER, "recipes-*", "*", "*.bb"))
        self.recipe = Recipe(self.path, PN="orvbrokerd", D=self.at("image"), WORKDIR=self.at("work"),
                             systemd_system_unitdir="/lib/systemd/system", nonarch_libdir="/usr/lib")

    def test_it_is_of_this_version_and_builds_this_tree(self):
        self.assertEqual(os.path.basename(self.path), "orvbrokerd_%s.bb" % self.version)
        inline = re.fullmatch(r"\$\{@(.*)\}", self.recipe.variables["EXTERNALSRC"])[1]
        thisdir = {"THISDIR": os.path.dirname(self.path)}
        place = eval(inline, {"os": os, "d": type("Data", (), {"getVar": staticmethod(thisdir.get)})})
        self.assertEqual(place, SOURCE)
        self.assertEqual(set(self.recipe.inherits), {"cmake", "pkgconfig", "systemd", "externalsrc"})
        self.check_options(self.recipe.expand(self.recipe.variables["EXTRA_OECMAKE"]),
                           ORV_ROOT="/opt/orvane", ORV_BUILD_TESTS="OFF", ORV_STATIC_LIBRARIES="OFF",
                           CMAKE_BUILD_TYPE="Release")
        with_tools, without, needs = self.recipe.variables["PACKAGECONFIG[tools]"].split(",")
        self.check_options(with_tools, ORV_BUILD_TOOLS="ON")
        self.check_options(without, ORV_BUILD_TOOLS="OFF")
        self.assertEqual(needs, "cli11")

    def test_the_layer_finds_its_recipe(self):
        with open(os.path.join(LAYER, "conf", "layer.conf"), encoding="ascii") as file:
            (pattern,) = re.findall(r'BBFILES \+= "\$\{LAYERDIR\}/(.*)"', file.read())
        self.assertEqual(glob.glob(os.path.join(LAYER, pattern)), [self.path])

    def test_its_configuration_is_below_the_root_and_not_where_others_have_theirs(self):
        cache = world.configured()
        execute("cmake", "-G", cache["CMAKE_GENERATOR"], "-S", SOURCE, "-B", self.at("build"),
                *("-D%s=%s" % (name, cache[name]) for name in ("CMAKE_C_COMPILER", "CMAKE_CXX_COMPILER")),
                "-DCMAKE_INSTALL_PREFIX:PATH=/usr", "-DCMAKE_INSTALL_SYSCONFDIR:PATH=/etc", "-DORV_BUILD_TOOLS=OFF",
                *self.recipe.words("EXTRA_OECMAKE"))
        with open(self.at("build", "packaging", "cmake_install.cmake"), encoding="utf-8") as file:
            (place,) = re.findall(r'DESTINATION "([^"]*)"[^)]*/exchange\.conf"', file.read())
        self.assertEqual(place, "${CMAKE_INSTALL_PREFIX}/etc")

    def test_each_file_is_in_the_package_that_it_belongs_to(self):
        root = world.default_root()
        if root != self.recipe.variables["ORV_ROOT"]:
            self.skipTest("NOT TESTED: this build is for another root than the recipe's")
        install(self.at("image"))
        result = subprocess.run(["sh", "-eu", "-c", self.recipe.expand(self.recipe.functions["do_install:append"])],
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
        self.assertEqual((result.returncode, result.stdout), (0, ""))
        # A file goes to the first package that wants it.
        order = [*self.recipe.words("PACKAGES"), *("orvbrokerd-" + part for part in ("staticdev", "dev", "doc")), "orvbrokerd"]
        found = {}
        for name in files_below(self.at("image")):
            wanting = [package for package in order if any(
                fnmatch.fnmatch("/" + name, pattern) or fnmatch.fnmatch("/" + name, pattern + "/*")
                for pattern in self.recipe.words("FILES:" + package))]
            self.assertEqual(len(wanting), 1, "%s: %s" % (name, wanting))
            found.setdefault(wanting[0], []).append(re.sub(r"/lib\w+/", "/lib/", "/" + name))
        places = {name: os.path.join(root, name) for name in RUNTIME + TOOLS + DEVELOPMENT}
        self.assertEqual(found["orvbrokerd"], sorted(
            ["/lib/systemd/system/orvbrokerd.service", "/lib/systemd/system/orvexchanged.service",
             "/usr/lib/tmpfiles.d/orvbrokerd.conf",
             *(places[name] for name in RUNTIME if not name.startswith(("share/man", "share/orvbrokerd")))]))
        self.assertEqual(found["orvbrokerd-tools"], [places[name] for name in TOOLS if "share/man" not in name])
        self.assertEqual(found["orvbrokerd-sim"], [places["bin/orvagentsim"]])
        self.assertIn(places["lib/liborvbroker_client.a"], found["orvbrokerd-staticdev"])
        for unit in self.recipe.words("SYSTEMD_SERVICE:orvbrokerd"):
            self.assertIn("/lib/systemd/system/" + unit, found["orvbrokerd"])
        for name in self.recipe.words("CONFFILES:orvbrokerd"):
            self.assertIn(name, found["orvbrokerd"])


if __name__ == "__main__":
    world.main()
