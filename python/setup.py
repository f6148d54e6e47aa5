"""Builds the extension module against the installed library, as pkg-config knows it, in a checkout: the
docstrings come from the installed headers, through the parser of the manual pages."""

import glob
import os
import pathlib
import subprocess

from pybind11.setup_helpers import ParallelCompile, Pybind11Extension, build_ext
from setuptools import setup

import sys

HERE = pathlib.Path(__file__).resolve().parent
os.chdir(HERE)
sys.path.insert(0, str(HERE))
import comments  # noqa: E402

CHECKOUT = HERE.parent
ParallelCompile(default=0).install()  # on all processors


def pkg_config(what):
    return subprocess.run(["pkg-config", what, "tsmail"], check=True, stdout=subprocess.PIPE,
                          text=True).stdout.strip()


class BuildWithComments(build_ext):
    """Makes the table of docstrings before it compiles."""

    def build_extensions(self):
        os.makedirs(self.build_temp, exist_ok=True)
        comments.main(pkg_config("--variable=includedir"), f"{self.build_temp}/header_comments.inc")
        for extension in self.extensions:
            extension.include_dirs.append(self.build_temp)
        super().build_extensions()


core = Pybind11Extension(
    "tsmail._core", sorted(glob.glob("src/*.cpp")), cxx_std=20,
    include_dirs=[str(CHECKOUT)],
    define_macros=[("_GNU_SOURCE", None), ("_FILE_OFFSET_BITS", "64")],
    extra_compile_args=pkg_config("--cflags").split(),
    extra_link_args=pkg_config("--libs").split())

setup(version=pkg_config("--modversion"), ext_modules=[core],
      cmdclass={"build_ext": BuildWithComments})
