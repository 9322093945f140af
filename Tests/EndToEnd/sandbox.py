# SPDX-License-Identifier: Apache-2.0
"""The real programs in a home of their own, for tests that hurt them. Nothing here waits longer than what it waits
for takes, and nothing waits for ever: `patience` is long enough for any machine."""

import json
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

patience = 60.0


def skip(why):
    """Ends the test as not possible on this machine."""
    print("SKIPPED:", why)
    sys.exit(1 if os.environ.get("VIMBREL_REQUIRE_COMPONENTS") == "1" else 77)


def require(condition, what):
    if not condition:
        raise AssertionError(what)


def eventually(condition, what, limit=patience):
    """Asks again until the answer is true, and gives it back."""
    end = time.monotonic() + limit
    while True:
        answer = condition()
        if answer:
            return answer
        if time.monotonic() > end:
            raise AssertionError("not within %d s: %s" % (limit, what))
        time.sleep(0.02)


def helper_answer(path, request, limit=patience):
    """What the helper answers to one request."""
    with socket.socket(socket.AF_UNIX) as connection:
        connection.settimeout(limit)
        connection.connect(path)
        connection.sendall(json.dumps(request).encode())
        connection.shutdown(socket.SHUT_WR)
        text = b""
        while chunk := connection.recv(8192):
            text += chunk
    return json.loads(text)


class Refused(Exception):
    """The application answered with an error."""


class Control:
    """One connection to the control socket."""

    def __init__(self, path):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(patience)
        self.socket.connect(path)
        self.lines = self.socket.makefile("rb")
        self.number = 0

    def ask(self, method, **params):
        self.number += 1
        request = {"jsonrpc": "2.0", "id": self.number, "method": method, "params": params}
        self.socket.sendall(json.dumps(request).encode() + b"\n")
        line = self.lines.readline()
        if not line:
            raise ConnectionError("the connection ended")
        answer = json.loads(line)
        if "error" in answer:
            raise Refused(answer["error"]["message"])
        return answer["result"]

    def close(self):
        self.lines.close()
        self.socket.close()


class Sandbox:
    """A home with nothing in it, removed at the end, and the programs of this build."""

    def __init__(self, home=None):
        self.vimbrel = os.environ["VIMBREL_PROGRAM"]
        self.relay_program = os.environ["VIMBREL_RELAY_PROGRAM"]
        self.helper_program = os.environ.get("VIMBREL_HELPER_PROGRAM", "")
        self.own = home is None
        self.home = home or tempfile.mkdtemp(prefix="vimbrel-", dir="/tmp")
        self.environment = {"HOME": self.home, "PATH": "/usr/bin:/bin", "TZ": "UTC", "TERM": "dumb"}
        for name in ("ASAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"):
            if name in os.environ:
                self.environment[name] = os.environ[name]
        self.is_sanitized = any(name in self.environment for name in ("ASAN_OPTIONS", "TSAN_OPTIONS"))
        self.process = None
        self.world({})

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process and self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        if self.own:
            shutil.rmtree(self.home, ignore_errors=True)

    def file(self, name):
        return os.path.join(self.home, name)

    def world(self, world):
        """The simulated machine, replaced in one step."""
        with open(self.file("world.json.new"), "w") as file:
            json.dump(world, file)
        os.rename(self.file("world.json.new"), self.file("world.json"))

    @property
    def run_directory(self):
        return self.file(".local/share/Vimbrel/run")

    @property
    def control_socket(self):
        return self.run_directory + "/control.sock"

    @property
    def hook_socket(self):
        return self.run_directory + "/vimbrel.sock"

    def launch(self, **popen):
        self.process = subprocess.Popen(
            [self.vimbrel, "run", "--simulate", self.file("world.json")], env=self.environment,
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=open(self.file("stderr"), "ab"), **popen)
        return self.process

    def start(self, **popen):
        """Starts the application; it answers, its usage store included, when this returns."""
        self.launch(**popen)
        self.wait_until_it_answers()
        return self.process

    def wait_until_it_answers(self):
        def answers():
            require(self.process.poll() is None, "the application ended: " + self.errors())
            try:
                control = Control(self.control_socket)
                control.ask("usage.today")
                control.close()
                return True
            except (OSError, ConnectionError, Refused):
                return False
        eventually(answers, "the application answers")

    def errors(self):
        with open(self.file("stderr"), "rb") as file:
            return file.read().decode(errors="replace")[-8000:]

    def kill(self):
        self.process.send_signal(signal.SIGKILL)
        self.process.wait()

    def stop(self):
        """Ends it as a person would, and says with which status it ended."""
        self.process.send_signal(signal.SIGTERM)
        status = self.process.wait(timeout=patience)
        if status != 0:
            print("the application ended with %d and said: %s" % (status, self.errors()), file=sys.stderr)
        return status

    def control(self):
        return Control(self.control_socket)

    def ask(self, method, **params):
        control = self.control()
        try:
            return control.ask(method, **params)
        finally:
            control.close()

    def relay(self, *arguments):
        """One event as a hook sends it; its exit status, which is always 0."""
        return subprocess.run([self.relay_program, *arguments], env=self.environment, stdin=subprocess.DEVNULL,
                              timeout=patience).returncode

    def command(self, *arguments):
        return subprocess.run([self.vimbrel, *arguments], env=self.environment, stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, timeout=patience)

    def hook(self, document):
        """Sends bytes to the hook socket and gives back the answer."""
        with socket.socket(socket.AF_UNIX) as connection:
            connection.settimeout(patience)
            connection.connect(self.hook_socket)
            connection.sendall(document)
            answer = b""
            while chunk := connection.recv(4096):
                answer += chunk
            return answer

    def descriptors(self):
        return len(os.listdir("/proc/%d/fd" % self.process.pid))

    def memory(self):
        """Proportional memory in kB."""
        with open("/proc/%d/smaps_rollup" % self.process.pid) as file:
            return next(int(line.split()[1]) for line in file if line.startswith("Pss:"))


# What may differ between two looks at an idle process: a file that is being written, a queue's growth.
descriptor_slack = 8
memory_slack_kb = 4096


class Baseline:
    """What the process used when this was made; it must use about as much again later."""

    def __init__(self, sandbox):
        self.sandbox = sandbox
        sandbox.ask("usage.today")
        self.descriptors = sandbox.descriptors()
        self.memory = sandbox.memory()

    def require_kept(self, memory_slack=memory_slack_kb):
        limit = self.descriptors + descriptor_slack
        eventually(lambda: self.sandbox.descriptors() <= limit,
                   "no more than %d descriptors are open" % limit)
        grown = self.sandbox.memory() - self.memory
        # The sanitizers' own bookkeeping and quarantine grow with every allocation.
        require(self.sandbox.is_sanitized or grown <= memory_slack, "memory grew by %d kB" % grown)
        return grown


def event(session, state, agent="claude", **more):
    return json.dumps({"schema": 1, "agent": agent, "session_id": session, "state": state,
                       "timestamp": time.time(), **more}).encode()


def claude_line(message, output, session="s1"):
    """A line of Claude Code's log that carries usage."""
    stamp = time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime())
    return json.dumps({"type": "assistant", "sessionId": session, "uuid": message, "timestamp": stamp,
                       "message": {"id": message, "role": "assistant", "model": "claude-opus-5",
                                   "usage": {"input_tokens": 10, "output_tokens": output}}}) + "\n"
