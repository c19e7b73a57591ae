"""The version is the library's, and what a build makes on its way stays out of this folder."""

import atexit
import re
import shutil
import tempfile
from pathlib import Path

from setuptools import setup

here = Path(__file__).resolve().parent
sources = (here / "PKG-INFO", here / "../../CMakeLists.txt")  # the first one in an archive of this folder alone
text = "".join(source.read_text("utf-8") for source in sources if source.exists())
version = re.search(r"^(?:Version:|project\(tsmconnector VERSION) ([0-9.]+)", text, re.MULTILINE)
if version is None:
    raise SystemExit("no version: install from bindings/python in the project, not from a copy of that folder")

scratch = tempfile.mkdtemp(prefix="tsmconnector-build-")
atexit.register(shutil.rmtree, scratch, ignore_errors=True)
setup(version=version[1], options={"build": {"build_base": scratch}, "egg_info": {"egg_base": scratch}})
