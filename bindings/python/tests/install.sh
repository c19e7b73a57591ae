#!/usr/bin/env bash
# Installs the package from its folder into a new environment, without a package index, and leaves the folder as it was.
# Usage: install.sh PYTHON VERSION, with TSMCONNECTOR_LIBRARY set.
set -euo pipefail
folder=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
contents() { find "$folder" ! -path '*/__pycache__*' | LC_ALL=C sort; }

before=$(contents)
"$1" -m venv --system-site-packages "$work/venv"
cd "$work"
PYTHONDONTWRITEBYTECODE=1 TMPDIR=$work venv/bin/pip install --quiet --no-index --no-build-isolation --no-deps \
    --no-cache-dir --disable-pip-version-check "$folder"
shown=$(venv/bin/python - <<'END'
import importlib.metadata
import tsmconnector
try:
    tsmconnector.Api(config="missing")
except tsmconnector.TsmError as error:
    versions = importlib.metadata.version("tsmconnector"), tsmconnector.__version__
    print(*versions, error.name, tsmconnector.__file__.split("/")[-3])
END
)
[ "$shown" = "$2 $2 DSM_RC_INVALID_PARM site-packages" ] || { echo "installed: $shown" >&2; exit 1; }
[ "$(contents)" = "$before" ] || { echo "left in the folder:" >&2; diff <(echo "$before") <(contents) >&2; exit 1; }
