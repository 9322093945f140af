# SPDX-License-Identifier: Apache-2.0
"""Calls of the system that fail, one after another: strace answers the nth of a kind, or all from the nth on, with an
error. A program goes on or ends with a reason, never by a signal and never by hanging; what the application has
confirmed is there when it is started again without faults, and a hook is never held up.

    failing_calls.py application|helper|relay|command…
"""

import collections
import os
import shutil
import signal
import subprocess
import sys
import time

from sandbox import Helper, Refused, Sandbox, event, eventually, patience, require, skip

# What a system that has run out of something, or a broken disk, answers. Only calls that can fail so: to wake a loop
# through a counter cannot, and neither can closing.
failures = [
    ("openat", "EMFILE"), ("openat", "EIO"), ("read", "EIO"), ("pread64", "EIO"), ("pwrite64", "ENOSPC"),
    ("fsync", "EIO"), ("fdatasync", "EIO"), ("ftruncate", "EIO"), ("rename", "EIO"), ("unlink", "EACCES"),
    ("linkat", "EPERM"), ("mkdir", "ENOSPC"), ("flock", "ENOLCK"), ("newfstatat", "EIO"), ("getdents64", "EIO"),
    ("inotify_init1", "EMFILE"), ("inotify_add_watch", "ENOSPC"), ("timerfd_create", "EMFILE"),
    ("epoll_create1", "EMFILE"), ("eventfd2", "EMFILE"), ("socket", "EMFILE"),
    ("bind", "EADDRINUSE"), ("listen", "EADDRINUSE"), ("connect", "EAGAIN"), ("accept4", "EMFILE"),
    ("sendto", "ENOBUFS"), ("sendmsg", "ENOBUFS"), ("recvfrom", "ECONNRESET"), ("recvmsg", "ECONNRESET"),
    ("getsockopt", "ENOBUFS"), ("pidfd_open", "ENOSYS"), ("clone3", "EAGAIN"), ("poll", "EINTR"),
    ("epoll_wait", "EINTR"), ("mmap", "ENOMEM"),
]
# Signals and timers are read and waited for, too: that these fail for ever is no machine's misfortune.
only_once = {"read", "poll", "epoll_wait"}
# How many calls of a kind fail in turn, in each thread.
most = int(os.environ.get("VIMBREL_FAILING_CALLS", "1"))
# Threads are started at different times: the loops' first, then those of some requests.
most_of = {"clone3": 8}
# A program that cannot answer any more is not waited for: it is asked to end, which it must do.
deaf_after = 5.0
# What cannot be done now is tried again later, and not as fast as the machine can.
patient_tries = 500
faults = []
verbose = "VIMBREL_VERBOSE" in os.environ


class Traced:
    """A program, one kind of whose calls fail."""

    def __init__(self, sandbox, program, call, error, when):
        self.sandbox = sandbox
        self.name = "%s: %s of %s: %s" % (os.path.basename(program[0]), when, call, error)
        self.log = sandbox.file("strace")
        self.errors = open(sandbox.file("errors"), "wb+")
        self.process = subprocess.Popen(
            ["strace", "-f", "-qqq", "--seccomp-bpf", "-o", self.log, "-e", "trace=" + call,
             "-e", "inject=%s:error=%s:when=%s" % (call, error, when), *program],
            env=sandbox.environment, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=self.errors)

    def answers(self, ask):
        """Whether it takes part in the world before it ends or is given up."""
        end = time.monotonic() + deaf_after
        while self.process.poll() is None and time.monotonic() < end:
            if attempt(ask) is not None:
                return True
            time.sleep(0.01)
        return False

    def result(self):
        """Its status, and whether anything failed."""
        try:
            status = self.process.wait(timeout=patience)
        except subprocess.TimeoutExpired:
            faults.append("%s: it does not end" % self.name)
            terminate(self.process, signal.SIGKILL)
            status = self.process.wait()
        self.errors.seek(0)
        said = self.errors.read().decode(errors="replace").strip()
        self.errors.close()
        with open(self.log) as file:
            failed = file.read().count("(INJECTED)")
        if verbose:
            print(self.name, "status", status, failed, said[-200:], flush=True)
        # strace ends by the signal that ended the program.
        if status < 0 or (status > 0 and not said):
            faults.append("%s: ended with %d and said %s" % (self.name, status, said or "nothing"))
        if failed > patient_tries:
            faults.append("%s: tried %d times without a pause" % (self.name, failed))
        return status, failed > 0


def terminate(tracer, how=signal.SIGTERM):
    """As a service manager ends what strace runs: strace itself would not hand it on."""
    try:
        with open("/proc/%d/task/%d/children" % (tracer.pid, tracer.pid)) as file:
            for child in file.read().split():
                os.kill(int(child), how)
    except OSError:
        pass  # It has ended by itself.


def attempt(action):
    try:
        return action()
    except (OSError, ConnectionError, ValueError, Refused):
        return None


def calls_of(sandbox, program, live=None):
    """How many calls of each kind it makes, until it ends or has lived through `live`."""
    log = sandbox.file("calls")
    calls = sorted({call for call, _ in failures})
    tracer = subprocess.Popen(["strace", "-f", "-qqq", "-o", log, "-e", "trace=" + ",".join(calls), *program],
                              env=sandbox.environment, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL)
    if live:
        live()
        terminate(tracer)
    tracer.wait(timeout=patience)
    with open(log) as file:
        return collections.Counter(line.split(None, 1)[1].split("(")[0] for line in file)


def sweep(sandbox, program, live=None):
    """Every failure that such a run can meet: the kind of call, the error, and which of them. What the loader needs
    is left out."""
    loader = calls_of(sandbox, [program[0], "--version"])
    made = calls_of(sandbox, program, live)
    for call, error in failures:
        there = made[call] - loader[call]
        for number in range(1, min(max(most, most_of.get(call, 0)), there) + 1):
            yield call, error, str(loader[call] + number)
        if there > 0 and call not in only_once:
            yield call, error, "%d+" % (loader[call] + 1)


def hurt_the_application(sandbox):
    """What it has confirmed, and every line of a log, is there when it starts again."""
    lines = 0
    confirmed = None

    def live():
        nonlocal lines, confirmed
        sandbox.use("m%d" % lines, 90)
        lines += 1
        attempt(lambda: sandbox.hook(event("s", "working")))
        value = 20 + lines % 20
        if attempt(lambda: sandbox.ask("settings.set", key="batteryFloorPercent", value=value)) is not None:
            confirmed = value
        attempt(lambda: sandbox.ask("usage.today"))
        attempt(lambda: sandbox.ask("agents"))

    def version():
        return sandbox.ask("version")

    run = [sandbox.vimbrel, "run", "--simulate", sandbox.file("world.json")]
    for call, error, when in sweep(sandbox, run, lambda: (eventually(lambda: attempt(version), "it answers"), live())):
        program = Traced(sandbox, run, call, error, when)
        confirmed = None
        if program.answers(version):
            live()
        terminate(program.process)
        yield program.result()

        sandbox.start()
        setting = sandbox.ask("settings.get", key="batteryFloorPercent")["value"]
        require(confirmed in (None, setting), "%s: the setting %s is %s" % (program.name, confirmed, setting))
        eventually(lambda: sandbox.tokens() == 100 * lines, program.name + ": all usage counts")
        sandbox.stop()
    for _, _, files in os.walk(sandbox.home):
        for name in files:
            require(".unreadable" not in name, name + " was given up")


def hurt_the_helper(sandbox):
    """Whatever it was told last, one that starts again understands what is left of it."""
    helper = Helper(sandbox)
    sandbox.environment = helper.environment

    def status():
        return helper.status(deaf_after)

    def ask(command, **more):
        return attempt(lambda: helper.ask(command, deaf_after, leaseId="lease", **more))

    def live():
        eventually(status, "the helper answers")
        ask("acquire", ttlSeconds=600)
        ask("renew", ttlSeconds=600)
        ask("release")

    for call, error, when in sweep(sandbox, helper.words, live):
        program = Traced(sandbox, helper.words, call, error, when)
        if program.answers(status):
            ask("acquire", ttlSeconds=600)
        terminate(program.process)
        yield program.result()
        again = helper.start()
        try:
            live()
            require(not status()["isDeepHoldActive"], program.name + ": what was released is not held")
        finally:
            again.terminate()
            again.wait(timeout=patience)


def hurt_what_ends(sandbox, run, must_succeed):
    sandbox.start()
    for call, error, when in sweep(sandbox, run):
        program = Traced(sandbox, run, call, error, when)
        status, failed = program.result()
        if status != 0 and must_succeed:
            faults.append("%s: the hook sees %d" % (program.name, status))
        yield status, failed
    sandbox.stop()


def hurt_the_relay(sandbox):
    """Whatever fails, a hook goes on at once."""
    return hurt_what_ends(sandbox, [sandbox.relay_program, "--agent", "codex", "--state", "working"], True)


def hurt_a_command(sandbox):
    """A command answers or says why not."""
    return hurt_what_ends(sandbox, [sandbox.vimbrel, "status"], False)


def main():
    if not shutil.which("strace"):
        skip("strace is not installed")
    if subprocess.run(["strace", "--seccomp-bpf", "-f", "-o", "/dev/null", "true"], stderr=subprocess.DEVNULL).returncode:
        skip("no process can be traced here")
    for who in sys.argv[1:]:
        with Sandbox() as sandbox:
            if sandbox.is_sanitized:
                # Nothing of theirs works while another process traces, or without memory.
                sandbox.environment["ASAN_OPTIONS"] = sandbox.environment.get("ASAN_OPTIONS", "") + ":detect_leaks=0"
                failures[:] = [failure for failure in failures if failure[0] != "mmap"]
            ends = list({"application": hurt_the_application, "helper": hurt_the_helper, "relay": hurt_the_relay,
                         "command": hurt_a_command}[who](sandbox))
        print("%s: %d calls failed, %d of them ended it" % (who, sum(failed for _, failed in ends),
                                                            sum(status != 0 for status, _ in ends)))
        require(not faults, "\n".join(faults))


main()
