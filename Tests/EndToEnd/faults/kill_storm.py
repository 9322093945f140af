# SPDX-License-Identifier: Apache-2.0
"""kill -9, again and again, at any moment: of the application while it records, of the helper while it holds, of the
relay while it sends. No recorded usage is lost or doubled, no file is torn, nothing piles up, and each start works.
And SIGTERM, after which nothing that was answered may be missing."""

import json
import os
import random
import subprocess
import time

from sandbox import Helper, Sandbox, event, eventually, require

rounds = int(os.environ.get("VIMBREL_ROUNDS", "12"))


def require_recorded(sandbox, tokens, turns):
    """A new start has exactly this."""
    sandbox.start()
    today = sandbox.ask("usage.today")
    require(today["totalTokens"] == tokens, "%d tokens of %d" % (today["totalTokens"], tokens))
    require(today["turnCount"] == turns, "%d turns of %d" % (today["turnCount"], turns))
    sandbox.stop()


def storm_on_the_application(sandbox, chance):
    written = 0
    for number in range(rounds):
        sandbox.start() if number % 3 == 0 else sandbox.launch()
        for _ in range(chance.randrange(1, 40)):
            sandbox.use("m%d" % written, 100 + written)
            written += 1
            if chance.random() < 0.3:
                sandbox.relay("--agent", "claude", "--state", chance.choice(["working", "idle"]))
            if chance.random() < 0.2:
                # Settings are written, too.
                sandbox.command("settings", "set", "batteryFloorPercent", str(chance.randrange(10, 50)))
        time.sleep(chance.random() * 0.3)
        sandbox.kill()

    sandbox.start()
    expected = sum(110 + number for number in range(written))
    eventually(lambda: sandbox.tokens() >= expected, "all usage is recorded")
    # And once more, in case something was counted twice with a delay.
    sandbox.stop()
    require_recorded(sandbox, expected, written)

    for directory, _, files in os.walk(sandbox.file(".")):
        for name in files:
            path = os.path.join(directory, name)
            require(".unreadable" not in name, path + " was given up")
            if name.endswith(".json") and os.path.getsize(path) > 0:
                with open(path) as file:
                    json.load(file)
    data = os.listdir(sandbox.file(".local/share/Vimbrel"))
    require(len(data) <= 8, "files pile up: %s" % sorted(data))
    leftovers = [name for name in os.listdir(sandbox.file(".config/com.vimbrel.app")) if name != "settings.json"]
    require(len(leftovers) <= 2, "files pile up beside the settings: %s" % leftovers)
    return written


def orderly_ends(sandbox, chance):
    """SIGTERM right after the last answer: what a hook was told is taken is there at the next start."""
    expected = 0
    for number in range(rounds):
        sandbox.start() if number % 3 else sandbox.launch()
        sent = 0
        while sent < 20:
            # Without a name for its turn, an event is known by its session, its time and its count.
            tokens = 1000 * (number + 1) + sent
            try:
                sandbox.is_taken(event("o%d-%d" % (number, sent), "working", input_tokens=tokens))
            except OSError:
                continue  # It has not begun to listen.
            expected += tokens
            sent += 1
        sandbox.stop()
    require_recorded(sandbox, expected, rounds * 20)


def storm_on_the_helper(sandbox, chance):
    helper = Helper(sandbox)
    lease = None
    for number in range(rounds):
        process = helper.start()
        try:
            now = eventually(helper.status, "the helper answers")
            require(now["isDeepHoldActive"] == (lease is not None), "round %d: %s after %s" % (number, now, lease))
            if lease:
                require(now["activeLeaseId"] == lease, "another lease came back")
                require(now["currentSystemSleepDisabled"], "the lease is there without its hold")
            if chance.random() < 0.6:
                lease = "lease-%d" % number
                require(helper.ask("acquire", leaseId=lease, ttlSeconds=600)["ok"], "acquired")
            elif lease:
                require(helper.ask("release", leaseId=lease)["ok"], "released")
                lease = None
        finally:
            process.kill()
            process.wait()
    # The socket, the state, the clock beside it, and one file that was being replaced.
    files = os.listdir(sandbox.file("helper"))
    require(len(files) <= 4, "files pile up: %s" % files)


def storm_on_the_relay(sandbox, chance):
    sandbox.start()
    for number in range(rounds * 4):
        relay = subprocess.Popen([sandbox.relay_program, "--agent", "codex", "--state", "working", "--session-id",
                                  "killed%d" % number], env=sandbox.environment, stdin=subprocess.DEVNULL)
        time.sleep(chance.random() * 0.004)
        relay.kill()
        relay.wait()
    sandbox.is_taken(event("survivor", "working"))
    sandbox.session("survivor", "working")
    # A hook is not held up by an application that was killed under it.
    sandbox.kill()
    sandbox.report("codex", "idle", "survivor")


def main():
    seed = int(os.environ.get("VIMBREL_SEED", "1"))
    chance = random.Random(seed)
    with Sandbox() as sandbox:
        written = storm_on_the_application(sandbox, chance)
        storm_on_the_helper(sandbox, chance)
        storm_on_the_relay(sandbox, chance)
    with Sandbox() as sandbox:
        orderly_ends(sandbox, chance)
    print("%d kills of the application, %d of the helper, %d of the relay; %d events, none lost, none doubled; "
          "%d orderly ends" % (rounds + 1, rounds, rounds * 4, written, rounds))


main()
