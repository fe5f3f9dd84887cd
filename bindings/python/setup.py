"""Builds libkestrel.so with CMake from this source tree and ships it inside
the package, which loads it with ctypes. KESTREL_LIBRARY=/path/libkestrel.so
ships that file instead of building one."""
import os
import re
import shutil
import subprocess
from pathlib import Path

from setuptools import setup
from setuptools.command.build_py import build_py
from setuptools.dist import Distribution

HERE = Path(__file__).resolve().parent
ROOT = HERE.parent.parent


def project_version():
    text = (ROOT / "CMakeLists.txt").read_text()
    match = re.search(r"project\(kestrel\s+VERSION\s+([0-9.]+)", text)
    if not match:
        raise RuntimeError(f"no project version in {ROOT / 'CMakeLists.txt'}")
    return match.group(1)


def built_library():
    prebuilt = os.environ.get("KESTREL_LIBRARY")
    if prebuilt:
        return Path(prebuilt).resolve()
    build = HERE / "build" / "cmake"
    subprocess.check_call(["cmake", "-S", str(ROOT), "-B", str(build),
                           "-DCMAKE_BUILD_TYPE=Release", "-DKESTREL_BUILD_TESTS=OFF"])
    subprocess.check_call(["cmake", "--build", str(build), "-j2", "--target", "kestrel-shared"])
    return build / "libkestrel.so"


class BuildWithLibrary(build_py):
    def run(self):
        super().run()
        target = Path(self.build_lib) / "kestrel" / f"libkestrel.so.{project_version().split('.')[0]}"
        shutil.copyfile(built_library(), target)


class BinaryDistribution(Distribution):
    # The wheel carries a native library, so it is tagged for this platform.
    def has_ext_modules(self):
        return True


setup(version=project_version(), cmdclass={"build_py": BuildWithLibrary},
      distclass=BinaryDistribution)
