# SPDX-License-Identifier: Apache-2.0
"""Months of logs of two agents, made up, together with what a reader must find in them. The sums are made here, from
the figures that are written, and not by reading the logs back."""

import collections
import datetime
import json
import os
import random
import sqlite3

# US dollars for a million tokens: input, output, cache read, cache write, reasoning.
prices = {
    "claude-opus-5": (15, 75, 1.5, 18.75, 75),
    "claude-3-5-haiku": (0.8, 4, 0.08, 1, 4),
    "gpt-4o": (2.5, 10, 1.25, 0, 10),
}
figures = ("inputTokens", "outputTokens", "cachedTokens", "cacheWriteTokens", "reasoningTokens")


class Message:
    def __init__(self, agent, session, project, model, time, counts, cost):
        self.agent, self.session, self.project, self.model = agent, session, project, model
        self.time, self.counts, self.cost = time, counts, cost


class History:
    def __init__(self, home, days, seed=3):
        self.home = home
        self.random = random.Random(seed)
        self.messages = []
        self.first = datetime.datetime(2026, 1, 1, tzinfo=datetime.timezone.utc)
        self.number = 0
        for day in range(days):
            for session in range(self.random.randint(0, 3)):
                self.claude_session(day, session)
        self.opencode(days)

    def write(self, path, lines, time):
        path = os.path.join(self.home, path)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w") as file:
            for line in lines:
                file.write(json.dumps(line, separators=(",", ":"), ensure_ascii=False) + "\n")
        os.utime(path, (time.timestamp(), time.timestamp()))

    @staticmethod
    def text(time, digits):
        text = time.strftime("%Y-%m-%dT%H:%M:%S")
        return text + ("." + "%09d" % (time.microsecond * 1000))[:digits + 1 if digits else 0] + "Z"

    def claude_session(self, day, index):
        draw = self.random
        session = "%08x-0000-4000-8000-%012d" % (day, index)
        project = "/home/dev/project-%d" % draw.randint(0, 5)
        model = draw.choice(["claude-opus-5", "claude-3-5-haiku", "house-model"])
        time = self.first + datetime.timedelta(days=day, seconds=draw.randint(0, 80000))
        common = {"sessionId": session, "cwd": project, "version": "2.1.44"}
        lines = []
        for _ in range(draw.randint(1, 12)):
            self.number += 1
            id = "msg_%024d" % self.number
            counts = (draw.randint(1, 50), draw.randint(2, 3000), draw.randint(0, 150000), draw.randint(0, 9000), 0)
            hour = draw.randint(0, counts[3]) if draw.random() < 0.3 else 0
            blocks = draw.randint(1, 4)
            for block in range(blocks):
                time += datetime.timedelta(milliseconds=draw.randint(20, 60000))
                if block == 0:
                    began = time
                output = counts[1] if block == blocks - 1 else 1
                lines.append({**common, "type": "assistant", "timestamp": self.text(time, draw.choice((0, 3, 6, 9))),
                              "message": {"id": id, "model": model, "role": "assistant",
                                          "content": [{"type": "text", "text": "ü" * draw.randint(0, 300)}],
                                          "usage": {"input_tokens": counts[0], "output_tokens": output,
                                                    "cache_read_input_tokens": counts[2],
                                                    "cache_creation_input_tokens": counts[3],
                                                    "cache_creation": {"ephemeral_1h_input_tokens": hour,
                                                                       "ephemeral_5m_input_tokens": counts[3] - hour}}}})
            lines.append({**common, "type": "user", "message": {"content": "\"usage\": {" + "x" * draw.randint(0, 4000)}})
            cost = None
            if model in prices:
                price = prices[model]
                cost = (counts[0] * price[0] + counts[1] * price[1] + counts[2] * price[2] +
                        (counts[3] - hour) * price[3] + hour * price[0] * 2) / 1e6
            self.messages.append(Message("claude", session, project, model, time, counts, cost))
            assert began <= time
        self.write(".claude/projects/%s/%s.jsonl" % (project.replace("/", "-"), session), lines, time)

    def opencode(self, days):
        path = os.path.join(self.home, ".local/share/opencode/opencode.db")
        os.makedirs(os.path.dirname(path), exist_ok=True)
        database = sqlite3.connect(path)
        database.executescript("PRAGMA journal_mode=WAL;"
                               "CREATE TABLE message(id, session_id, time_created, time_updated, data);"
                               "CREATE TABLE session(id, parent_id, directory);")
        for day in range(days):
            session = "ses_%04d" % day
            project = "/srv/tool-%d" % (day % 3)
            database.execute("INSERT INTO session VALUES(?, NULL, ?)", (session, project))
            for turn in range(self.random.randint(0, 4)):
                time = self.first + datetime.timedelta(days=day, hours=turn * 4, minutes=7)
                counts = (self.random.randint(1, 900), self.random.randint(1, 900), self.random.randint(0, 900), 0,
                          self.random.randint(0, 90))
                cost = self.random.choice((None, 0.25))
                data = {"role": "assistant", "modelID": "gpt-4o", "providerID": "openai", "cost": cost or 0,
                        "tokens": {"input": counts[0], "output": counts[1], "reasoning": counts[4],
                                   "cache": {"read": counts[2], "write": 0}}}
                database.execute("INSERT INTO message VALUES(?, ?, ?, 0, ?)",
                                 ("m%d_%d" % (day, turn), session, int(time.timestamp() * 1000), json.dumps(data)))
                if cost is None:
                    cost = sum(count * price for count, price in zip(counts, prices["gpt-4o"])) / 1e6
                self.messages.append(Message("opencode", session, project, "gpt-4o", time, counts, cost))
        database.commit()
        database.close()

    def sums(self, key_of, wanted=lambda message: True):
        """Totals of the messages, by a key of each."""
        rows = collections.defaultdict(lambda: {**{name: 0 for name in figures}, "cost": None, "turnCount": 0,
                                                "sessions": set()})
        for message in filter(wanted, self.messages):
            row = rows[key_of(message)]
            for name, count in zip(figures, message.counts):
                row[name] += count
            if message.cost is not None:
                row["cost"] = (row["cost"] or 0) + message.cost
            row["turnCount"] += 1
            row["sessions"].add(message.session)
        return rows
