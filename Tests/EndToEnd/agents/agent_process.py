# SPDX-License-Identifier: Apache-2.0
"""A process that stands for an agent: it runs hooks as its children, as agents do."""

import json
import subprocess
import sys

from sandbox import patience, require

loop = """
import json, subprocess, sys
for line in sys.stdin:
    hook = json.loads(line)
    done = subprocess.run(hook["words"], input=hook["input"].encode(), env=hook["environment"], cwd=hook["directory"],
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=%d)
    print(json.dumps([done.returncode, done.stdout.decode(errors="replace")]), flush=True)
""" % patience


class AgentProcess:
    def __init__(self, sandbox):
        self.environment = {"HOME": sandbox.home}  # Nothing else may be needed.
        self.directory = sandbox.home
        self.process = subprocess.Popen([sys.executable, "-c", loop], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        text=True)
        self.pid = self.process.pid

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.communicate()

    def run_hook(self, words, document=""):
        """Every hook must end with 0 and print nothing: some agents show a hook's output to the model."""
        self.process.stdin.write(json.dumps({"words": words, "input": document, "environment": self.environment,
                                             "directory": self.directory}) + "\n")
        self.process.stdin.flush()
        status, output = json.loads(self.process.stdout.readline())
        require(status == 0 and output == "", "%s ended with %d and printed %r" % (words, status, output))
