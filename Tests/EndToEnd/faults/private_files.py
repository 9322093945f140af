# SPDX-License-Identifier: Apache-2.0
"""Whatever the application creates is for its user alone, with the most permissive umask too, and links that stand
in the way of its files are never written through."""

import os
import stat

from sandbox import Sandbox, event, eventually, require


def use_everything(sandbox):
    for number in range(40):
        sandbox.use("m%d" % number, 90)
    sandbox.start()
    eventually(lambda: sandbox.ask("usage.today")["turnCount"] == 40, "usage is recorded")
    sandbox.ask("settings.set", key="batteryFloorPercent", value=33)
    sandbox.ask("hold", on=True)
    sandbox.is_taken(event("s", "working"))
    sandbox.ask("hold", on=False)
    sandbox.stop()


def own_entries(sandbox):
    """What the application made: everything but this test's own files."""
    foreign = (sandbox.file(".claude"), sandbox.file("world.json"), sandbox.file("stderr"), sandbox.file("victims"))
    for directory, directories, files in os.walk(sandbox.home):
        for name in directories + files:
            path = os.path.join(directory, name)
            if not path.startswith(foreign):
                yield path


def permissions():
    before = os.umask(0)
    try:
        with Sandbox() as sandbox:
            # Directories that other programs made before; they are not ours to change.
            shared = [sandbox.file(name) for name in (".local", ".local/share", ".local/state", ".config")]
            for path in shared:
                os.mkdir(path, 0o755)
            use_everything(sandbox)
            found = [path for path in own_entries(sandbox) if path not in shared]
            require(len(found) >= 5, found)
            for path in found:
                mode = stat.S_IMODE(os.lstat(path).st_mode)
                require(mode & 0o077 == 0, "%s has mode %o" % (path, mode))
            return {os.path.relpath(path, sandbox.home) for path in found if not os.path.isdir(path)}
    finally:
        os.umask(before)


def link(name):
    with Sandbox() as sandbox:
        sandbox.write("victims/one", "precious")
        os.makedirs(os.path.dirname(sandbox.file(name)), exist_ok=True)
        os.symlink(sandbox.file("victims/one"), sandbox.file(name))
        # It may refuse to work like this, but it must not write there.
        sandbox.launch()
        try:
            eventually(lambda: sandbox.process.poll() is not None or os.path.exists(sandbox.control_socket),
                       "it answers or ends")
            if sandbox.process.poll() is None:
                sandbox.wait_until_it_answers()
                # A refusal is one way of not writing there.
                sandbox.command("settings", "set", "batteryFloorPercent", "33")
                sandbox.hook(event("s", "working", input_tokens=5, model="m", turn_id="t"))
                eventually(sandbox.sessions, "the event is seen")
                sandbox.stop()
        except AssertionError:
            sandbox.kill()
        require(sandbox.read("victims/one") == "precious", "the file behind the link %s was written" % name)


def main():
    found = permissions()
    # Those that were there, those that come and go, and the temporaries beside them.
    names = sorted(found | {
        ".config/com.vimbrel.app/settings.json.new",
        ".local/share/Vimbrel/usage_store.json", ".local/share/Vimbrel/usage_store.json.new",
        ".local/share/Vimbrel/usage_store.journal.1", ".local/share/Vimbrel/usage_store.lock",
        ".local/share/Vimbrel/usage_index.json.new", ".local/share/Vimbrel/run/control.sock",
        ".local/share/Vimbrel/run/vimbrel.sock", ".local/share/Vimbrel/run/vimbrel.lock",
        ".local/state/Vimbrel/vimbrel.log"})
    # People keep their settings elsewhere and link to them: that link alone is meant to be followed.
    names.remove(".config/com.vimbrel.app/settings.json")
    for name in names:
        link(name)
    print("%d entries made, each for their user alone; %d links left alone" % (len(found), len(names)))


main()
