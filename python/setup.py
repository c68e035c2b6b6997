"""Builds the extension module with the project's CMake files, so that its flags are theirs."""

import os
import re
import subprocess
import sys
from pathlib import Path

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = Path(__file__).resolve().parent.parent


def version():
    text = (ROOT / "CMakeLists.txt").read_text()
    return re.search(r"project\(cTessel VERSION ([0-9.]+)", text).group(1)


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        build = Path(self.build_temp).resolve()
        target = Path(self.get_ext_fullpath(ext.name)).resolve()
        target.parent.mkdir(parents=True, exist_ok=True)
        configure = ["cmake", "-S", ROOT, "-B", build, "-G", "Ninja", "-DCTESSEL_PYTHON=ON",
                     "-DCMAKE_BUILD_TYPE=Release", f"-DPYTHON_EXECUTABLE={sys.executable}"]
        jobs = os.environ.get("CMAKE_BUILD_PARALLEL_LEVEL", "2")
        subprocess.run(configure, check=True)
        subprocess.run(["cmake", "--build", build, "--target", "_core", "-j", jobs], check=True)
        self.copy_file(str(build / "python" / target.name), str(target))


setup(
    name="ctessel",
    version=version(),
    description="Reconstruction kernels for magnetic-resonance imaging",
    license="BSD-2-Clause",
    python_requires=">=3.9",
    install_requires=["numpy>=1.20"],
    packages=["ctessel"],
    package_data={"ctessel": ["*.pyi", "py.typed"]},
    ext_modules=[Extension("ctessel._core", sources=[])],
    cmdclass={"build_ext": CMakeBuild},
    zip_safe=False,
)
