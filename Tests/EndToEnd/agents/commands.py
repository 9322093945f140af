# SPDX-License-Identifier: Apache-2.0
"""`vimbrel agents`, `agents setup` and `agents test`, with and without a running application, on a machine whose agents
are scripts. None of them writes into the home, and a test leaves nothing behind, however it ends."""

import base64
import json
import os
import pty
import shutil
import subprocess
import sys

from sandbox import Refused, Sandbox, eventually, patience, require

agents = ["claude", "codex", "gemini", "opencode", "antigravity", "cursor", "windsurf", "aider"]


def install(sandbox, name, script):
    os.makedirs(sandbox.file("bin"), exist_ok=True)
    path = sandbox.file("bin/" + name)
    with open(path, "w") as file:
        file.write("#!/bin/sh\n" + script + "\n")
    os.chmod(path, 0o755)


def save(sandbox, path, text):
    os.makedirs(os.path.dirname(sandbox.file(path)), exist_ok=True)
    with open(sandbox.file(path), "w") as file:
        file.write(text)


def contents(sandbox):
    """Every file of the home that is not Vimbrel's own, with what is in it."""
    found = {}
    for folder, _, names in os.walk(sandbox.home):
        own = ("/Vimbrel", "/com.vimbrel.app")
        if any(part in folder + "/" for part in own):
            continue
        for name in names:
            if name not in ("stderr", "world.json"):
                with open(os.path.join(folder, name), "rb") as file:
                    found[os.path.join(folder, name)] = file.read()
    return found


def sessions(sandbox):
    """Those that were reported; what is found running is another matter."""
    return [each for each in sandbox.ask("sessions")["sessions"] if not each["id"].startswith("proc-")]


def overview(sandbox):
    printed = sandbox.command("agents", "--json")
    require(printed.returncode == 0, printed.stderr)
    entries = json.loads(printed.stdout)
    require([entry["agentType"] for entry in entries] == agents, "a list of all agents, in their order")
    return {entry["agentType"]: entry for entry in entries}, printed.stderr


def try_overview(sandbox):
    install(sandbox, "claude", "echo '2.1.0 (Claude Code)'")
    install(sandbox, "codex", "printf '\\033[31mred\\nand more\\n'")
    sandbox.environment["PATH"] += ":" + sandbox.file("bin")
    save(sandbox, ".claude/settings.json", json.dumps({"hooks": {"Stop": [{"hooks": [
        {"type": "command", "command": sandbox.relay_program}]}]}}))
    before = contents(sandbox)
    for is_running in (False, True):
        if is_running:
            # It knows less of the user's places than the user's shell.
            full = dict(sandbox.environment)
            sandbox.environment["PATH"] = "/usr/bin:/bin"
            sandbox.world({"applications": [{"name": "Cursor", "bundleIdentifier": "c", "pid": 4711}]})
            sandbox.start()
            sandbox.environment.update(full)
            install(sandbox, "gemini", "sleep 1000")
        entries, errors = overview(sandbox)
        require(("is not running" in errors) == (not is_running), errors)
        claude = entries["claude"]
        require(claude == {"agentType": "claude", "displayName": "Claude Code", "isInstalled": True,
                           "agentVersion": "2.1.0 (Claude Code)", "integrationType": "lifecycle",
                           "isIntegrationActive": True, "statusMessage": "Hook active",
                           "configuredIn": ["~/.claude/settings.json"], "lastEventAt": None,
                           "lastEventState": None}, claude)
        gemini = entries["gemini"]
        require(gemini["isInstalled"] == is_running and "agentVersion" not in gemini, "a program that hangs: %s" % gemini)
        if is_running:
            os.remove(sandbox.file("bin/gemini"))
        require(entries["cursor"]["isIntegrationActive"] == is_running, "what runs is known while Vimbrel runs")
        table = sandbox.command("agents").stdout.splitlines()
        require(len(table) == 9 and "\x1b" not in "".join(table), "a line each, whatever a program prints: %s" % table)
        require(any("Claude Code" in line and "Hook active" in line and "never" in line for line in table), table)
    sandbox.relay("--agent", "claude", "--state", "idle")
    last = eventually(lambda: overview(sandbox)[0]["claude"]["lastEventAt"], "the last event")
    require(last.endswith("Z") and overview(sandbox)[0]["claude"]["lastEventState"] == "idle", last)
    require(overview(sandbox)[0]["codex"]["lastEventAt"] is None, "of that agent only")
    require(any("Idle, " in line for line in sandbox.command("agents").stdout.splitlines()), "the last event is shown")
    require(contents(sandbox) == before, "nothing of the home is written")

    # Several at once, one of whom does not wait for the answer.
    running = [subprocess.Popen([sandbox.vimbrel, "agents", "--json"], env=sandbox.environment,
                                stdout=subprocess.DEVNULL) for _ in range(3)]
    running[0].kill()
    require([process.wait(timeout=patience) for process in running][1:] == [0, 0], "all are answered")
    require(sandbox.command("status").returncode == 0, "and the application is well")
    for wrong in ({"environment": 7}, {"environment": {"PATH": 7}}):
        try:
            sandbox.ask("agents", **wrong)
            require(False, "%s is accepted" % wrong)
        except Refused:
            pass


def try_waiting(sandbox):
    for agent in agents:
        waiting = subprocess.Popen([sandbox.vimbrel, "agents", "setup", agent], env=sandbox.environment, text=True,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        require(waiting.stderr.readline() == "\n" and "Waiting for the first event" in waiting.stderr.readline(),
                "it says that it waits")
        other = agents[agents.index(agent) - 1]
        sandbox.relay("--agent", other, "--state", "working", "--session-id", "other")
        require(sandbox.command("agents", "test", agent).returncode == 0, "a test is no first event")
        require(waiting.poll() is None, "another agent's event is none either")
        sandbox.relay("--agent", agent, "--state", "waiting", "--session-id", "w")
        output, _ = waiting.communicate(timeout=patience)
        require(waiting.returncode == 0 and "received: " in output and "reports Waiting" in output, output)
    waiting = subprocess.Popen([sandbox.vimbrel, "agents", "setup", "claude", "--json"], env=sandbox.environment,
                               text=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    waiting.stderr.readline(), waiting.stderr.readline()
    sandbox.kill()
    output, errors = waiting.communicate(timeout=patience)
    require(waiting.returncode == 1 and json.loads(output)["agentType"] == "claude", "it does not wait for nobody")
    done = sandbox.command("agents", "setup", "claude")
    require(done.returncode == 3 and "settings.json" in done.stdout and "vimbrel run" in done.stderr, done.stderr)
    require(sandbox.command("agents", "setup", "claude", "--no-wait").returncode == 0, "printing needs nobody")
    sandbox.start()
    require(overview(sandbox)[0]["codex"]["lastEventAt"] is None, "a crash costs what was not saved yet")


def try_tests(sandbox):
    history = sandbox.ask("history")
    for agent in agents:
        done = sandbox.command("agents", "test", agent, "--json")
        require(done.returncode == 0, done.stderr)
        answer = json.loads(done.stdout)
        require(answer["received"] and answer["session"]["agentType"] == agent, answer)
        require(answer["session"]["state"] == ("waiting" if agent == "aider" else "working"), answer)
        require("Active (" in answer["statusDescription"], answer)
        require("received" in sandbox.command("agents", "test", agent).stdout, "people are told too")
    eventually(lambda: not sessions(sandbox), "no session of a test stays")
    state = eventually(lambda: not (now := sandbox.ask("status"))["isHolding"] and now, "nothing is held any more")
    require(not state["lastEvents"], "and nothing is remembered")
    require(sandbox.ask("history") == history, "nor is it in the history")

    # One that is killed between its report and its end.
    install(sandbox, "slow-relay", "cat > %s.in; %s \"$@\" < %s.in; kill -9 $PPID; sleep 1000 & exit 0"
            % (sandbox.file("x"), sandbox.relay_program, sandbox.file("x")))
    killed = subprocess.Popen([sandbox.vimbrel, "agents", "test", "claude", "--relay", sandbox.file("bin/slow-relay")],
                              env=sandbox.environment, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    eventually(lambda: sessions(sandbox) or killed.poll() is not None, "the report")
    killed.kill()
    killed.wait()
    eventually(lambda: not sessions(sandbox), "its session is gone with it")

    for relay, words in (("/no/such/relay", "cannot be run"), ("/bin/false", "status 1"), ("/bin/true", "doctor")):
        done = sandbox.command("agents", "test", "codex", "--relay", relay)
        require(done.returncode == 1 and words in done.stderr and "received" not in done.stdout, done)
    done = sandbox.command("agents", "test", "codex", "--relay", "/bin/false", "--json")
    require(done.returncode == 1 and json.loads(done.stdout)["received"] is False, done)
    for wrong in ({}, {"session": ""}, {"session": "x" * 201}, {"session": 7}):
        try:
            sandbox.ask("agents.trial", **wrong)
            require(False, "%s is accepted" % wrong)
        except Refused:
            pass
    sandbox.relay("--agent", "claude", "--state", "idle", "--session-id", "mine")
    eventually(lambda: sessions(sandbox), "a session")
    try:
        sandbox.ask("agents.trial", session="mine")
        require(False, "a session of an agent is put on trial")
    except Refused:
        pass
    require(sessions(sandbox), "and it is still there")


def try_wrong_lines(sandbox):
    for arguments, status, words in ((["setup", "cladue", "--no-wait"], 2, "did you mean claude?"),
                                     (["setup", "custom", "--no-wait"], 2, "the agents are claude, codex"),
                                     (["test", "x\x1b[31m"], 2, "there is no agent x?[31m"),
                                     (["setup"], 2, "agent is required"), (["stup", "claude"], 2, "did you mean setup?")):
        done = sandbox.command("agents", *arguments)
        require(done.returncode == status and words in done.stderr and done.stdout == "", done)
    lonely = sandbox.file("lonely/vimbrel")
    os.makedirs(os.path.dirname(lonely))
    shutil.copy(sandbox.vimbrel, lonely)
    done = subprocess.run([lonely, "agents", "setup", "claude", "--no-wait"], env=sandbox.environment,
                          capture_output=True, text=True)
    require(done.returncode == 1 and "vimbrel-relay is not installed" in done.stderr, done)
    found = sandbox.file("bin/vimbrel-relay")
    shutil.copy(sandbox.relay_program, found)
    done = subprocess.run([lonely, "agents", "setup", "claude", "--no-wait", "--json"], env=sandbox.environment,
                          capture_output=True, text=True)
    require(json.loads(done.stdout)["relayPath"] == found, "the search path is looked through")


def try_clipboard(sandbox):
    snippet = json.loads(sandbox.command("agents", "setup", "codex", "--no-wait", "--json").stdout)["currentSetupSnippet"]

    def copied(**variables):
        """What the clipboard's program was given; it stays to serve what it holds."""
        environment = dict(sandbox.environment, **variables)
        done = subprocess.run([sandbox.vimbrel, "agents", "setup", "codex", "--no-wait", "--copy"], env=environment,
                              capture_output=True, text=True, stdin=subprocess.DEVNULL, start_new_session=True)
        try:
            with open(sandbox.file("clipboard")) as file:
                text = file.read()
            os.remove(sandbox.file("clipboard"))
        except FileNotFoundError:
            text = None
        return done.returncode, text, done.stderr

    status, text, errors = copied()
    require(status == 1 and text is None and "neither a display nor a terminal" in errors, errors)
    require(copied(DISPLAY=":7")[0] == 1 and "xclip" in copied(DISPLAY=":7")[2], "what to install is said")
    for variable, program, arguments in (("DISPLAY", "xsel", "--clipboard --input"),
                                         ("DISPLAY", "xclip", "-selection clipboard"), ("WAYLAND_DISPLAY", "wl-copy", "")):
        install(sandbox, program, "[ \"$*\" = '%s' ] || exit 1; cat > %s; exec 0<&- >/dev/null 2>&1; "
                "(trap '' HUP; sleep 0.5) &" % (arguments, sandbox.file("clipboard")))
        status, text, errors = copied(**{variable: ":7"})
        require(status == 0 and text == snippet and "Copied by " + program in errors, (status, text, errors))

    # On a terminal, also one at the other end of SSH.
    pid, terminal = pty.fork()
    if pid == 0:
        os.execve(sandbox.vimbrel, [sandbox.vimbrel, "agents", "setup", "codex", "--no-wait", "--copy"],
                  sandbox.environment)
    output = b""
    while True:
        try:
            output += os.read(terminal, 65536)
        except OSError:
            break
    require(os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]) == 0, output)
    sequence = output.split(b"\x1b]52;c;")[1].split(b"\x07")[0]
    require(base64.b64decode(sequence, validate=True).decode() == snippet, "the terminal is asked to copy")


def main():
    with Sandbox() as sandbox:
        try_overview(sandbox)
        before = contents(sandbox)
        try_waiting(sandbox)
        try_tests(sandbox)
        require({path for path in contents(sandbox) if "/bin/" not in path and not path.endswith("/x.in")}
                == {path for path in before if "/bin/" not in path}, "nothing of the home is written")
        try_wrong_lines(sandbox)
        try_clipboard(sandbox)
        require(sandbox.stop() == 0, "the application stops with 0")
        # What was heard outlives it.
        sandbox.start()
        require(overview(sandbox)[0]["claude"]["lastEventState"] == "idle", "the last event of the run before")


sys.exit(main())
