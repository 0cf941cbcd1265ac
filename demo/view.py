"""The live view beside the demo, and the shell that --keep leaves."""

import fcntl
import os
import pty
import select
import signal
import struct
import subprocess
import termios
import time

ROWS, COLUMNS = 24, 80


def show(corvoctl, file_name):
    """Runs the live view on a terminal of 80x24 and writes what it draws into a file."""
    ended = []
    signal.signal(signal.SIGTERM, lambda *_: ended.append(1))
    pid, master = pty.fork()
    if pid == 0:
        os.environ["TERM"] = "xterm"
        os.execv(corvoctl, ["corvoctl", "watch", "--interval", "1"])
    fcntl.ioctl(master, termios.TIOCSWINSZ, struct.pack("HHHH", ROWS, COLUMNS, 0, 0))
    with open(file_name, "wb", buffering=0) as out:
        while not ended:
            ready, _, _ = select.select([master], [], [], 0.5)
            if not ready:
                continue
            try:
                data = os.read(master, 65536)
            except OSError:
                break  # the view has ended
            out.write(data)
    os.kill(pid, signal.SIGTERM)
    os.waitpid(pid, 0)
    return True


def shell(device, commands):
    """Takes commands from a file that somebody appends to, line by line, until "exit". They run on the device."""
    tools = device.build / "tools"
    path = f"{tools}:{device.build / 'platform'}:{os.environ.get('PATH', '')}"
    print(f"demo: the network is up; commands run on {device.site.name} (try: corvoctl status). exit ends.", flush=True)
    commands.touch()
    with commands.open() as lines:
        pending = ""
        while True:
            part = lines.readline()
            pending += part
            if not pending.endswith("\n"):
                time.sleep(0.2)
                continue
            command, pending = pending.strip(), ""
            if command == "exit":
                return
            if command:
                started = device.machine.start("/bin/bash", "-c", command, stdin=subprocess.DEVNULL,
                                               env={**os.environ, "PATH": path})
                started.wait()
            print(f"{device.site.name}# ", end="", flush=True)
