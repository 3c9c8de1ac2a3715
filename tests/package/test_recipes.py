# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

"""The recipes in packaging/: their steps by hand, with their own settings and what the tools around them add."""

import hashlib
import os
import pathlib
import re
import shlex
import subprocess

import pytest

SOURCE = pathlib.Path(__file__).parent.parent.parent
RECIPE, = SOURCE.glob("packaging/yocto/varnix_*.bb")
MAKEFILE = SOURCE / "packaging" / "buildroot" / "varnix.mk"
TOOLCHAIN = os.environ["VARNIX_TOOLCHAIN"]
EMULATOR = shlex.split(os.environ["VARNIX_EMULATOR"])


def value_in(file, variable):
    value, = re.findall(rf'^{variable} = "?(.*?)"?$', file.read_text(encoding="utf-8"), re.MULTILINE)
    return value


def library_version():
    header = (SOURCE / "include" / "Varnix.h").read_text(encoding="utf-8")
    return ".".join(re.findall(r"^#define VARNIX_VERSION_(?:MAJOR|MINOR|PATCH) (\d+)$", header, re.MULTILINE))


def test_the_recipes_have_the_version_of_the_library():
    assert RECIPE.name == f"varnix_{library_version()}.bb"
    assert value_in(MAKEFILE, "VARNIX_VERSION") == library_version()


def test_the_recipes_name_the_licence_file_as_it_is():
    digest = hashlib.md5((SOURCE / "LICENSE").read_bytes()).hexdigest()
    assert value_in(RECIPE, "LIC_FILES_CHKSUM") == f"file://LICENSE;md5={digest}"
    assert value_in(MAKEFILE, "VARNIX_LICENSE_FILES") == "LICENSE"
    assert value_in(RECIPE, "LICENSE") == value_in(MAKEFILE, "VARNIX_LICENSE") == "BSD-3-Clause"


# What the cmake class of Yocto and the cmake-package infrastructure of Buildroot say.
RECIPES = {
    "yocto": (RECIPE, "EXTRA_OECMAKE", [
        "-DCMAKE_INSTALL_PREFIX:PATH=/usr", "-DCMAKE_INSTALL_BINDIR:PATH=bin", "-DCMAKE_INSTALL_LIBDIR:PATH=lib",
        "-DCMAKE_INSTALL_INCLUDEDIR:PATH=include", "-DCMAKE_INSTALL_DATAROOTDIR:PATH=share",
        "-DCMAKE_INSTALL_SO_NO_EXE=0", "-DCMAKE_NO_SYSTEM_FROM_IMPORTED=1", "-DCMAKE_EXPORT_NO_PACKAGE_REGISTRY=ON",
        "-DFETCHCONTENT_FULLY_DISCONNECTED=ON"]),
    "buildroot": (MAKEFILE, "VARNIX_CONF_OPTS", [
        "-DCMAKE_BUILD_TYPE=Release", "-DCMAKE_CXX_FLAGS_RELEASE=-Os", "-DCMAKE_INSTALL_PREFIX=/usr",
        "-DCMAKE_INSTALL_RUNSTATEDIR=/run", "-DCMAKE_COLOR_MAKEFILE=OFF", "-DBUILD_DOC=OFF", "-DBUILD_DOCS=OFF",
        "-DBUILD_EXAMPLES=OFF", "-DBUILD_TEST=OFF", "-DBUILD_TESTS=OFF", "-DBUILD_TESTING=OFF",
        "-DBUILD_SHARED_LIBS=ON"]),
}


def run(*command, **variables):
    done = subprocess.run([str(word) for word in command], env={**os.environ, **variables}, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True)
    assert done.returncode == 0, done.stdout
    return done.stdout


def build_and_install(recipe, build, destination):
    file, variable, from_around = RECIPES[recipe]
    run("cmake", "-G", os.environ["VARNIX_GENERATOR"], "-S", SOURCE, "-B", build,
        f"-DCMAKE_TOOLCHAIN_FILE={TOOLCHAIN}", *from_around, *shlex.split(value_in(file, variable)),
        "-DCMAKE_UNITY_BUILD=ON")  # It takes a third of the time.
    run("cmake", "--build", build)
    run("cmake", "--install", build, DESTDIR=str(destination))
    for commands in re.findall(r"(?ms)^do_install:append\(\) \{$(.*?)^\}$", file.read_text(encoding="utf-8")):
        for variable, value in (("D", str(destination)), ("prefix", "/usr"), ("libdir", "/usr/lib")):
            commands = commands.replace(f"${{{variable}}}", value)
        run("sh", "-euc", commands)


if TOOLCHAIN:  # Recipes are for cross compilers.

    @pytest.mark.parametrize("recipe", RECIPES)
    def test_the_steps_of_a_recipe_give_a_library_that_programs_find(recipe, tmp_path):
        build, root = tmp_path / "build", tmp_path / "root"
        version, major = library_version(), library_version().split(".")[0]
        built = "minsizerel" if recipe == "yocto" else "release"

        build_and_install(recipe, build, root)

        installed = {str(path.relative_to(root)): path for path in root.rglob("*") if not path.is_dir()}
        assert sorted(installed) == sorted([
            "usr/include/Varnix.h", "usr/lib/libvarnix.so", f"usr/lib/libvarnix.so.{major}",
            f"usr/lib/libvarnix.so.{version}", "usr/lib/pkgconfig/varnix.pc", *(
                f"usr/lib/cmake/Varnix/{name}.cmake" for name in (
                    "VarnixConfig", "VarnixConfigVersion", "VarnixTargets", f"VarnixTargets-{built}"))])
        for place in (str(tmp_path), str(SOURCE)):
            assert [name for name, path in installed.items() if place.encode() in path.read_bytes()] == []
        flags = run("pkg-config", "--cflags", "--libs", "varnix", PKG_CONFIG_SYSROOT_DIR=str(root),
                    PKG_CONFIG_LIBDIR=f"{root}/usr/lib/pkgconfig").split()
        run(os.environ["VARNIX_CXX"], "-std=c++11", SOURCE / "tests" / "package" / "plain" / "main.cpp", *flags,
            "-o", tmp_path / "stranger")
        assert run(*EMULATOR, "-E", f"LD_LIBRARY_PATH={root}/usr/lib", tmp_path / "stranger") == "temperature is 81\n"
