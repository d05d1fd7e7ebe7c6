"""Builds the corvane_window module, its stubs and the libraries it links, with CMake, for the
Python that runs this script (pip install --no-build-isolation .)."""
import pathlib
import re
import subprocess
import sys

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = pathlib.Path(__file__).resolve().parent


def project_version():
    """The version in the project() call of the top CMakeLists.txt."""
    text = (ROOT / "CMakeLists.txt").read_text()
    return re.search(r"project\(\w+ VERSION ([0-9.]+)", text).group(1)


class CMakeBuild(build_ext):
    """Configures and builds the module target, then installs its component where setuptools
    collects the extension."""

    def build_extension(self, ext):
        build = pathlib.Path(self.build_temp).resolve() / "cmake"
        destination = pathlib.Path(self.get_ext_fullpath(ext.name)).resolve().parent
        steps = [
            ["cmake", "-S", str(ROOT), "-B", str(build), "-DCMAKE_BUILD_TYPE=Release",
             "-DCORVANE_BUILD_PYTHON=ON", "-DCORVANE_BUILD_TESTS=OFF",
             "-DCORVANE_BUILD_EXAMPLES=OFF", f"-DPython_EXECUTABLE={sys.executable}"],
            ["cmake", "--build", str(build), "--target", "corvane_window", "-j2"],
            ["cmake", "--install", str(build), "--component", "python",
             "--prefix", str(destination)]]
        for step in steps:
            subprocess.run(step, check=True)


setup(name="corvane_window", version=project_version(),
      description="Python bindings of libcorvane_shaper_window",
      ext_modules=[Extension("corvane_window", sources=[])],
      cmdclass={"build_ext": CMakeBuild}, zip_safe=False)
