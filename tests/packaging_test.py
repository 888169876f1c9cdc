"""What is packaged for distributions and embedded systems, against what is installed and exported."""

import fnmatch
import re
import sys
import tempfile
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parent / "support"))
from build_under_test import BuildTestCase, build, exported_functions, run_test

COMPONENTS = ("runtime", "development", "tools", "documentation")

# Where BitBake puts files without being told (FILES in meta/conf/bitbake.conf), in the order of PACKAGES.
YOCTO_DIRECTORIES = {"prefix": "/usr", "bindir": "/usr/bin", "libdir": "/usr/lib",
                     "includedir": "/usr/include", "datadir": "/usr/share",
                     "mandir": "/usr/share/man", "docdir": "/usr/share/doc",
                     "PYTHON_SITEPACKAGES_DIR": "/usr/lib/python3/dist-packages"}
YOCTO_FILES = {"${PN}-staticdev": "${libdir}/*.a",
               "${PN}-dev": "${includedir} ${libdir}/lib*.so ${libdir}/pkgconfig ${libdir}/cmake",
               "${PN}-doc": "${docdir} ${mandir}",
               "${PN}": "${bindir}/* ${libdir}/lib*.so.* ${datadir}/${BPN}"}

# What Buildroot's make files have that zentrava-keys.mk uses.
BUILDROOT_STUB = """
PYTHON3_VERSION_MAJOR = 3.11
define print-package
$(info version $(ZENTRAVA_KEYS_VERSION))
$(info site $(ZENTRAVA_KEYS_SITE))
$(info dependencies $(ZENTRAVA_KEYS_DEPENDENCIES))
$(info options $(ZENTRAVA_KEYS_CONF_OPTS))
endef
cmake-package = $(print-package)
include $(BR2_EXTERNAL_ZENTRAVA_PATH)/external.mk
all:
"""

# The symbols that the Config.in depends on and selects, and a tree's root around it.
KCONFIG_STUB = """
config BR2_INSTALL_LIBSTDCPP
	def_bool y
config BR2_TOOLCHAIN_HAS_THREADS
	def_bool y
config BR2_TOOLCHAIN_GCC_AT_LEAST_8
	def_bool y
config BR2_STATIC_LIBS
	bool "static only"
config BR2_PACKAGE_LIBXML2
	bool "libxml2"
config BR2_PACKAGE_MBEDTLS
	bool "mbedtls"
config BR2_PACKAGE_CLI11
	bool "cli11"
config BR2_PACKAGE_JSON_FOR_MODERN_CPP
	bool "json-for-modern-cpp"
source "$BR2_EXTERNAL_ZENTRAVA_PATH/Config.in"
"""

KCONFIG_PROGRAM = """
import sys, kconfiglib
kconfig = kconfiglib.Kconfig(sys.argv[1], warn_to_stderr=False)
for name in sys.argv[2:]:
    kconfig.syms[name].set_value("y")
for name, symbol in kconfig.syms.items():
    if symbol.str_value == "y" and name not in ("y", "n", "m"):
        print(name)
print("warnings:", kconfig.warnings)
"""


class Packaging(BuildTestCase):
    def setUp(self):
        self.directory = Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.packaging = Path(build.source, "packaging")

    def test_every_version_is_that_of_the_project(self):
        version, = re.findall(r"^ +VERSION ([0-9.]+)$", self.source("CMakeLists.txt"), re.MULTILINE)
        debian = re.match(r"zentrava-keys \((.*?)\)", self.source("packaging/debian/changelog"))[1]
        recipe, = (self.packaging / "yocto").glob("*.bb")
        self.assertEqual(debian, version)
        self.assertIn(f"\n## [{version}] - ", self.source("CHANGELOG.md"))
        self.assertEqual(recipe.name, f"zentrava-keys_{version}.bb")
        self.assertIn(f"version {version}", self.read_by_make())

    def test_the_debian_symbols_are_the_exported_functions_in_their_version_node(self):
        lines = self.source("packaging/debian/libzentrava-keys1.symbols").splitlines()
        symbols = [line.split()[0] for line in lines if line.startswith(" ")]
        functions = [name for group in exported_functions().values() for name in group]
        self.assertEqual(sorted(symbols), sorted(f"{name}@ZENTRAVA_KEYS_1"
                                                 for name in functions + ["ZENTRAVA_KEYS_1"]))

    def test_every_installed_file_is_in_one_component_and_each_component_in_a_debian_package(self):
        by_component = [self.installed("--component", component) for component in COMPONENTS]
        self.assertTrue(all(by_component))
        self.assertEqual(sorted(sum(by_component, [])), sorted(self.installed()))
        rules = self.source("packaging/debian/rules")
        packages = dict(re.findall(r"call install_component,(\S+),(\w+)\)", rules))
        self.assertEqual(sorted(packages.values()), sorted(COMPONENTS))
        control = self.source("packaging/debian/control")
        self.assertEqual(sorted(packages), sorted(re.findall(r"^Package: (\S+)$", control, re.MULTILINE)))

    def test_the_components_hold_what_their_packages_are_for(self):
        names = {component: [Path(file).name for file in self.installed("--component", component)]
                 for component in COMPONENTS}
        self.assertEqual(sorted(names["runtime"]), ["libzentrava_keys.so.1", "libzentrava_keys.so.1.0.0"])
        for name in ("libzentrava_keys.so", "libzentrava_keys.a", "zentrava_keys.pc", "ecc.h"):
            self.assertIn(name, names["development"])
        for name in ("zentrava-keystore", "zentrava-keystore.1", "zentrava-key-store.5", "py.typed"):
            self.assertIn(name, names["tools"])
        for name in ("README.md", "packaging.md", "armhf.cmake"):
            self.assertIn(name, names["documentation"])

    def test_the_yocto_recipe_is_made_of_assignments_and_inherits(self):
        for line in self.recipe_lines():
            self.assertRegex(line, r'^(inherit( [\w-]+)+|[A-Z][\w:-]*(\[[\w-]+\])? (=|\?\?=|=\+) "[^"]*")$')

    def test_the_yocto_recipe_builds_the_tree_that_it_lies_in(self):
        place = self.recipe()["EXTERNALSRC"].replace("${THISDIR}", str(self.packaging / "yocto"))
        self.assertEqual(Path(place).resolve(), Path(build.source).resolve())

    def test_the_yocto_packages_take_in_every_installed_file_and_name_none_that_is_not(self):
        recipe = self.recipe()
        files = {**{key.removeprefix("FILES:"): value for key, value in recipe.items()
                    if key.startswith("FILES:")}, **YOCTO_FILES}
        self.assertEqual(recipe["PACKAGES"].split(), [name for name in files if "$" not in name])
        left = ["/" + file for file in self.installed()]
        held = {}
        for package, patterns in files.items():
            for pattern in map(self.yocto_path, patterns.split()):
                found = [file for file in left if fnmatch.fnmatchcase(file, pattern)
                         or file.startswith(pattern + "/")]
                if package not in YOCTO_FILES:
                    self.assertTrue(found, f"{pattern} is nowhere installed")
                held.setdefault(package, []).extend(found)
                left = [file for file in left if file not in found]
        self.assertEqual(left, [])
        self.assertEqual(sorted(held["${PN}"]), ["/usr/lib/libzentrava_keys.so.1",
                                                 "/usr/lib/libzentrava_keys.so.1.0.0"])
        self.assertEqual(held["${PN}-staticdev"], ["/usr/lib/libzentrava_keys.a"])

    def test_no_licence_is_claimed_as_long_as_the_tree_has_none(self):
        licences = [file.name for file in Path(build.source).iterdir()
                    if re.match("(LICEN[CS]E|COPYING|COPYRIGHT)", file.name.upper())]
        self.assertEqual(licences, [])
        self.assertEqual(self.recipe()["LICENSE"], "CLOSED")
        self.assertNotIn("LIC_FILES_CHKSUM", self.recipe())
        self.assertNotIn("_LICENSE", self.source("packaging/buildroot/package/zentrava-keys/zentrava-keys.mk"))

    def test_the_options_given_to_cmake_are_options_of_the_project(self):
        projects = self.source("CMakeLists.txt") + self.source("tools/CMakeLists.txt")
        declared = set(re.findall(r"^(?:option|set)\((ZENTRAVA_\w+)", projects, re.MULTILINE))
        for file in ("debian/rules", "yocto/zentrava-keys_1.0.0.bb",
                     "buildroot/package/zentrava-keys/zentrava-keys.mk"):
            used = set(re.findall(r"-D(ZENTRAVA_\w+)", self.source("packaging/" + file)))
            self.assertTrue(used)
            self.assertEqual(used - declared, set(), file)

    def test_the_buildroot_package_follows_its_configuration(self):
        everything = self.read_by_make(BR2_PACKAGE_ZENTRAVA_KEYS_TOOL="y", BR2_SHARED_STATIC_LIBS="y",
                                       BR2_PACKAGE_ZENTRAVA_KEYS_XML_CLEANUP="y")
        self.assertIn("dependencies libxml2 mbedtls cli11 json-for-modern-cpp", everything)
        self.assertIn("options -DZENTRAVA_BUILD_EXAMPLES=OFF -DZENTRAVA_BUILD_STATIC=ON "
                      "-DZENTRAVA_XML_CLEANUP=ON -DZENTRAVA_BUILD_TOOLS=ON "
                      "-DZENTRAVA_PYTHON_DIR=lib/python3.11/site-packages", everything)
        little = self.read_by_make()
        self.assertIn("dependencies libxml2 mbedtls", little)
        self.assertIn("options -DZENTRAVA_BUILD_EXAMPLES=OFF -DZENTRAVA_BUILD_STATIC=OFF "
                      "-DZENTRAVA_XML_CLEANUP=OFF -DZENTRAVA_BUILD_TOOLS=OFF", little)
        site, = (line.removeprefix("site ") for line in little if line.startswith("site "))
        self.assertEqual(Path(site).resolve(), Path(build.source).resolve())

    def test_the_buildroot_configuration_selects_what_the_package_depends_on(self):
        package = "BR2_PACKAGE_ZENTRAVA_KEYS"
        given = {"BR2_INSTALL_LIBSTDCPP", "BR2_TOOLCHAIN_HAS_THREADS", "BR2_TOOLCHAIN_GCC_AT_LEAST_8"}
        library = given | {package, package + "_XML_CLEANUP", "BR2_PACKAGE_LIBXML2", "BR2_PACKAGE_MBEDTLS"}
        tool = {package + "_TOOL", "BR2_PACKAGE_CLI11", "BR2_PACKAGE_JSON_FOR_MODERN_CPP"}
        self.assertEqual(self.configured(), given)
        self.assertEqual(self.configured(package), library)
        self.assertEqual(self.configured(package, package + "_TOOL"), library | tool)
        static = {"BR2_STATIC_LIBS"}
        self.assertEqual(self.configured(package, *static), given | static)

    def source(self, name):
        return Path(build.source, name).read_text(encoding="utf-8")

    def installed(self, *arguments):
        """What cmake --install puts where, relative to the root of a device."""
        with tempfile.TemporaryDirectory() as root:
            self.run_command([build.cmake, "--install", build.build, "--prefix", Path(root, "usr"), *arguments])
            return [str(file.relative_to(root)) for file in Path(root).rglob("*")
                    if not file.is_dir() or file.is_symlink()]

    def recipe_lines(self):
        text = self.source("packaging/yocto/zentrava-keys_1.0.0.bb").replace("\\\n", "")
        return [line for line in text.splitlines() if line and not line.startswith("#")]

    def recipe(self):
        return dict(re.match(r'(\S+) \S+ "(.*)"', line).groups()
                    for line in self.recipe_lines() if not line.startswith("inherit"))

    @staticmethod
    def yocto_path(pattern):
        for name, directory in YOCTO_DIRECTORIES.items():
            pattern = pattern.replace(f"${{{name}}}", directory)
        return pattern.replace("${BPN}", "zentrava-keys")

    def read_by_make(self, **configuration):
        makefile = self.directory / "Makefile"
        makefile.write_text(BUILDROOT_STUB, encoding="ascii")
        arguments = [f"{name}={value}" for name, value in configuration.items()]
        printed = self.run_command(["make", "--warn-undefined-variables", "-n", "-f", makefile,
                                    f"BR2_EXTERNAL_ZENTRAVA_PATH={self.packaging / 'buildroot'}", *arguments])
        return [" ".join(line.split()) for line in printed.splitlines()]

    def configured(self, *symbols):
        """The symbols that are set when some are asked for, by Debian's own Python."""
        root = self.directory / "Config.in"
        root.write_text(KCONFIG_STUB, encoding="ascii")
        printed = self.run_command(["/usr/bin/python3", "-c", KCONFIG_PROGRAM, root, *symbols],
                                   BR2_EXTERNAL_ZENTRAVA_PATH=str(self.packaging / "buildroot")).splitlines()
        self.assertEqual(printed.pop(), "warnings: []")
        return set(printed)


if __name__ == "__main__":
    run_test(Packaging)
