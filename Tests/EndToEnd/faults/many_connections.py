# SPDX-License-Identifier: Apache-2.0
"""More connections than anybody should make, to both sockets at once: silent ones, ones that never read, ones that
are dropped halfway. An honest hook and an honest client are served meanwhile, with few descriptors too."""

import os
import resource
import socket

from sandbox import Baseline, Refused, Sandbox, event, eventually, require

connections = int(os.environ.get("VIMBREL_CONNECTIONS", "10000"))
most_held = 1500


def crowd(path, count, said):
    """Makes that many connections, each given something to chew on, and never closes one. Those that the other side
    hung up on are let go, so that only its limits count."""
    held = []
    made = 0
    while made < count:
        connection = socket.socket(socket.AF_UNIX)
        connection.settimeout(0.5)
        made += 1
        try:
            connection.connect(path)
            connection.send(said(made))
            held.append(connection)
        except OSError:
            # Refused, or as many wait to be accepted as may: the rest would only wait too.
            connection.close()
            made += 99 if held and len(held) >= made // 2 else 0
        if len(held) >= most_held:
            for old in held[: most_held // 2]:
                old.close()
            del held[: most_held // 2]
    return held


def nothing(number):
    return b""


def questions(number):
    """Whose answers nobody reads."""
    return b'{"jsonrpc":"2.0","id":1,"method":"subscribe"}\n' * 20 if number % 2 else b'{"jsonrpc":"2.0",'


def assault(sandbox, what):
    baseline = Baseline(sandbox)
    honest = sandbox.control()
    silent = crowd(sandbox.hook_socket, connections // 2, nothing)
    greedy = crowd(sandbox.control_socket, connections // 2, questions)
    sandbox.is_taken(event("honest", "working"))
    require(honest.ask("version"), "a client that was there before is served meanwhile")
    sandbox.report("codex", "working", "relayed")
    for connection in silent + greedy:
        connection.close()

    def is_served():
        try:
            return sandbox.ask("status")
        except (OSError, Refused):  # The server has not yet seen that the crowd is gone.
            return None
    eventually(is_served, "a new client is served afterwards")
    honest.close()
    grown = baseline.require_kept()
    sandbox.stop()
    print("%s: %d connections, %d of them open at the end, %d kB more" % (what, connections, len(silent) + len(greedy), grown))


def main():
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, 2 * most_held + 200), hard))
    # Sixty-four are fewer than the control socket alone would take.
    for what, limits in (("as it is", ()), ("with 64 descriptors", ((resource.RLIMIT_NOFILE, (64, 64)),))):
        with Sandbox() as sandbox:
            sandbox.start(preexec_fn=lambda: [resource.setrlimit(*each) for each in limits])
            assault(sandbox, what)


main()
