"""Keeps what a build makes on its way out of this folder, and packs the project's licence, once there is one."""

import atexit
import shutil
import tempfile
from pathlib import Path

from setuptools import setup
from setuptools.command.build_py import build_py


class BuildWithLicence(build_py):
    def run(self):
        super().run()
        licence = Path(__file__).resolve().parents[2] / "LICENSE"
        if licence.exists():
            self.copy_file(str(licence), str(Path(self.build_lib) / "tsmconnector"))


scratch = tempfile.mkdtemp(prefix="tsmconnector-build-")
atexit.register(shutil.rmtree, scratch, ignore_errors=True)
setup(
    cmdclass={"build_py": BuildWithLicence},
    options={"build": {"build_base": scratch}, "egg_info": {"egg_base": scratch}},
)
