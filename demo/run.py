#!/usr/bin/python3
"""The demo itself: builds the network, goes through the steps, writes the table and what the picture needs.

    demo/run.py --build BUILD --out DIRECTORY [--view] [--keep]

Needs root and a kernel with ipip, fou, fq, cls_fw and the netfilter condition match: scripts/demo starts it
where that is given. OUT gets: table, marks, samples, probe, journals and logs of the devices; with --view also
"view", the terminal output of the live view; with --keep commands are taken from "shell.in" in the end.
"""

import argparse
import pathlib
import shutil
import subprocess
import sys
import tempfile
import time

import network
import plan
import traffic
import view
from device import FILES, Device
from results import Results, eprint
from steps import Steps

MODULES = ("ipip", "sit", "fou", "ifb", "sch_htb", "sch_fq", "sch_ingress", "cls_fw", "cls_u32", "act_mirred",
           "nf_conntrack", "xt_condition", "xt_mark", "xt_connmark", "xt_MASQUERADE", "tcp_bbr", "bridge")


def arguments():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", type=pathlib.Path, required=True)
    parser.add_argument("--out", type=pathlib.Path, required=True)
    parser.add_argument("--view", action="store_true")
    parser.add_argument("--keep", action="store_true")
    return parser.parse_args()


def make_directories():
    """The mount points that each machine lays its own files over. Returns those that were not there."""
    made = []
    for path in map(pathlib.Path, FILES):
        if not path.exists():
            path.mkdir(parents=True)
            made.append(path)
    return made


def build_network(results, work, args):
    results.step("network")
    began = time.time()
    devices = {site.name: Device(site, plan.HUB1, work, args.build, args.out) for site in plan.SITES}
    providers = [network.Provider(port) for port in (1, 2)]
    for provider in providers:
        provider.build(devices)
    network.peer(*providers)
    hosts = {site.name: network.build_site(site, devices[site.name]) for site in plan.SITES}
    results.check("two providers, branch, two hubs, three LANs", "built", f"{time.time() - began:.1f} s", True)
    return devices, providers, hosts


def go(results, args, work):
    devices, providers, hosts = build_network(results, work, args)
    recorder = branch_view = None
    try:
        steps = Steps(results, devices, providers, hosts, args.out)
        branch = devices[plan.BRANCH.name]
        steps.bring_up()
        recorder = hosts[plan.BRANCH.name].agent(traffic.record, branch.machine.pid, str(args.out / "samples"), 0.5)
        if args.view:
            branch_view = branch.machine.agent(view.show, str(args.build / "tools/corvoctl"), str(args.out / "view"))
        for step in (steps.lan_to_lan, steps.spread, steps.shaping, steps.gateway_dies, steps.gateway_returns,
                     steps.hub_dies):
            step()
        if args.keep:
            print(results.table(), flush=True)
            view.shell(branch, args.out / "shell.in")
        steps.take_down()
    finally:
        for agent in filter(None, (recorder, branch_view)):
            agent.stop()
        for device in devices.values():
            shutil.copytree(device.work / "log", args.out / f"{device.site.name}.log", dirs_exist_ok=True)
            device.end()
        for machine in [*hosts.values(), *(provider.machine for provider in providers)]:
            machine.end()


def main():
    args = arguments()
    args.out = args.out.resolve()
    args.build = args.build.resolve()
    subprocess.run(["modprobe", "-a", *MODULES], stderr=subprocess.DEVNULL, check=False)
    results = Results()
    made = make_directories()
    with tempfile.TemporaryDirectory(prefix="corvo-demo.") as work:
        try:
            go(results, args, pathlib.Path(work))
        except Exception as error:  # pylint: disable=broad-except
            results.check("the demo itself", "ends", repr(error), False)
            if not isinstance(error, (RuntimeError, OSError)):
                raise
        finally:
            (args.out / "marks").write_text("".join(f"{at:.3f} {text}\n" for at, text in results.marks))
            (args.out / "table").write_text(results.table())
            for path in reversed(made):
                path.rmdir()
    print("\n" + results.table(), flush=True)
    if not results.good:
        eprint(f"demo: something is off; logs are in {args.out}")
    return 0 if results.good else 1


if __name__ == "__main__":
    sys.exit(main())
