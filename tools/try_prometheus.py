#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Tries the export of usage against a real Prometheus (Debian's package `prometheus`): checks the text with promtool,
lets a Prometheus of our own scrape it and asks that one for what it stored. Everything lives in a temporary directory
and ends with this script.

    tools/try_prometheus.py build/release/Sources/VimbrelApp/vimbrel build/release/Sources/VimbrelRelay/vimbrel-relay
"""

import http.server
import json
import os
import socket
import subprocess
import sys
import threading
import urllib.parse
import urllib.request

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../Tests/EndToEnd"))
from sandbox import Sandbox, claude_line, eventually, require  # noqa: E402


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def main():
    os.environ["VIMBREL_PROGRAM"], os.environ["VIMBREL_RELAY_PROGRAM"] = map(os.path.abspath, sys.argv[1:3])
    with Sandbox() as sandbox:
        log = sandbox.file(".claude/projects/p/s1.jsonl")
        os.makedirs(os.path.dirname(log))
        with open(log, "w") as file:
            for number in range(1000):
                file.write(claude_line("m%d" % number, number))
        sandbox.start()
        eventually(lambda: sandbox.ask("usage.today")["turnCount"] == 1000, "usage is recorded")

        def text():
            answer = sandbox.command("usage", "export", "--format", "prometheus")
            require(answer.returncode == 0, answer.stderr)
            return answer.stdout

        checked = subprocess.run(["promtool", "check", "metrics"], input=text(), capture_output=True, text=True)
        require(checked.returncode == 0, "promtool: " + checked.stdout + checked.stderr)
        print("promtool check metrics: no complaint" if not checked.stderr else checked.stderr)

        class Page(http.server.BaseHTTPRequestHandler):
            def do_GET(self):
                body = text().encode()
                self.send_response(200)
                self.send_header("Content-Type", "text/plain; version=0.0.4")
                self.end_headers()
                self.wfile.write(body)

            def log_message(self, *_):
                pass

        page = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Page)
        threading.Thread(target=page.serve_forever, daemon=True).start()
        with open(sandbox.file("prometheus.yml"), "w") as file:
            file.write("global: {scrape_interval: 1s}\nscrape_configs:\n- job_name: vimbrel\n  static_configs:\n"
                       "  - targets: ['127.0.0.1:%d']\n" % page.server_port)
        port = free_port()
        prometheus = subprocess.Popen(
            ["prometheus", "--config.file=" + sandbox.file("prometheus.yml"), "--storage.tsdb.path=" + sandbox.file("data"),
             "--web.listen-address=127.0.0.1:%d" % port], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            def query(expression):
                url = "http://127.0.0.1:%d/api/v1/query?query=%s" % (port, urllib.parse.quote(expression))
                try:
                    with urllib.request.urlopen(url, timeout=5) as answer:
                        found = json.load(answer)["data"]["result"]
                    return found[0]["value"][1] if found else None
                except OSError:
                    return None

            for expression, expected in (("sum(vimbrel_usage_turns_total)", 1000),
                                         ('vimbrel_usage_tokens_total{kind="output"}', sum(range(1000))),
                                         ("vimbrel_usage_sessions_total", 1)):
                value = eventually(lambda: query(expression), "prometheus has " + expression)
                require(float(value) == expected, "%s is %s, not %s" % (expression, value, expected))
                print(expression, "=", value)
            before = query("sum(vimbrel_usage_turns_total)")
            with open(log, "a") as file:
                file.write(claude_line("more", 5))
            eventually(lambda: query("sum(vimbrel_usage_turns_total)") == "1001", "the counter grows from %s" % before)
            print("after one more turn: 1001")
        finally:
            prometheus.kill()
            prometheus.wait()
            page.shutdown()


main()
