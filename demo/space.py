"""One machine of the demo: a network namespace, for devices with files and a host name of its own."""

import ctypes
import json
import os
import signal
import socket
import struct
import subprocess
from pathlib import Path

CLONE_NEWNS, CLONE_NEWUTS, CLONE_NEWNET = 0x00020000, 0x04000000, 0x40000000
MS_BIND, MS_REC, MS_PRIVATE = 4096, 16384, 1 << 18
PR_SET_PDEATHSIG = 1

_libc = ctypes.CDLL(None, use_errno=True)


def _checked(result, what):
    if result != 0:
        code = ctypes.get_errno()
        raise OSError(code, f"{what}: {os.strerror(code)}")


def _mount(source, target, kind, flags):
    words = [None if word is None else str(word).encode() for word in (source, target, kind)]
    _checked(_libc.mount(*words, ctypes.c_ulong(flags), None), f"mount {target}")


def die_with_parent():
    _libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL, 0, 0, 0)


def _write(path, value):
    with open(path, "w") as file:
        file.write(value)


class Agent:
    """A child of the demo that runs a function in a machine, without exec. Its result comes back as JSON."""

    def __init__(self, function, *arguments, enter=lambda: None):
        reader, writer = os.pipe()
        self.pid = os.fork()
        if self.pid == 0:
            status = 1
            try:
                os.close(reader)
                die_with_parent()
                signal.signal(signal.SIGINT, signal.SIG_IGN)
                enter()
                result = function(*arguments)
                with os.fdopen(writer, "w") as out:
                    json.dump(result, out)
                status = 0
            except BaseException as error:  # a child must never return into the parent's code
                os.write(2, f"demo: {function.__name__}: {error!r}\n".encode())
            finally:
                os._exit(status)
        os.close(writer)
        self._reader = os.fdopen(reader)

    def stop(self):
        os.kill(self.pid, signal.SIGTERM)
        return self.result()

    def result(self):
        text = self._reader.read()
        _, status = os.waitpid(self.pid, 0)
        self._reader.close()
        if status != 0 or not text:
            raise RuntimeError(f"a helper process of the demo ended with status {status}")
        return json.loads(text)


class Machine:
    """`files`: paths that the machine has for itself, with the directory that lies behind each."""

    def __init__(self, name, files=None):
        self.name = name
        self.files = files or {}
        ready, told = os.pipe()
        self.pid = os.fork()
        if self.pid == 0:
            try:
                os.close(ready)
                die_with_parent()
                self._become()
                os.write(told, b"1")
                os.close(told)
                while True:
                    signal.pause()
            except BaseException as error:
                os.write(2, f"demo: machine {name}: {error!r}\n".encode())
            finally:
                os._exit(1)
        os.close(told)
        if os.read(ready, 1) != b"1":
            raise RuntimeError(f"machine {name} did not come up")
        os.close(ready)
        kinds = ("net", "mnt", "uts") if self.files else ("net",)
        self._handles = [os.open(f"/proc/{self.pid}/ns/{kind}", os.O_RDONLY | os.O_CLOEXEC) for kind in kinds]

    def _become(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            signal.signal(number, signal.SIG_DFL if number == signal.SIGTERM else signal.SIG_IGN)
        extra = CLONE_NEWNS | CLONE_NEWUTS if self.files else 0
        _checked(_libc.unshare(CLONE_NEWNET | extra), "unshare")
        if not self.files:
            return
        socket.sethostname(self.name)
        _mount(None, "/", None, MS_REC | MS_PRIVATE)
        _mount("sysfs", "/sys", "sysfs", 0)  # shows the links of this network namespace
        for path, behind in self.files.items():
            _mount(behind, path, None, MS_BIND)

    def enter(self):
        for handle in self._handles:
            _checked(_libc.setns(handle, 0), f"setns {self.name}")

    def _prepare_child(self):
        die_with_parent()
        self.enter()

    def start(self, *command, **options):
        return subprocess.Popen(command, preexec_fn=self._prepare_child, **options)

    def run(self, *command, text=None):
        """The output of a command; an error when it fails."""
        done = subprocess.run(command, preexec_fn=self._prepare_child, input=text, text=True,
                              stdin=subprocess.DEVNULL if text is None else None, capture_output=True)
        if done.returncode != 0:
            raise RuntimeError(f"{self.name}: {' '.join(command)}: {done.stderr.strip() or done.returncode}")
        return done.stdout

    def ip(self, *lines):
        """Many commands of ip in one go: starting a program is slow on an emulated machine."""
        return self.run("ip", "-batch", "-", text="\n".join(lines) + "\n")

    def write(self, path, value):
        """A kernel value below /proc/sys/net or /sys."""
        self.agent(_write, path, str(value)).result()

    def agent(self, function, *arguments):
        return Agent(function, *arguments, enter=self.enter)

    def root(self, path):
        """Where a path of the machine is seen from outside."""
        return Path(f"/proc/{self.pid}/root{path}")

    def counters(self):
        """Interface name: (received bytes, received packets, sent bytes, sent packets)."""
        out = {}
        for line in Path(f"/proc/{self.pid}/net/dev").read_text().splitlines()[2:]:
            name, _, figures = line.partition(":")
            words = figures.split()
            out[name.strip()] = (int(words[0]), int(words[1]), int(words[8]), int(words[9]))
        return out

    def end(self):
        for handle in self._handles:
            os.close(handle)
        os.kill(self.pid, signal.SIGKILL)
        os.waitpid(self.pid, 0)


def cable(name, other, other_name):
    """For Machine.ip: a pair of veth devices, one here and one in the other machine."""
    return f"link add {name} type veth peer name {other_name} netns {other.pid}"


def call(machine, service, method, request="{}", limit=5):
    """A service call to a service that runs in a machine, through its socket (as vx-call does)."""
    with socket.socket(socket.AF_UNIX) as connection:
        connection.settimeout(limit)
        connection.connect(str(machine.root(f"/run/vx/{service}.sock")))
        payload, words = request.encode(), (service.encode(), method.encode())
        connection.sendall(b"VXQ1" + struct.pack("!IHH", len(payload), len(words[0]), len(words[1])) +
                           b"".join(words) + payload)
        connection.shutdown(socket.SHUT_WR)
        data = b""
        while part := connection.recv(65536):
            data += part
    if data[:4] != b"VXR1" or struct.unpack("!I", data[8:12])[0] != 0:
        raise RuntimeError(f"{service}.{method} on {machine.name} failed")
    return json.loads(data[12:])
