"""Keeps the files that a build makes on its way out of this folder."""

import atexit
import shutil
import tempfile

from setuptools import setup

scratch = tempfile.mkdtemp(prefix="tsmconnector-build-")
atexit.register(shutil.rmtree, scratch, ignore_errors=True)
setup(options={"build": {"build_base": scratch}, "egg_info": {"egg_base": scratch}})
