#!/usr/bin/env bash
# Installs the Python package offline into a fresh virtual environment with the commands
# of python/README.md, then runs its tests against that installation.
# Arguments: the interpreter (Debian's python3) and the package's folder.
set -euo pipefail
python=$1
package=$2

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# The build writes build/ and *.egg-info beside the sources: work on a copy.
mkdir "$work/python"
cp -r "$package/pyproject.toml" "$package/README.md" "$package/tovra" "$package/tests" "$work/python/"
cd "$work"

"$python" -m venv --system-site-packages venv
venv/bin/pip install --no-build-isolation --no-index ./python

# From $work, whose python/ folder is no package: tovra comes from the environment.
venv/bin/python -m pytest -q python/tests
