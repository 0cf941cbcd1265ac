"""The world around the devices: two providers, the cables, the LAN hosts; and each device's own firewall."""

from plan import BRANCH, INTERNET, PROVIDERS, SERVICE, SITES
from space import Machine, cable

FLOOD_PORTS = (6001, 6002, 6003)  # first class, second class, everything else
PEERING = {"provider-a": "100.64.0.1", "provider-b": "100.64.0.2"}


class Provider:
    """A router with one access line per site. The branch's line ends in a switch: when the gateway behind
    it dies, the branch keeps its carrier and must find out by itself."""

    def __init__(self, port):
        self.port = port
        self.machine = Machine(f"provider-{'ab'[port - 1]}")

    def line(self, site):
        return "gateway" if site is BRANCH else site.name

    def build(self, devices):
        words = ["link set lo up", f"route add local {INTERNET} dev lo", "link add gateway type bridge"]
        for site in SITES:
            port = "access" if site is BRANCH else site.name
            words.append(cable(port, devices[site.name].machine, f"eth{self.port}"))
            if site is BRANCH:
                words.append("link set access master gateway up")
            words += [f"addr add {site.gateway(self.port)}/24 dev {self.line(site)}",
                      f"link set {self.line(site)} up",
                      f"route add {site.tunnel(self.port)} via {site.wan(self.port)} dev {self.line(site)}"]
        self.machine.ip(*words)
        # A gateway that comes back says so to its neighbours, as routers do. Nobody is told of better ways.
        for key, value in (("ip_forward", 1), ("conf/gateway/arp_notify", 1), ("conf/all/send_redirects", 0),
                           ("conf/gateway/send_redirects", 0), ("conf/all/rp_filter", 0)):
            self.machine.write(f"/proc/sys/net/ipv4/{key}", value)

    def gateway_dies(self):
        self.machine.ip("link set gateway down")

    def gateway_returns(self):
        self.machine.ip("link set gateway up",
                        f"route add {BRANCH.tunnel(self.port)} via {BRANCH.wan(self.port)} dev gateway")


def peer(first, second):
    """The providers exchange traffic."""
    def words(provider, other):
        targets = [target for site in SITES
                   for target in (f"{site.wan_network(other.port)}.0/24", site.tunnel(other.port))]
        return [f"addr add {PEERING[provider.machine.name]}/30 dev peering", "link set peering up",
                *(f"route add {target} via {PEERING[other.machine.name]}" for target in targets)]
    first.machine.ip(cable("peering", second.machine, "peering"), *words(first, second))
    second.machine.ip(*words(second, first))


def build_site(site, device):
    """What a device's platform has set up before the management daemon starts: addresses of the ports, ifb
    devices, the way of encapsulated packets (each leaves by the port of its tunnel), the firewall. And the
    host in the site's LAN."""
    host = Machine(f"{site.name}-host")
    words = ["link set lo up", cable("eth5", host, "eth0"), f"addr add {site.lan_router}/24 dev eth5",
             "link set eth5 up"]
    words += [f"link add ifb{number} type ifb" for number in range(2)]
    for port in (1, 2):
        words += [f"addr add {site.wan(port)}/24 dev eth{port}", f"link set eth{port} up",
                  f"rule add pref {100 + port} from {site.tunnel(port)} ipproto 4 lookup {100 + port}",
                  f"route add default via {site.gateway(port)} dev eth{port} table {100 + port}",
                  # A provider's own addresses are reached through that provider: the hub tests ask each port.
                  f"route add {PROVIDERS[port - 1]}.0.0/16 via {site.gateway(port)} dev eth{port}"]
    host_words = ["link set lo up", f"addr add {site.lan_host}/24 dev eth0", "link set eth0 up",
                  f"route add default via {site.lan_router}"]
    if site is not BRANCH:
        words.append(f"route add {SERVICE} via {site.lan_host}")
        host_words.append(f"addr add {SERVICE}/32 dev lo")
    device.machine.ip(*words)
    device.machine.run("iptables-restore", "-n", text=firewall(site))
    host.ip(*host_words)
    return host


def firewall(site):
    """Traffic for other sites is marked with the number of the tunnel to take: the first one whose condition
    says that its WAN is up. Answers return by the tunnel that the question came in by."""
    mangle = ["*mangle"]
    mangle += [f"-A PREROUTING -i tun{port} -j CONNMARK --set-xmark {port}/0xf" for port in (1, 2)]
    mangle += [f"-A PREROUTING -i eth5 -d {network} -m condition --condition PORT{port} -j MARK --set-xmark {port}/0xf"
               for port in (2, 1) for network in ("10.0.0.0/8", "192.168.0.0/16")]
    if site is not BRANCH:
        mangle.append("-A PREROUTING -i eth5 -m connmark ! --mark 0x0/0xf -j CONNMARK --restore-mark --mask 0xf")
    mangle += [f"-A PREROUTING -i eth5 -p udp --dport {port} -j MARK --set-xmark {mark:#x}/0x3c0"
               for port, mark in zip(FLOOD_PORTS, (0x40, 0x80))]
    nat = ["*nat"] + [f"-A POSTROUTING -o eth{port} -s {site.lan_network} -j MASQUERADE" for port in (1, 2)]
    return "\n".join(mangle + ["COMMIT"] + nat + ["COMMIT"]) + "\n"
