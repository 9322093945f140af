# SPDX-License-Identifier: Apache-2.0
"""What `vimbrel agents setup` prints is saved where it belongs, parsed by a parser of its format, and every command
line in it is run by a process that stands for the agent, with the input that the agent gives its hooks: a running
application must end up with the right sessions in the right states."""

import json
import os
import shlex
import shutil
import subprocess
import sys

from sandbox import Sandbox, eventually, patience, require, skip

try:
    import yaml
except ImportError:
    skip("python3-yaml is missing")

# The events of each agent's hooks, with the matcher that chooses among them, and the state that each reports.
expected = {
    "claude": {"UserPromptSubmit": "working", "PreToolUse *": "working", "PostToolUse *": "working",
               "Notification permission_prompt|elicitation_dialog": "waiting", "Notification idle_prompt": "idle",
               "Stop": "idle", "SessionEnd": "completed"},
    "codex": {"UserPromptSubmit": "working", "PreToolUse": "working", "PermissionRequest": "waiting",
              "PostToolUse": "working", "Stop": "idle", "Interrupt": "idle", "SessionEnd": "completed"},
    "gemini": {"SessionStart": "idle", "BeforeAgent": "working", "BeforeTool": "working", "AfterTool": "working",
               "Notification ToolPermission": "waiting", "AfterAgent": "idle", "SessionEnd": "completed"},
    "cursor": {"beforeSubmitPrompt": "working", "postToolUse": "working", "stop": "idle", "sessionEnd": "completed"},
    "windsurf": {"pre_user_prompt": "working", "post_run_command": "working", "post_cascade_response": "idle"},
    "antigravity": {"PreInvocation": "working", "Stop": "idle"},
    "aider": {"notifications-command": "waiting"},
}
session_keys = {"claude": "session_id", "codex": "session_id", "gemini": "session_id", "cursor": "conversation_id",
                "windsurf": "trajectory_id"}
paths = {"claude": "~/.claude/settings.json", "codex": "~/.codex/hooks.json", "gemini": "~/.gemini/settings.json",
         "cursor": "~/.cursor/hooks.json", "windsurf": "~/.codeium/windsurf/hooks.json",
         "antigravity": "~/.gemini/config/hooks.json", "aider": "~/.aider.conf.yml"}


def hooks_of(agent, document):
    """Event (and matcher) to the hook's own members."""
    if agent == "aider":
        require(document["notifications"] is True, "notifications are on")
        return {"notifications-command": {"command": document["notifications-command"]}}
    if agent == "cursor":
        require(document["version"] == 1, "the version that Cursor asks for")
    if agent == "antigravity":
        require(list(document) == ["vimbrel"], "one hook by its name")
    events = document["vimbrel"] if agent == "antigravity" else document["hooks"]
    hooks = {}
    for event, entries in events.items():
        for entry in entries:
            name = event + (" " + entry["matcher"] if "matcher" in entry else "")
            inner = entry["hooks"] if "hooks" in entry else [entry]
            require(len(inner) == 1, "one command an event")
            hooks[name] = inner[0]
    return hooks


def input_of(agent, event, conversation, directory):
    """The document that the agent writes to this hook's standard input."""
    name = event.split(" ")[0]
    # A tool's input may be long, and may hold anything.
    tool = {"command": "echo '{\"session_id\": \"no\"}'", "session_id": "inner", "text": "x" * 100_000}
    if agent in ("claude", "codex", "gemini"):
        return {"session_id": conversation, "transcript_path": directory + "/t.jsonl", "cwd": directory,
                "hook_event_name": name, "permission_mode": "default", "tool_name": "Bash", "tool_input": tool}
    if agent == "cursor":
        return {"conversation_id": conversation, "generation_id": "g-" + name, "hook_event_name": name,
                "workspace_roots": [directory], "tool_input": tool}
    if agent == "windsurf":
        return {"agent_action_name": name, "trajectory_id": conversation, "execution_id": "e-" + name,
                "tool_info": tool}
    return {}


class AgentProcess:
    """A process that stands for an agent: it runs hooks as its children, as agents do."""

    loop = """
import json, subprocess, sys
for line in sys.stdin:
    done = subprocess.run(stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **json.loads(line))
    print(json.dumps([done.returncode, done.stdout]), flush=True)
"""

    def __init__(self, sandbox, home=None):
        self.options = {"env": {"HOME": home or sandbox.home}, "cwd": sandbox.home, "timeout": patience}
        self.process = subprocess.Popen([sys.executable, "-c", self.loop], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, text=True)
        self.pid = self.process.pid

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.communicate()

    def run_hook(self, words, document):
        """Every hook must end with 0 and print nothing: some agents show a hook's output to the model."""
        self.process.stdin.write(json.dumps({"args": words, "input": document, **self.options}) + "\n")
        self.process.stdin.flush()
        ended = json.loads(self.process.stdout.readline())
        require(ended == [0, ""], "%s ended so: %s" % (words, ended))


class Snippet:
    def __init__(self, sandbox, agent, *options):
        self.setup = sandbox.setup_of(agent, *options)
        self.text = self.setup["currentSetupSnippet"]
        people = sandbox.command("agents", "setup", agent, "--no-wait", *options).stdout
        require(self.text in people, "people are shown the very text")
        require(people.index(self.text) < people.index(self.setup["manualSetupInstructions"]),
                "the form for today's versions comes first")
        parse = {"json": json.loads, "yaml": yaml.safe_load}[self.setup["currentFormat"]]
        self.hooks = hooks_of(agent, parse(self.text))


# Agents that Vimbrel watches by a process of which their hooks know nothing.
without_process = ("cursor", "windsurf", "antigravity")


def require_session(sandbox, name, agent, state, pid, is_far=False):
    session = sandbox.session(name, state)
    require(session["agentType"] == agent, session)
    named = None if agent in without_process or (agent == "aider" and is_far) else pid
    require(session.get("pid") == named, "the process of the agent (%d), not of a shell, or none: %s" % (pid, session))


def require_scan(sandbox, processes):
    """The processes are seen: what a scan does to sessions, it has done."""
    sandbox.world({"processes": ["%d /usr/bin/aider" % pid for pid in processes]})
    eventually(lambda: {"proc-aider-%d" % pid for pid in processes}
               == {name for name in sandbox.sessions() if name.startswith("proc-")}, "the scan")


def try_agent(sandbox, agent):
    snippet = Snippet(sandbox, agent)
    setup = snippet.setup
    require(setup["currentConfigPath"] == paths[agent], setup["currentConfigPath"])
    require(os.access(setup["relayPath"], os.X_OK) and os.path.isabs(setup["relayPath"]), setup["relayPath"])
    require({event: shlex.split(hook["command"])[4] for event, hook in snippet.hooks.items()} == expected[agent],
            snippet.hooks)
    timeouts = {hook.get("timeout") for hook in snippet.hooks.values()}
    # Seconds, but for Gemini CLI; the other two have none.
    require(timeouts == {{"gemini": 2000, "cursor": None, "windsurf": None, "aider": None}.get(agent, 5)}, timeouts)

    sandbox.write(paths[agent].removeprefix("~/"), snippet.text)
    overview = {each["agentType"]: each for each in sandbox.answer("agents")}
    require(overview[agent]["configuredIn"] == [paths[agent]], "detection finds what was pasted")

    before = set(sandbox.sessions())
    runs = {"sh": lambda line: ["/bin/sh", "-c", line], "bash": lambda line: ["/bin/bash", "-c", line],
            "none": shlex.split}  # An agent that needs no shell.
    made, pids = set(), set()
    for shell, words_of in runs.items():
        with AgentProcess(sandbox) as one, AgentProcess(sandbox) as other:
            pids |= {one.pid, other.pid}
            if agent == "aider":
                require_scan(sandbox, pids)  # Its sessions last as long as its processes are seen.
            # Two conversations of one process, and one of another.
            conversations = [("%s-%s-%d" % (agent, shell, number), process)
                             for number, process in ((1, one), (2, one), (3, other))]
            if agent not in session_keys:
                conversations = conversations[1:]
            for event, state in expected[agent].items():
                for conversation, process in conversations:
                    document = json.dumps(input_of(agent, event, conversation, sandbox.home))
                    process.run_hook(words_of(snippet.hooks[event]["command"]), document)
                    name = conversation if agent in session_keys else "%s-%d" % (agent, process.pid)
                    made.add(name)
                    require_session(sandbox, name, agent, state, process.pid)
    # The sessions of the others outlive a scan that does not find their processes.
    require_scan(sandbox, pids if agent == "aider" else [os.getpid()])
    others = {name for name in set(sandbox.sessions()) - before if not name.startswith("proc-")} ^ made
    require(not others, "each conversation has one session, and nothing else has one: %s" % others)
    require(len(made) == len(runs) * (3 if agent in session_keys else 2), made)
    if agent == "aider":
        require_scan(sandbox, [])
        require(not set(sandbox.sessions()) & made, "its sessions end with its processes")


def try_odd_paths(sandbox):
    """Agents run the command lines through a shell, and people install relays in odd places."""
    folder = sandbox.file("it's $HOME \"quoted\" `a` \\ é;&")
    os.makedirs(folder)
    relay = shutil.copy(sandbox.relay_program, folder + "/vimbrel-relay")
    os.symlink(sandbox.hook_socket, folder + "/s")
    for agent in expected:
        snippet = Snippet(sandbox, agent, "--relay", relay, "--socket", folder + "/s")
        event, state = next(iter(expected[agent].items()))
        with AgentProcess(sandbox, home="/nowhere") as process:
            document = json.dumps(input_of(agent, event, "odd-" + agent, sandbox.home))
            process.run_hook(["/bin/sh", "-c", snippet.hooks[event]["command"]], document)
            name = "odd-" + agent if agent in session_keys else "%s-%d" % (agent, process.pid)
            require_session(sandbox, name, agent, state, process.pid, is_far=True)


def main():
    with Sandbox() as sandbox:
        sandbox.start()
        for agent in expected:
            try_agent(sandbox, agent)
        try_odd_paths(sandbox)
        sandbox.stop()


main()
