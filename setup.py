"""Builds the extension modules with the project's CMake files, so that its version and flags are theirs."""

import os
import re
import subprocess
import sys
from pathlib import Path

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = Path(__file__).resolve().parent


def version():
    text = (ROOT / "CMakeLists.txt").read_text()
    return re.search(r"project\(cTessel VERSION ([0-9.]+)", text).group(1)


class CMakeBuild(build_ext):
    def build_extensions(self):
        build = Path(self.build_temp).resolve()
        configure = [
            *("cmake", "-S", ROOT, "-B", build, "-G", "Ninja", "-DCTESSEL_PYTHON=ON"),
            *("-DCMAKE_BUILD_TYPE=Release", f"-DPYTHON_EXECUTABLE={sys.executable}"),
        ]
        jobs = os.environ.get("CMAKE_BUILD_PARALLEL_LEVEL", "2")
        subprocess.run(configure, check=True)
        subprocess.run(["cmake", "--build", build, "--target", "python_modules", "-j", jobs], check=True)
        for ext in list(self.extensions):
            self.take(ext, build / "python")
        package = Path(self.get_ext_fullpath("ctessel._core")).parent
        for text in ("LICENSE", "NOTICE"):
            self.copy_file(str(ROOT / text), str(package / text))

    def take(self, ext, built):
        target = Path(self.get_ext_fullpath(ext.name)).resolve()
        if ext.optional and not (built / target.name).exists():  # left out: see CMakeLists.txt
            self.extensions.remove(ext)
            return
        target.parent.mkdir(parents=True, exist_ok=True)
        self.copy_file(str(built / target.name), str(target))


setup(
    name="ctessel",
    version=version(),
    description="Reconstruction kernels for magnetic-resonance imaging",
    author="the cTessel maintainers",
    license="BSD-2-Clause",
    python_requires=">=3.10",
    install_requires=["numpy>=1.20"],
    package_dir={"": "python"},
    packages=["ctessel"],
    package_data={"ctessel": ["py.typed", "niivue.umd.js"]},
    ext_modules=[Extension("ctessel._core", sources=[]), Extension("ctessel._raw", sources=[], optional=True)],
    extras_require={
        "recon": ["scipy", "nibabel", "tqdm", "matplotlib", "h5py"],
        "dask": ["dask", "distributed"],
        "view": ["nibabel", "matplotlib"],
        "dicom": ["pydicom"],
    },
    entry_points={"console_scripts": ["ctessel = ctessel.cli:main"]},
    cmdclass={"build_ext": CMakeBuild},
    # Beside the builds of CMake: a folder build/lib... would keep modules that are no more.
    options={"build": {"build_base": "build/python/setuptools"}},
    zip_safe=False,
)
