# SPDX-License-Identifier: Apache-2.0
"""`vimbrel agents`, `agents setup` and `agents test`, with and without a running application, on a machine whose agents
are scripts. None of them writes into the home, and a test leaves nothing behind, however it ends."""

import base64
import json
import os
import re
import shutil
import subprocess

from sandbox import Sandbox, eventually, patience, require
from terminal import Terminal

agents = ["claude", "codex", "gemini", "opencode", "antigravity", "cursor", "windsurf", "aider"]


def reported(sandbox):
    """Sessions that were reported; what is found running is another matter."""
    return [name for name in sandbox.sessions() if not name.startswith("proc-")]


def overview(sandbox):
    entries = sandbox.answer("agents")
    require([entry["agentType"] for entry in entries] == agents, "a list of all agents, in their order")
    return {entry["agentType"]: entry for entry in entries}


def try_overview(sandbox):
    sandbox.program("claude", "echo '2.1.0 (Claude Code)'")
    sandbox.program("codex", "printf '\\033[31mred\\nand more\\n'")
    sandbox.write(".claude/settings.json", json.dumps({"hooks": {"Stop": [{"hooks": [
        {"type": "command", "command": sandbox.relay_program}]}]}}))
    before = sandbox.others()
    for is_running in (False, True):
        if is_running:
            # It knows less of the user's places than the user's shell.
            full = sandbox.environment["PATH"]
            sandbox.environment["PATH"] = "/usr/bin:/bin"
            sandbox.world({"applications": [{"name": "Cursor", "bundleIdentifier": "c", "pid": 4711}]})
            sandbox.start()
            sandbox.environment["PATH"] = full
            sandbox.program("gemini", "sleep 1000")
        entries = overview(sandbox)
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
        done = sandbox.command("agents")
        require(("is not running" in done.stderr) == (not is_running), done.stderr)
        table = done.stdout.splitlines()
        require(len(table) == 9 and "\x1b" not in "".join(table), "a line each, whatever a program prints: %s" % table)
        require(any("Claude Code" in line and "Hook active" in line and "never" in line for line in table), table)
    sandbox.relay("--agent", "claude", "--state", "idle")
    eventually(lambda: overview(sandbox)["claude"]["lastEventState"] == "idle", "the last event")
    require(overview(sandbox)["codex"]["lastEventAt"] is None, "of that agent only")
    require("Idle, " in sandbox.command("agents").stdout, "the last event is shown")
    require(sandbox.others() == before, "nothing of the home is written")

    # Several at once, one of whom does not wait for the answer.
    running = [sandbox.popen("agents", "--json", stdout=subprocess.DEVNULL) for _ in range(3)]
    running[0].kill()
    require([process.wait(timeout=patience) for process in running][1:] == [0, 0], "all are answered")
    for wrong in (7, {"PATH": 7}):
        sandbox.refusal("agents", environment=wrong)


def try_waiting(sandbox):
    def wait_for(agent):
        waiting = sandbox.popen("agents", "setup", agent, "--json", text=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        require("Waiting for the first event" in waiting.stderr.readline() + waiting.stderr.readline(), "it says so")
        return waiting

    for agent in agents:
        waiting = wait_for(agent)
        sandbox.report(agents[agents.index(agent) - 1], "working", "other")
        require(sandbox.command("agents", "test", agent).returncode == 0, "a test is no first event")
        require(waiting.poll() is None, "another agent's event is none either")
        sandbox.report(agent, "waiting", "w")
        output, errors = waiting.communicate(timeout=patience)
        require(waiting.returncode == 0 and json.loads(output)["agentType"] == agent, (output, errors))
    waiting = wait_for("claude")
    sandbox.kill()
    waiting.communicate(timeout=patience)
    require(waiting.returncode == 1, "it does not wait for nobody")
    done = sandbox.command("agents", "setup", "claude")
    require(done.returncode == 3 and "settings.json" in done.stdout and "vimbrel run" in done.stderr, done.stderr)
    sandbox.setup_of("claude")  # Printing needs nobody.
    sandbox.start()
    require(overview(sandbox)["codex"]["lastEventAt"] is None, "a crash costs what was not saved yet")


def try_tests(sandbox):
    history = sandbox.ask("history")
    for agent in agents:
        answer = sandbox.answer("agents", "test", agent)
        require(answer["received"] and answer["session"]["agentType"] == agent, answer)
        require(answer["session"]["state"] == ("waiting" if agent == "aider" else "working"), answer)
        require("Active (" in answer["statusDescription"], answer)
    require("received" in sandbox.command("agents", "test", "claude").stdout, "people are told too")
    eventually(lambda: not reported(sandbox), "no session of a test stays")
    state = eventually(lambda: not (now := sandbox.ask("status"))["isHolding"] and now, "nothing is held any more")
    require(not state["lastEvents"], "and nothing is remembered")
    require(sandbox.ask("history") == history, "nor is it in the history")

    # One that is killed between its report and its end.
    sandbox.program("slow-relay", "cat > $HOME/.test/x; %s \"$@\" < $HOME/.test/x; kill -9 $PPID; sleep 1000 & exit 0"
                    % sandbox.relay_program)
    os.makedirs(sandbox.file(".test"))
    killed = sandbox.popen("agents", "test", "claude", "--relay", sandbox.file("bin/slow-relay"),
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    eventually(lambda: reported(sandbox) or killed.poll() is not None, "the report")
    killed.kill()
    killed.wait()
    eventually(lambda: not reported(sandbox), "its session is gone with it")

    for relay, words in (("/no/such/relay", "cannot be run"), ("/bin/false", "status 1"), ("/bin/true", "doctor")):
        done = sandbox.command("agents", "test", "codex", "--relay", relay, "--json")
        require(done.returncode == 1 and words in done.stderr and json.loads(done.stdout)["received"] is False, done)
    sandbox.report("claude", "idle", "mine")
    sandbox.session("mine", "idle")
    # Nor can a session of an agent be put on trial.
    for wrong in ({}, {"session": ""}, {"session": "x" * 201}, {"session": 7}, {"session": "mine"}):
        sandbox.refusal("agents.trial", **wrong)
    require(reported(sandbox) == ["mine"], "it is still there")


def try_wrong_lines(sandbox):
    for arguments, words in ((["setup", "cladue", "--no-wait"], "did you mean claude?"),
                             (["setup", "custom", "--no-wait"], "the agents are claude, codex"),
                             (["test", "x\x1b[31m"], "there is no agent x?[31m"),
                             (["setup"], "agent is required"), (["stup", "claude"], "did you mean setup?")):
        done = sandbox.command("agents", *arguments)
        require(done.returncode == 2 and words in done.stderr and done.stdout == "", done)
    # An installation without a relay beside it.
    program, sandbox.vimbrel = sandbox.vimbrel, sandbox.file("lonely/vimbrel")
    os.makedirs(os.path.dirname(sandbox.vimbrel))
    shutil.copy(program, sandbox.vimbrel)
    done = sandbox.command("agents", "setup", "claude", "--no-wait")
    require(done.returncode == 1 and "vimbrel-relay is not installed" in done.stderr, done)
    found = shutil.copy(sandbox.relay_program, sandbox.file("bin/vimbrel-relay"))
    require(sandbox.setup_of("claude")["relayPath"] == found, "the search path is looked through")
    sandbox.vimbrel = program


def try_clipboard(sandbox):
    copy = ["agents", "setup", "codex", "--no-wait", "--copy"]
    snippet = sandbox.setup_of("codex")["currentSetupSnippet"]
    for variables, words in (({}, "neither a display nor a terminal"), ({"DISPLAY": ":7"}, "xclip")):
        done = sandbox.command(*copy, env={**sandbox.environment, **variables}, start_new_session=True)
        require(done.returncode == 1 and words in done.stderr, done)
    for variable, program, arguments in (("DISPLAY", "xsel", "--clipboard --input"),
                                         ("DISPLAY", "xclip", "-selection clipboard"), ("WAYLAND_DISPLAY", "wl-copy", "")):
        # Like the real ones it stays to serve what it holds.
        sandbox.program(program, "[ \"$*\" = '%s' ] || exit 1; cat > $HOME/.test/%s; exec 0<&- >/dev/null 2>&1; "
                        "(trap '' HUP; sleep 0.5) &" % (arguments, program))
        done = sandbox.command(*copy, env={**sandbox.environment, variable: ":7"}, start_new_session=True)
        require(done.returncode == 0 and "Copied by " + program in done.stderr, done)
        require(sandbox.read(".test/" + program) == snippet, "it has the snippet")

    # On a terminal, also one at the other end of SSH.
    with Terminal(sandbox, *copy) as terminal:
        sequence = re.search("\x1b]52;c;([^\x07]*)\x07", terminal.end(0)).group(1)
    require(base64.b64decode(sequence, validate=True).decode() == snippet, "the terminal is asked to copy")


def main():
    with Sandbox() as sandbox:
        try_overview(sandbox)
        before = sandbox.others().keys()
        try_waiting(sandbox)
        try_tests(sandbox)
        require(sandbox.others().keys() == before, "nothing of the home is written")
        try_wrong_lines(sandbox)
        try_clipboard(sandbox)
        sandbox.stop()
        # What was heard outlives it.
        sandbox.start()
        require(overview(sandbox)["claude"]["lastEventState"] == "idle", "the last event of the run before")


main()
