"""One device: corvo-edged and the services that it asks, in a machine of its own."""

import json
import signal
import subprocess
import time

from plan import write_documents
from space import Machine, call

FILES = {"/etc/networkmanagement": "etc", "/var/log/network": "log", "/run": "run"}


class Device:
    def __init__(self, site, hub, work, build, kept):
        self.site, self.build = site, build
        self.work = work / site.name
        for name in FILES.values():
            (self.work / name).mkdir(parents=True)
        (self.work / "run" / "vx").mkdir()
        self.documents = self.work / "etc"
        self.journal_file = kept / f"{site.name}.journal"
        self.output = open(kept / f"{site.name}.output", "w")
        write_documents(self.documents, site, hub)
        self.machine = Machine(site.name, {path: self.work / name for path, name in FILES.items()})
        self.processes = {}

    def start_services(self):
        started = self.machine.start(f"{self.build}/platform/corvo-services", "--journal", str(self.journal_file),
                                     stdout=subprocess.PIPE, stderr=self.output)
        self.processes["services"] = started
        return started

    def services_ready(self):
        return b"ready" in self.processes["services"].stdout.readline()

    def start_daemon(self, *options):
        self.processes["edged"] = self.machine.start(
            f"{self.build}/tools/corvo-edged", "--clear-on-exit", *options,
            stdin=subprocess.DEVNULL, stdout=self.output, stderr=self.output)

    def ctl(self, *words):
        return self.machine.run(f"{self.build}/tools/corvoctl", *words)

    def state(self):
        """What the daemon says of itself; nothing while it does not answer yet."""
        try:
            return call(self.machine, "corvo", "get_state")["data"]
        except (OSError, ValueError, KeyError, RuntimeError):
            return {}

    def links(self):
        return {link["ifname"]: link["status"] for link in self.state().get("links", [])}

    def condition(self, port):
        try:
            with open(f"/proc/{self.machine.pid}/net/nf_condition/PORT{port}") as file:
                return file.read().strip()
        except OSError:
            return "-"

    def journal(self, method=None):
        if not self.journal_file.exists():
            return []
        entries = [json.loads(line) for line in self.journal_file.read_text().splitlines() if line.endswith("}")]
        return [entry for entry in entries if method is None or entry["method"] == method]

    def log(self):
        return (self.work / "log" / "corvo.log").read_text(errors="replace")

    def default_route(self):
        """The next hops of the route that the monitors keep: device name and weight."""
        routes = json.loads(self.machine.run("ip", "-j", "route", "show", "table", "253") or "[]")
        for route in routes:
            if route["dst"] == "default" and route.get("metric") == 100:
                hops = route.get("nexthops") or [route]
                return {hop["dev"]: hop.get("weight", 1) for hop in hops}
        return {}

    def kernel_state(self):
        """Everything that the daemon could leave behind, as sorted lines. Not what the kernel makes by itself:
        link-local addresses, what it adds to sit0 when the presetup's values are written, default queues."""
        shown = self.machine.run("ip", "-o", "-batch", "-",
                                 text="link show\naddr show\nrule show\nroute show table all\nfou show\n")
        shown += self.machine.run("ip", "-6", "rule", "show") + self.machine.run("tc", "qdisc", "show")
        out = set()
        for line in shown.splitlines():
            words = line.split()
            if not words or any(part in line for part in ("fe80:", "ff00:", "anycast", "multicast", "sit0", " 0: dev")):
                continue
            if words[0] == "qdisc":
                words = words[:5]                       # kind, handle, device
            elif words[0][:-1].isdigit() and words[1].endswith(":"):
                words = ["link", words[1]]              # not its flags and counters
            elif words[0][:-1].isdigit() and "inet" in words[2]:
                words = ["address", *words[1:4]]
            out.add(" ".join(words))
        return sorted(out)

    def end_daemon(self, limit=30):
        """Asks the daemon to end; the seconds that it took, and its exit status."""
        began = time.monotonic()
        self.processes["edged"].send_signal(signal.SIGTERM)
        status = self.processes["edged"].wait(limit)
        return time.monotonic() - began, status

    def power_off(self):
        for process in self.processes.values():
            process.kill()
            process.wait()
        self.machine.ip(*(f"link set eth{port} down" for port in (1, 2, 5)))

    def end(self):
        for process in self.processes.values():
            if process.poll() is None:
                process.kill()
                process.wait()
        self.output.close()
        self.machine.end()
