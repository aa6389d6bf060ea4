"""Two hosts for tests: each is a network namespace with a message bus and a daemon of its own, joined by a cable."""
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import time

DEADLINE = 120
SKIP = 77
folder = pathlib.Path(tempfile.mkdtemp(prefix="avahi-"))
processes = []
plugin = ""  # The folder with the plug-in.
# The library of the message bus takes two of its locks in both orders; only one thread uses it.
(folder / "tsan").write_text("deadlock:libdbus-1.so\n")
BUS = """<busconfig><type>system</type><listen>unix:path={0}/bus</listen><auth>EXTERNAL</auth>
<policy context="default"><allow user="*"/><allow own="*"/><allow send_type="method_call"/>
<allow send_destination="*"/><allow receive_type="method_call"/><allow eavesdrop="false"/></policy></busconfig>"""


def fail(text):
    for log in sorted(folder.glob("*/*.log")):
        print(f"== {log.parent.name}/{log.name}\n" + log.read_text()[-2000:])
    sys.exit(f"failed: {text}")


def wait_for(condition, text):
    end = time.monotonic() + DEADLINE
    while not (holds := condition()) and time.monotonic() < end:
        time.sleep(0.02)
    if not holds:
        fail(text)


def skip(text):
    print(f"skipped: {text}")
    sys.exit(SKIP)


class Host:
    """A host with its interface, bus and daemon, and the clients on it."""

    def __init__(self, name):
        self.name = name
        self.folder = folder / name
        (self.folder / "run").mkdir(parents=True)
        (self.folder / "bus.conf").write_text(BUS.format(self.folder))
        self.configure("")
        self.holder = self.spawn(["sleep", "10000"], "holder", enter=False)
        wait_for(lambda: pathlib.Path(f"/proc/{self.holder.pid}/comm").read_text() == "sleep\n", "no namespace")
        self.run("ip", "link", "set", "lo", "up")
        self.start_bus()
        self.daemon = None

    def enter(self):
        """Returns the beginning of a command that runs on this host."""
        return ["nsenter", f"--net=/proc/{self.holder.pid}/ns/net", f"--mount=/proc/{self.holder.pid}/ns/mnt"]

    def environment(self):
        return {"DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={self.folder}/bus", "LD_LIBRARY_PATH": plugin,
                "TSAN_OPTIONS": f"{os.environ.get('TSAN_OPTIONS', '')} suppressions={folder}/tsan"}

    def configure(self, extra):
        (self.folder / "avahi.conf").write_text(
            f"[server]\nhost-name={self.name}\nuse-ipv6=yes\n{extra}\n[publish]\npublish-workstation=no\n")

    def spawn(self, command, log, enter=True, **options):
        """Starts a program on this host; the first one creates the host."""
        mount = f'mount --bind {self.folder}/run /run && exec "$@"'
        prefix = self.enter() if enter else ["unshare", "--net", "--mount", "sh", "-c", mount, "sh"]
        environment = dict(os.environ, **self.environment())
        process = subprocess.Popen(prefix + command, stderr=open(self.folder / f"{log}.log", "a"), env=environment,
                                   **{"stdout": subprocess.DEVNULL, **options})
        processes.append(process)
        return process

    def run(self, *command):
        if self.spawn(list(command), "commands").wait() != 0:
            fail(" ".join(command))

    def read(self, *command):
        """Returns what a command prints."""
        process = self.spawn(list(command), "commands", stdout=subprocess.PIPE, text=True)
        return process.communicate()[0]

    def start_bus(self):
        (self.folder / "bus").unlink(missing_ok=True)
        self.bus = self.spawn(["dbus-daemon", "--nofork", "--nopidfile", f"--config-file={self.folder}/bus.conf"], "bus")
        wait_for((self.folder / "bus").exists, "no bus")

    def start_daemon(self):
        self.daemon = self.spawn(["avahi-daemon", "-f", str(self.folder / "avahi.conf"), "--no-drop-root", "--no-chroot",
                                  "--no-rlimits"], "daemon")

    @staticmethod
    def end(process, number=signal.SIGTERM):
        process.send_signal(number)
        process.wait()


def make_hosts():
    """Returns two hosts with a cable between them."""
    if os.geteuid() != 0 or subprocess.run(["unshare", "--net", "--mount", "true"], capture_output=True).returncode:
        skip("network namespaces need root")
    for program in ("avahi-daemon", "dbus-daemon", "ip", "nsenter"):
        if not shutil.which(program, path=os.environ["PATH"] + ":/usr/sbin:/sbin"):
            skip(f"{program} is not installed")
    left, right = Host("left"), Host("right")
    left.run("ip", "link", "add", "cable0", "type", "veth", "peer", "name", "cable0", "netns", str(right.holder.pid))
    for host, address in ((left, "192.0.2.1/24"), (right, "192.0.2.2/24")):
        host.run("ip", "address", "add", address, "dev", "cable0")
        host.run("ip", "link", "set", "cable0", "up", "multicast", "on")
    return left, right


def run(main):
    """Runs a test. Leaves the logs behind only if it fails."""
    try:
        main()
    finally:
        for process in processes:
            if process.poll() is None:
                process.kill()
        for process in processes:
            process.wait()
        shutil.rmtree(folder, ignore_errors=True)
