# SPDX-License-Identifier: Apache-2.0
"""`vimbrel usage` and `budgets` over golden logs and over months of history, against sums that were made without
Vimbrel."""

import datetime
import json
import math
import os
import shutil
import time

from history import History, figures
from sandbox import Sandbox, claude_line, eventually, require

here = os.path.dirname(os.path.abspath(__file__))
golden_logs = os.path.join(here, "..", "..", "Fixtures", "logs")


def report(home, *arguments):
    return home.answer("usage", *arguments)


def same(found, wanted, what):
    if isinstance(wanted, float) or isinstance(found, float):
        require(found is not None and wanted is not None and math.isclose(found, wanted, rel_tol=1e-9),
                "%s is %s, not %s" % (what, found, wanted))
    else:
        require(found == wanted, "%s is %s, not %s" % (what, found, wanted))


def newest_record(path):
    """When the log's last record was written, as its own time says."""
    with open(path) as file:
        times = [time for line in file if (time := json.loads(line).get("timestamp"))]
    return datetime.datetime.fromisoformat(times[-1][:19] + "+00:00").timestamp()


def golden():
    with Sandbox() as home:
        for agent in ("claude", "codex"):
            shutil.copytree(os.path.join(golden_logs, agent), home.file("." + agent))
            for directory, _, names in os.walk(home.file("." + agent)):
                for name in names:
                    path = os.path.join(directory, name)
                    os.utime(path, (newest_record(path),) * 2)
        totals = json.loads(home.read(os.path.join(golden_logs, "totals.json")))
        home.start()
        same(report(home, "sessions")["total"]["turnCount"], totals.pop("events"), "the number of turns")
        for grouping, rows in totals.items():
            found = {row["key"]: row for row in report(home, grouping)["rows"]}
            require(found.keys() == rows.keys(), "%s has the rows %s" % (grouping, sorted(found)))
            for key, wanted in rows.items():
                for name, value in wanted.items():
                    same(found[key].get(name), value, "%s %s %s" % (grouping, key, name))
        home.stop()


def block_starts(times):
    starts = []
    for moment in sorted(times):
        if not starts or moment >= starts[-1] + 5 * 3600:
            starts.append(math.floor(moment / 3600) * 3600)
    return starts


def compare(home, truth, grouping, key_of, *arguments, wanted=lambda message: True):
    rows = truth.sums(key_of, wanted)
    found = {row["key"]: row for row in report(home, grouping, *arguments)["rows"]}
    require(found.keys() == rows.keys(), "%s: rows differ: %s" % (grouping, sorted(found.keys() ^ rows.keys())[:5]))
    for key, row in rows.items():
        where = "%s %s " % (grouping, key)
        for name in (*figures, "turnCount"):
            same(found[key][name], row[name], where + name)
        same(found[key]["sessionCount"], len(row["sessions"]), where + "sessionCount")
        same(found[key].get("estimatedCostUSD"), row["cost"], where + "cost")


def iso_week(day):
    year, week, _ = day.isocalendar()
    return "%04d-W%02d" % (year, week)


def months():
    with Sandbox() as home:
        truth = History(home.home, days=150)
        home.start()
        kolkata = datetime.timezone(datetime.timedelta(hours=5, minutes=30))
        compare(home, truth, "daily", lambda m: m.time.strftime("%Y-%m-%d"))
        compare(home, truth, "daily", lambda m: m.time.astimezone(kolkata).strftime("%Y-%m-%d"),
                "--timezone", "Asia/Kolkata")
        compare(home, truth, "weekly", lambda m: iso_week(m.time))
        compare(home, truth, "monthly", lambda m: m.time.strftime("%Y-%m"), "--agent", "opencode",
                wanted=lambda m: m.agent == "opencode")
        compare(home, truth, "sessions", lambda m: m.session)
        compare(home, truth, "models", lambda m: m.model)
        compare(home, truth, "projects", lambda m: m.project)
        first, last = (datetime.datetime(2026, 2, day, tzinfo=kolkata) for day in (3, 8))
        compare(home, truth, "models", lambda m: m.model, "--since", "2026-02-03", "--until", "2026-02-07",
                "--timezone", "Asia/Kolkata", wanted=lambda m: first <= m.time < last)
        starts = block_starts([m.time.timestamp() for m in truth.messages])
        compare(home, truth, "blocks", lambda m: datetime.datetime.fromtimestamp(
            max(start for start in starts if start <= m.time.timestamp()),
            datetime.timezone.utc).strftime("%Y-%m-%dT%H:%M:%SZ"))
        require(report(home, "models")["unpricedModels"] == ["house-model"], "the unknown model is named")
        text = home.command("usage", "models").stdout
        require("unpriced" in text and "house-model." in text, "the screen names it, too: " + text)
        for options, says in (("--since yesterday", "since takes a day"), ("--agent nobody", "no agent nobody"),
                              ("--since 2026-02-24 --until 2026-02-01", "--until is before --since"),
                              ("--timezone Mars/Base", "no time zone Mars/Base")):
            answer = home.command("usage", "daily", *options.split())
            require(answer.returncode == 2 and says in answer.stderr, "%s: %s" % (options, answer.stderr))

        everything = report(home, "sessions")
        imported = home.answer("usage", "import")
        require(imported["filesRead"] <= 1, "only the database is opened again: %s" % imported)
        imported = home.command("usage", "import", "--all")
        require("New: 0 of" in imported.stdout, "the same import twice changes nothing: " + imported.stdout)
        require(report(home, "sessions") == everything, "the reports are the same")

        # Its logs deleted, its store kept: nothing is lost, and the unknown model can be priced afterwards.
        home.kill()
        shutil.rmtree(home.file(".claude"))
        shutil.rmtree(home.file(".local/share/opencode"))
        home.write(".config/com.vimbrel.app/rates.json", json.dumps({"models": [
            {"model": "house", "input": 1, "output": 2, "cacheRead": 3, "cacheWrite": 4}]}))
        home.start()
        own = [m for m in truth.messages if m.model == "house-model"]
        for message in own:
            message.cost = sum(count * price for count, price in zip(message.counts, (1, 2, 3, 4))) / 1e6
        compare(home, truth, "models", lambda m: m.model)
        require(report(home, "models")["unpricedModels"] == [], "no model is unpriced any more")
        home.stop()


def budgets():
    with Sandbox() as home:
        home.start()
        month = time.gmtime().tm_mon

        def budget(words, status=0):
            answer = home.command("budgets", *words.split())
            require(answer.returncode == status, "budgets %s: %d %s" % (words, answer.returncode, answer.stderr))
            return answer.stdout + answer.stderr

        def over():
            return json.loads(home.command("budgets", "check", "--json").stdout)["over"]

        budget("check")
        budget("set monthly 1")
        budget("set monthly 90 --agent claude")
        for words in ("set hourly 1", "set daily much", "set daily"):
            budget(words, status=2)
        for amount in ("-3", "0", "inf", "nan", "1e999"):
            require("a number of US dollars above 0" in budget("set daily " + amount, status=2), amount)
        budget("set weekly 0.001")
        require("<$0.01" in budget(""), "a small amount is not nothing")
        budget("remove weekly")
        budget("set daily 5 --project /home/dev/shop")
        budget("remove daily", status=1)  # That scope has none.
        budget("remove daily --project /home/dev/shop/")

        def spend(session, project, tokens):
            line = json.loads(claude_line("msg_" + session, tokens, session))
            home.write(".claude/projects/p/%s.jsonl" % session, json.dumps({**line, "cwd": project}) + "\n")

        spend("s", "/p", 999998)  # 75 dollars with the ten tokens that went in
        require(home.command("usage", "import").returncode == 0, "the new log is read")
        if time.gmtime().tm_mon == month:
            require("monthly" in budget("check", status=1), "the first budget is overspent")
            require(len(over()) == 1, "and no other")
            same(over()[0]["spentUSD"], 75.0, "what was spent")

        # A session that begins while it runs belongs to its project at once.
        budget("set monthly 1 --project /shop")
        require(not any(each.get("project") == "/shop" for each in over()), "nothing is spent there")
        spend("shop", "/shop", 100000)
        eventually(lambda: any(each.get("project") == "/shop" for each in over()), "the project's budget is overspent")
        budget("remove monthly --project /shop")

        status = {"session_id": "s", "model": {"id": "claude-opus-5", "display_name": "Opus 5"},
                  "context_window": {"used_percentage": 25, "context_window_size": 200000},
                  "cost": {"total_cost_usd": 1.5},
                  "rate_limits": {"five_hour": {"used_percentage": 40, "resets_at": int(time.time()) + 3600},
                                  "seven_day": {"used_percentage": 91, "resets_at": int(time.time()) + 99999}}}

        def statusline(document):
            answer = home.command("statusline", input=document)
            require(answer.returncode == 0 and answer.stdout.count("\n") == 1, "one line: " + answer.stdout)
            return answer.stdout

        line = statusline(json.dumps(status))
        require(line.startswith("Opus 5 · 75% context left · 9% quota left until ") and " today\n" in line, line)
        report_of_claude = next(each for each in home.ask("budgets")["budgets"] if each["agentType"] == "claude")
        same(report_of_claude["quota"]["value"]["percentageRemaining"], 9.0, "the measured quota")
        same(report_of_claude["quota"]["source"], "status-line", "its source")
        same(report_of_claude["context"]["value"]["tokensRemaining"], 150000, "the measured context")
        home.stop()
        require(statusline(json.dumps(status)).endswith(" · $1.50 session\n"), "prints without an application")
        for garbage in ("", "[]", "{\"model\":3,\"rate_limits\":{\"five_hour\":7}}", "\0\1", "{" * 5000):
            require(statusline(garbage) == "Claude\n", "garbage gives the shortest line")
        # The budgets are still there, and a file that cannot be read stops a script.
        home.start()
        require(len(home.ask("budgets")["money"]) == 2, "budgets are kept")
        home.write(".config/com.vimbrel.app/budgets.json", "{")
        require("cannot be used" in budget("check", status=1), "says that it cannot tell")


def forgotten():
    """What a reset forgot stays forgotten, and what a lost store had comes back with its own time."""
    with Sandbox() as home:
        truth = History(home.home, days=60)
        home.start()
        today = datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d")
        before = report(home, "daily")
        require(len(before["rows"]) > 30 and today not in [row["key"] for row in before["rows"]], "months are read")
        home.stop()
        os.remove(home.file(".local/share/Vimbrel/usage_store.json"))
        home.start()
        compare(home, truth, "daily", lambda m: m.time.strftime("%Y-%m-%d"))

        index = ".local/share/Vimbrel/usage_index.json"
        require("/home/dev/project-" in home.read(index), "the index knows directories")
        require(home.command("usage", "reset", "--yes").returncode == 0, "is reset")
        for _ in range(2):
            eventually(lambda: report(home, "daily")["rows"] == [], "everything is forgotten")
            home.command("usage", "import", "--all")
            require(report(home, "projects")["rows"] == [], "no log brings it back")
            require("/home/dev/project-" not in home.read(index), "nor its directories")
            home.stop()
            home.start()
        time.sleep(1.1)  # A time in whole seconds may lie before the reset.
        home.use("msg_new", 5)
        eventually(lambda: home.tokens() == 15, "what is used since is counted")
        home.stop()


golden()
forgotten()
months()
budgets()
