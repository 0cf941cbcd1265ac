"""Who is who in the demo: numbers, addresses, and the documents that each device is given."""

import json
from dataclasses import dataclass

# Low enough for an emulated machine, and two to one so that the weights can be seen.
WAN_A_TX, WAN_B_TX = 2_000_000, 1_000_000
WAN_A_RX = 1_000_000
HUB_RATE = 20_000_000
SHARES = [50, 30]  # percent of the egress rate, of the first and second class

SERVICE_NETWORK = "10.80.0.0/24"  # behind both hubs
SERVICE = "10.80.0.10"
INTERNET = "198.18.0.0/22"  # both providers reach it
PROVIDERS = ("203.0", "198.51")  # the first half of each one's addresses
GROUP, DOMAIN = "retail", "north"


@dataclass
class Site:
    name: str
    number: int
    role: str
    lan: int          # third octet of its LAN, and of its host
    first_wan: int    # last octet but one of its network at each provider
    tx: tuple
    rx: tuple

    def wan_network(self, port):
        return f"{PROVIDERS[port - 1]}.{self.first_wan}"

    def wan(self, port):
        return f"{self.wan_network(port)}.2"

    def gateway(self, port):
        return f"{self.wan_network(port)}.1"

    def tunnel(self, port):
        offset = 8 * self.number + port - 9
        return f"198.19.{offset // 256}.{offset % 256}"

    @property
    def lan_network(self):
        return f"192.168.{self.lan}.0/24"

    @property
    def lan_router(self):
        return f"192.168.{self.lan}.1"

    @property
    def lan_host(self):
        return f"192.168.{self.lan}.10"


BRANCH = Site("branch", 11, "EDGE", 11, 111, (WAN_A_TX, WAN_B_TX), (WAN_A_RX, 0))
HUB1 = Site("hub1", 21, "HUB", 21, 121, (HUB_RATE, HUB_RATE), (0, 0))
HUB2 = Site("hub2", 22, "HUB", 22, 122, (HUB_RATE, HUB_RATE), (0, 0))
SITES = (BRANCH, HUB1, HUB2)


def device_info(site):
    links = {}
    for port in (1, 2):
        links[f"eth{port}"] = {
            "ID": str(port), "RX_RATE": str(site.rx[port - 1]), "TX_RATE": str(site.tx[port - 1]),
            "IP4_ADDR": f"{site.wan(port)}/24", "IP4_GW": site.gateway(port),
            "IP6_ADDR": f"2001:db8:{site.number}::2/64" if port == 1 else "",
            "TUN_ADDR4": site.tunnel(port), "PRIO": str(port),
        }
    return {
        "DEVICE_ID": str(site.number), "LOCAL_MGMT": "0",
        "WAN_PORT": {f"WAN{port}": {"INTERFACE": f"eth{port}"} for port in (1, 2)},
        "LAN_PORT": {"LAN1": {"INTERFACE": "eth5"}},
        "WAN_IFACE_INFO": links,
    }


def site_document(hub):
    info = {}
    for site in SITES:
        info[str(site.number)] = {
            "ROLE": site.role, "GROUP_ID": GROUP, "DOMAIN": DOMAIN,
            "LAN": [site.lan_network], "STATIC_ROUTE": [],
            **{f"PORT{port}": {"WAN_ADDR4": site.wan(port), "REAL_WAN_ADDR4": site.wan(port),
                               "TUN_ADDR4": site.tunnel(port), "RX_RATE": str(site.tx[port - 1]),
                               "TX_RATE": str(site.tx[port - 1])} for port in (1, 2)},
        }
    info[str(BRANCH.number)] |= {"HUB": str(hub.number), "HUBS": [str(HUB1.number), str(HUB2.number)]}
    return {"SITE_INFO": info}


def site_routes(site, port, hub):
    """What the site reaches over its tunnel at one provider; `hub` serves the network behind both hubs."""
    peers = [(HUB1, HUB1.lan_network), (HUB2, HUB2.lan_network), (hub, SERVICE_NETWORK)]
    if site is not BRANCH:
        peers = [(BRANCH, BRANCH.lan_network)]
    return {"add": [{"SITE": str(peer.number), "DEST": network, "RTA_GATEWAY": [peer.tunnel(port)]}
                    for peer, network in peers]}


def documents(site, hub):
    out = {"device_info.json": device_info(site), "site.json": site_document(hub),
           "qos.json": {"QOS": {"RATE": SHARES, "DEFAULT_CLASS": 3}}}
    for port in (1, 2):
        out[f"routes/s2s.eth{port}.json"] = site_routes(site, port, hub)
    return out


def write_documents(directory, site, hub):
    for name, content in documents(site, hub).items():
        path = directory / name
        path.parent.mkdir(parents=True, exist_ok=True)
        fresh = path.with_suffix(".new")  # a reader sees the old or the new document, never half of one
        fresh.write_text(json.dumps(content, indent=2) + "\n")
        fresh.rename(path)
