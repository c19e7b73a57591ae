"""The version is the library's, and what a build makes on its way stays out of this folder."""

import atexit
import re
import shutil
import tempfile
from pathlib import Path

from setuptools import setup

here = Path(__file__).resolve().parent
source = here / "PKG-INFO"  # in an archive of this folder alone
if not source.exists():
    source = here.parents[1] / "CMakeLists.txt"
version = re.search(r"^(?:Version:|project\(tsmconnector VERSION) ([0-9.]+)", source.read_text("utf-8"), re.MULTILINE)
if version is None:
    raise SystemExit(f"no version in {source}")

scratch = tempfile.mkdtemp(prefix="tsmconnector-build-")
atexit.register(shutil.rmtree, scratch, ignore_errors=True)
setup(version=version[1], options={"build": {"build_base": scratch}, "egg_info": {"egg_base": scratch}})
