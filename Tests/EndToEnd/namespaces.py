# SPDX-License-Identifier: Apache-2.0
"""Worlds of a test's own: what it mounts, starts and changes there is seen by nobody else and ends with it."""

import os
import shutil
import subprocess
import sys

from sandbox import skip

INSIDE = "VIMBREL_INSIDE_NAMESPACES"


def enter_namespaces(kinds, *through, root=None, tools=()):
    """Goes on in new namespaces of these kinds, named by the letters that `unshare` has for them: this very program is
    started again there, with `through` before it, and sees here that it is inside. `root` says why nobody else will
    do; without that, an ordinary user is root of these namespaces."""
    if os.environ.get(INSIDE) == "1":
        return
    if root and os.geteuid() != 0:
        skip(root)
    for tool in ("unshare", *through, *tools):
        if shutil.which(tool) is None:
            skip("%s is not installed" % tool)
    command = ["unshare", "-" + kinds, "--propagation", "private"]
    if "p" in kinds:
        command += ["--fork", "--kill-child", "--mount-proc"]
    if os.geteuid() != 0:
        command += ["--user", "--map-root-user"]
    if subprocess.run([*command, "true"], capture_output=True).returncode != 0:
        skip("this machine allows no namespaces")
    os.environ[INSIDE] = "1"
    os.execvp("unshare", [*command, *through, sys.executable, *sys.argv])
