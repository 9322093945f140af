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


def is_stopped(process):
    with open("/proc/%d/stat" % process.pid) as file:
        return file.read().rsplit(")", 1)[1].split()[0] == "T"


def exchange(path, document, limit=patience, ends=True):
    """What is answered at this socket; `ends` says that nothing more is asked."""
    with socket.socket(socket.AF_UNIX) as connection:
        connection.settimeout(limit)
        connection.connect(path)
        connection.sendall(document)
        if ends:
            connection.shutdown(socket.SHUT_WR)
        answer = b""
        while chunk := connection.recv(8192):
            answer += chunk
        return answer


class Helper:
    """The helper on a simulated machine, at a place in the sandbox."""

    def __init__(self, sandbox):
        self.path = sandbox.file("helper/s")
        self.environment = {**sandbox.environment, "DBUS_SYSTEM_BUS_ADDRESS": "unix:path=/nonexistent"}
        self.words = [os.environ["VIMBREL_HELPER_PROGRAM"], "--user", "--simulate", "--socket", self.path,
                      "--state", sandbox.file("helper/state.json")]
        os.makedirs(sandbox.file("helper"))

    def start(self):
        return subprocess.Popen(self.words, env=self.environment, stderr=subprocess.DEVNULL)

    def ask(self, command, limit=patience, **request):
        return json.loads(exchange(self.path, json.dumps({"command": command, **request}).encode(), limit))

    def status(self, limit=patience):
        """What it holds; nothing where it does not answer."""
        try:
            return self.ask("status", limit).get("status")
        except (OSError, ValueError):
            return None


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
        self.own = home is None
        self.home = home or tempfile.mkdtemp(prefix="vimbrel-", dir="/tmp")
        self.environment = {"HOME": self.home, "PATH": self.file("bin") + ":/usr/bin:/bin", "TZ": "UTC", "TERM": "dumb"}
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
            self.kill()
        if self.own:
            shutil.rmtree(self.home, ignore_errors=True)

    # The home

    def file(self, name):
        return os.path.join(self.home, name)

    def write(self, name, text, mode="w"):
        os.makedirs(os.path.dirname(self.file(name)), exist_ok=True)
        with open(self.file(name), mode) as file:
            file.write(text)

    def append(self, name, text):
        self.write(name, text, "a")

    def read(self, name):
        """What is in the file; nothing where there is none."""
        try:
            with open(self.file(name), errors="replace") as file:
                return file.read()
        except FileNotFoundError:
            return ""

    def program(self, name, script):
        """Something that is installed on this machine."""
        self.write("bin/" + name, script if script.startswith("#!") else "#!/bin/sh\n%s\n" % script)
        os.chmod(self.file("bin/" + name), 0o755)

    def others(self):
        """Every file of the home that is neither Vimbrel's own nor the test's, with what is in it."""
        found = {}
        for folder, _, names in os.walk(self.home):
            if any(part in folder + "/" for part in ("/Vimbrel/", "/com.vimbrel.app/", "/bin/", "/.test/")):
                continue
            for name in names:
                path = os.path.join(folder, name)
                if "com.vimbrel" not in name and not os.path.islink(path) and name not in ("stderr", "world.json"):
                    with open(path, "rb") as file:
                        found[path] = file.read()
        return found

    def world(self, world):
        """The simulated machine, replaced in one step."""
        self.write("world.json.new", json.dumps(world))
        os.rename(self.file("world.json.new"), self.file("world.json"))

    @property
    def control_socket(self):
        return self.file(".local/share/Vimbrel/run/control.sock")

    @property
    def hook_socket(self):
        return self.file(".local/share/Vimbrel/run/vimbrel.sock")

    # The application

    def launch(self, *arguments, **popen):
        popen = {"stdout": subprocess.DEVNULL, "stderr": open(self.file("stderr"), "ab"), **popen}
        self.process = self.popen("run", *(arguments or ("--simulate", self.file("world.json"))), **popen)
        return self.process

    def start(self, *arguments, **popen):
        """Starts the application; it answers, its usage store included, when this returns."""
        self.launch(*arguments, **popen)
        self.wait_until_it_answers()
        return self.process

    def wait_until_it_answers(self):
        def answers():
            require(self.process.poll() is None, "the application ended: " + self.errors())
            try:
                self.ask("usage.today")
                return True
            except (OSError, ConnectionError, Refused):
                return False
        eventually(answers, "the application answers")

    def errors(self):
        return self.read("stderr")[-8000:]

    def kill(self):
        self.process.send_signal(signal.SIGKILL)
        self.process.wait()

    def stop(self):
        """Ends it as a person would; it must end in order."""
        self.process.send_signal(signal.SIGTERM)
        status = self.process.wait(timeout=patience)
        require(status == 0, "the application ended with %d and said: %s" % (status, self.errors()))

    def control(self):
        return Control(self.control_socket)

    def ask(self, method, **params):
        control = self.control()
        try:
            return control.ask(method, **params)
        finally:
            control.close()

    def refusal(self, method, **params):
        """Why this is refused, which it must be."""
        try:
            self.ask(method, **params)
        except Refused as refused:
            return str(refused)
        raise AssertionError("%s with %s was accepted" % (method, params))

    def sessions(self):
        return {session["id"]: session for session in self.ask("sessions")["sessions"]}

    def session(self, name, state):
        """The session of this name, once it is in this state."""
        return eventually(lambda: (found := self.sessions().get(name)) and found["state"] == state and found,
                          "session %s is %s" % (name, state))

    def descriptors(self):
        return len(os.listdir("/proc/%d/fd" % self.process.pid))

    def memory(self):
        """Proportional memory in kB."""
        with open("/proc/%d/smaps_rollup" % self.process.pid) as file:
            return next(int(line.split()[1]) for line in file if line.startswith("Pss:"))

    # Who speaks to it

    def popen(self, *arguments, **options):
        return subprocess.Popen([self.vimbrel, *arguments],
                                **{"env": self.environment, "stdin": subprocess.DEVNULL, **options})

    def command(self, *arguments, **options):
        options = {"env": self.environment, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **options}
        if "input" not in options:
            options["stdin"] = subprocess.DEVNULL
        return subprocess.run([self.vimbrel, *arguments], text=True, timeout=patience, **options)

    def answer(self, *arguments):
        """The document that a command prints."""
        done = self.command(*arguments, "--json")
        require(done.returncode == 0, "%s: %s" % (arguments, done.stderr))
        return json.loads(done.stdout)

    def setup_of(self, agent, *options):
        return self.answer("agents", "setup", agent, "--no-wait", *options)

    def relay(self, *arguments):
        """One event as a hook sends it; its exit status is always 0."""
        done = subprocess.run([self.relay_program, *arguments], env=self.environment, stdin=subprocess.DEVNULL,
                              timeout=patience)
        require(done.returncode == 0, "the relay ended with %d" % done.returncode)

    def report(self, agent, state, session):
        self.relay("--agent", agent, "--state", state, "--session-id", session, "--no-pid")

    def use(self, message, output):
        """A turn of an agent, as its log has it: ten tokens in, so many out."""
        self.append(".claude/projects/p/s1.jsonl", claude_line(message, output))

    def tokens(self):
        return self.ask("usage.today")["totalTokens"]

    def hook(self, document):
        """Sends bytes to the hook socket and gives back the answer."""
        return exchange(self.hook_socket, document, ends=False)

    def is_taken(self, document):
        require(b'"ok":true' in (answer := self.hook(document)), "an event was refused: %s" % answer)


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
