"""Keeps the files that a build makes on its way out of this folder."""

import atexit
import shutil
import tempfile
from pathlib import Path

from setuptools import setup
from setuptools.command.build_py import build_py


class BuildWithLicence(build_py):
    """Packs the project's licence, as soon as there is one."""

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
