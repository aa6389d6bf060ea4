"""Daemons under test: what they print, and what they tell the service manager."""
import os
import pathlib
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import time

DEADLINE = 60
# In memory: positions in folders of other file systems do not fit into the 32 bits of an emulated program.
folder = pathlib.Path(tempfile.mkdtemp(prefix="example-", dir="/dev/shm" if os.path.isdir("/dev/shm") else None))
notices = []
processes = []


def check(condition, text):
    if not condition:
        for file in folder.glob("*.out"):
            output = file.read_text(errors="replace")
            print(f"--- {file.name}\n{output if len(output) <= 20000 else output[:10000] + ' [...] ' + output[-10000:]}")
        sys.exit(f"failed: {text}")
    print(text, flush=True)


def wait_for(condition, text):
    end = time.monotonic() + DEADLINE
    while not (holds := condition()) and time.monotonic() < end:
        time.sleep(0.02)
    check(holds, text)


def start(title, command, **environment):
    """Starts a program. What it prints is in `lines(title)`."""
    with open(folder / f"{title}.out", "w") as output:
        process = subprocess.Popen(command, stdout=output, stderr=output, env=dict(os.environ, **environment))
    processes.append(process)
    return process


def lines(title):
    """Returns the complete lines that a program has written until now."""
    return (folder / f"{title}.out").read_text().split("\n")[:-1]


def take_notices():
    """Reads what a daemon tells the service manager. All the time: it would drop what does not fit."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
        manager.bind(str(folder / "notify"))
        while True:
            notices.append(manager.recv(64).decode())


def check_usage(command):
    """Checks that a program refuses its arguments."""
    done = subprocess.run(command, capture_output=True, text=True, timeout=DEADLINE)
    check(done.returncode == 2 and done.stderr.startswith("usage: "), f"refuses {command[-1]!r}")


def start_daemon(title, command):
    """Starts a daemon as a service manager does, and waits until it is ready."""
    if not (folder / "notify").exists():
        threading.Thread(target=take_notices, daemon=True).start()
        wait_for((folder / "notify").exists, "the service manager listens")
    notices.clear()
    process = start(title, command, NOTIFY_SOCKET=str(folder / "notify"), WATCHDOG_USEC="200000")
    wait_for(lambda: "READY=1" in notices, "reports that it is ready")
    wait_for(lambda: "WATCHDOG=1" in notices[notices.index("READY=1"):], "feeds the watchdog")
    return process


def end_daemon(process):
    process.terminate()
    check(process.wait(DEADLINE) == 0, "ends on SIGTERM")
    wait_for(lambda: "STOPPING=1" in notices, "has told the service manager")


def run(main):
    """Runs a test, and leaves nothing behind."""
    try:
        main()
    finally:
        for process in processes:
            process.kill()
            process.wait()
        shutil.rmtree(folder)
