# SPDX-License-Identifier: Apache-2.0
"""Agents on a server keep this machine awake through OpenSSH: two hosts with networks and files of their own, a real
sshd on one of them with the settings that it is installed with, and on that one nothing of Vimbrel but the relay."""

import os
import subprocess

from namespaces import enter_namespaces
from sandbox import Sandbox, eventually, patience, require

sshd = "/usr/sbin/sshd"
address = "10.99.0.2"
# As the document for users has them.
remote_directory = "/root/.local/share/Vimbrel/run"
remote_socket = remote_directory + "/vimbrel.sock"
prepare = "mkdir -p -m 700 %s && rm -f %s" % (remote_directory, remote_socket)


def run(*command, **options):
    return subprocess.run(command, check=True, timeout=patience, **options)


class Server:
    """A host in whose files nothing of the first one's home or of this build can be seen."""

    def __init__(self, sandbox):
        self.sandbox = sandbox
        self.holder = subprocess.Popen(["unshare", "-nmu", "--propagation", "private", "sleep", "infinity"])
        eventually(lambda: os.readlink("/proc/%d/ns/net" % self.holder.pid) != os.readlink("/proc/self/ns/net"),
                   "the second host")
        run("ip", "link", "set", "lo", "up")
        run("ip", "link", "add", "here", "type", "veth", "peer", "name", "there", "netns", str(self.holder.pid))
        run("ip", "addr", "add", "10.99.0.1/24", "dev", "here")
        run("ip", "link", "set", "here", "up")
        run("ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", sandbox.file("key"))
        sandbox.write("sshd_config", sandbox.read("/etc/ssh/sshd_config") +
                      "\nHostKey /root/host_key\nPermitRootLogin yes\nUsePAM no\nPidFile none\n")
        for command in ("hostname server", "ip link set lo up", "ip addr add %s/24 dev there" % address,
                        "ip link set there up", "mount -t tmpfs -o mode=700 server /root",
                        "mount -t tmpfs -o mode=755 server /run", "mkdir -m 755 /run/sshd",
                        "install -Dm 600 %s /root/.ssh/authorized_keys" % sandbox.file("key.pub"),
                        "ssh-keygen -q -t ed25519 -N '' -f /root/host_key", "install -m 755 %s /root" % sandbox.relay_program,
                        "install %s /root" % sandbox.file("sshd_config")):
            self.inside(command)
        self.sshd = self.start(sshd + " -D -e -f /root/sshd_config 2> /root/log")
        # Only now do the first host's files vanish: what stands below /tmp here is this build's and its home's.
        self.inside("mount -t tmpfs server /tmp")
        require(self.inside("ls /tmp; ls /root/.local 2>/dev/null || true") == "", "nothing of the first host is there")

    def command(self, line):
        return ["nsenter", "-t", str(self.holder.pid), "-n", "-m", "-u", "--wd=/", "sh", "-c", line]

    def inside(self, line):
        done = subprocess.run(self.command(line), timeout=patience, stdout=subprocess.PIPE, text=True)
        require(done.returncode == 0, "on the server: " + line)
        return done.stdout

    def start(self, line):
        return subprocess.Popen(self.command("exec " + line))

    def ssh(self, *words):
        return ["ssh", "-F", "none", "-i", self.sandbox.file("key"), "-o", "BatchMode=yes", "-o",
                "StrictHostKeyChecking=accept-new", "-o", "UserKnownHostsFile=" + self.sandbox.file("known_hosts"), *words]

    def forward(self):
        """What the document says: a fresh place for the socket, then the forwarding."""
        run(*self.ssh("root@" + address, prepare))
        forwarding = subprocess.Popen(self.ssh("-N", "-o", "ExitOnForwardFailure=yes", "-R",
                                               remote_socket + ":" + self.sandbox.hook_socket, "root@" + address),
                                      stderr=subprocess.DEVNULL)  # It complains of hooks that nobody hears.

        def is_there():
            require(forwarding.poll() is None, "ssh ended: " + self.inside("cat /root/log"))
            return self.inside("test -S %s && echo yes || true" % remote_socket)
        eventually(is_there, "the socket on the server")
        return forwarding

    def agent(self, line, document=""):
        """A hook as an agent on the server runs it, in a session of the user's there."""
        done = subprocess.run(self.ssh("root@" + address, line), input=document, text=True, capture_output=True,
                              timeout=patience)
        require(done.returncode == 0 and done.stdout == "", "a hook on the server: %s" % done)


def commands_for_the_server(sandbox, agent):
    setup = sandbox.setup_of(agent, "--relay", "/root/vimbrel-relay", "--socket", remote_socket)
    require(setup["relayPath"] == "/root/vimbrel-relay", setup)
    return setup["reports"]


def main():
    enter_namespaces("mpn", root="sshd cannot separate its privileges without being root",
                     tools=(sshd, "ssh", "nsenter", "ip"))
    with Sandbox() as sandbox:
        sandbox.start()
        server = Server(sandbox)
        claude = commands_for_the_server(sandbox, "claude")
        # Nothing is forwarded yet: the agent must not notice.
        server.agent(claude["working"], '{"session_id":"early"}')

        forwarding = server.forward()
        require(server.inside("stat -c %a " + remote_socket).strip() == "600", "for its owner on the server only")
        server.agent(claude["working"], '{"session_id":"far"}')
        sandbox.session("far", "working")
        eventually(lambda: sandbox.ask("status")["isHolding"], "and this machine is held awake")
        server.agent("/root/vimbrel-relay --agent codex --state working --session-id plain")
        sandbox.session("plain", "working")  # At its usual place the socket needs no option.
        server.agent(commands_for_the_server(sandbox, "aider")["waiting"] + " --session-id aider-far")
        server.agent(claude["idle"], '{"session_id":"far"}')
        sandbox.session("far", "idle")
        # A scan of this machine's processes does not end a session of another's.
        sandbox.world({"processes": ["4711 /usr/bin/gemini"]})
        eventually(lambda: "proc-gemini-4711" in sandbox.sessions(), "a scan")
        sandbox.session("aider-far", "waiting")  # Of an agent that is watched by its process.

        # The connection breaks without a word; the hooks go on, unheard, and are heard again after the next one.
        forwarding.kill()
        forwarding.wait()
        server.agent(claude["working"], '{"session_id":"far"}')
        require(sandbox.sessions()["far"]["state"] == "idle", "nothing is heard without the connection")
        forwarding = server.forward()
        server.agent(claude["completed"], '{"session_id":"far"}')
        sandbox.session("far", "completed")

        # The application here restarts under the connection.
        sandbox.kill()
        server.agent(claude["working"], '{"session_id":"far"}')
        sandbox.start()
        server.agent(claude["working"], '{"session_id":"again"}')
        sandbox.session("again", "working")  # The same connection serves the new application.
        require("early" not in sandbox.sessions(), "what was not heard stays unheard")
        for process in (forwarding, server.sshd, server.holder):
            process.kill()
            process.wait()
        sandbox.stop()


main()
