# SPDX-License-Identifier: Apache-2.0
"""The OpenCode plugin that `vimbrel agents setup` prints, run by the JavaScript engine of this machine with OpenCode's
plugin interface, against a running application."""

import json
import os
import subprocess

from sandbox import Sandbox, require, skip

node = "/usr/bin/node"
if not os.access(node, os.X_OK):
    skip("nodejs is missing")


class Host:
    def __init__(self, sandbox, plugin, interface="current"):
        self.sandbox = sandbox
        self.process = subprocess.Popen(
            [node, os.path.join(os.path.dirname(os.path.abspath(__file__)), "plugin_host.mjs"), plugin, interface],
            env={"HOME": sandbox.home, "PATH": ""}, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        hello = self.process.stdout.readline()
        require(hello, "the plugin loads")
        self.exports = json.loads(hello)["exports"]

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.communicate()

    def ask(self, **request):
        self.process.stdin.write(json.dumps(request) + "\n")
        self.process.stdin.flush()
        answer = self.process.stdout.readline()
        require(answer == "{}\n", "the plugin throws nothing and prints nothing: %r" % answer)

    def event(self, kind, **properties):
        self.ask(event={"type": kind, "properties": properties})

    def status(self, session, kind):
        self.event("session.status", sessionID=session, status={"type": kind})

    def require_state(self, session, state):
        found = self.sandbox.session(session, state)
        require(found["agentType"] == "opencode" and found["integrationType"] == "plugin", found)
        return found

    def heard(self):
        return self.sandbox.ask("status")["lastEvents"].get("opencode", {}).get("count", 0)


def try_conversations(sandbox, host):
    host.event("session.created", info={"id": "one"})
    host.event("session.created", info={"id": "child", "parentID": "one"})
    host.event("session.created", info={"id": "grandchild", "parentID": "child"})
    host.status("one", "busy")
    require(host.require_state("one", "working")["pid"] == host.process.pid, "the agent's process")
    heard = host.heard()
    for _ in range(20):
        host.status("one", "busy")
    host.status("child", "busy")
    host.status("child", "idle")
    require(host.heard() == heard, "repetitions and sub-agents are not reported")
    host.require_state("one", "working")

    host.status("two", "retry")
    host.require_state("two", "working")
    host.event("permission.asked", sessionID="one", id="p1")
    host.require_state("one", "waiting")
    host.status("one", "busy")  # OpenCode stays busy while it asks.
    host.require_state("two", "working")
    host.require_state("one", "waiting")
    host.event("permission.replied", sessionID="one", requestID="p1")
    host.require_state("one", "working")
    host.event("permission.updated", sessionID="grandchild", id="p2")
    host.require_state("one", "waiting")
    host.event("permission.replied", sessionID="grandchild", permissionID="p2")
    host.require_state("one", "working")
    host.status("one", "idle")
    host.require_state("one", "idle")
    host.require_state("two", "working")

    # Not awaited, they may overtake each other on their way; what counts is the order in which they happened.
    for number in range(10):
        session = "quick-%d" % number
        host.ask(together=[{"type": "session.status", "properties": {"sessionID": session, "status": {"type": kind}}}
                           for kind in ("busy", "idle", "busy", "idle")])
        host.require_state(session, "idle")

    host.event("session.deleted", info={"id": "child", "parentID": "one"})
    host.event("session.deleted", info={"id": "one"})
    host.require_state("one", "completed")
    known = sandbox.sessions().keys() & {"child", "grandchild", "undefined", "null"}
    require(not known, known)


def try_odd_events(host):
    heard = host.heard()
    for event in ({"type": "session.status"}, {"type": "session.status", "properties": {}}, {"type": "unknown"}, {},
                  {"type": "session.created", "properties": {"info": None}}, {"type": "session.deleted"},
                  {"type": "permission.asked", "properties": None}):
        host.ask(event=event)
    require(host.heard() == heard, "nothing is reported of what says nothing")


def main():
    with Sandbox() as sandbox:
        sandbox.start()
        setup = sandbox.setup_of("opencode")
        require(setup["currentFormat"] == "javascript", setup["currentFormat"])
        require(setup["currentConfigPath"] == "~/.config/opencode/plugins/vimbrel.js", setup["currentConfigPath"])
        plugin = sandbox.file(".config/opencode/plugins/vimbrel.js")
        # This engine takes a file of this name for a module only when it is told to.
        sandbox.write(".config/opencode/plugins/package.json", '{"type":"module"}')

        def save(text):
            sandbox.write(plugin, text)
            require(subprocess.run([node, "--check", plugin]).returncode == 0, "the plugin is valid")

        def save_for(*options):
            save(sandbox.setup_of("opencode", *options)["currentSetupSnippet"])
        save_for()
        with Host(sandbox, plugin) as host:
            require(host.exports == ["Vimbrel"], host.exports)
            try_conversations(sandbox, host)
            try_odd_events(host)

        odd = sandbox.file("a \"b\" $c `d` \\ 'e' é")
        os.makedirs(odd)
        os.symlink(setup["relayPath"], odd + "/vimbrel-relay")
        os.symlink(sandbox.hook_socket, odd + "/s")
        save_for("--relay", odd + "/vimbrel-relay", "--socket", odd + "/s")
        with Host(sandbox, plugin) as host:
            host.status("odd $(x) \"'", "busy")
            host.require_state("odd $(x) \"'", "working")

        save_for("--relay", "/no/such/relay")
        with Host(sandbox, plugin) as host:
            host.status("unheard", "busy")  # A missing relay disturbs nobody.

        save(setup["manualSetupSnippet"])
        with Host(sandbox, plugin, "earlier") as host:
            host.ask(status={"id": "earlier", "status": "busy"})
            host.require_state("earlier", "working")
            host.ask(status={"id": "earlier", "status": "done"})
            host.require_state("earlier", "idle")
            host.ask(status=None)
        sandbox.stop()


main()
