"""A configuration of network objects for the restart oracle: a tree, its rules, and edits of it.

The tree holds what is configured, a word of the path a level: {"vpn": {"vpn-instance": {"5": {"name": "blue"}}}}. A leaf
is a text, an entry of a list or a leaf-list is a dict. The rules are those that the device would refuse a commit by, so
that every commit made here is accepted, and one that is refused is a failure.
"""

import copy
import re
from dataclasses import dataclass, field

import oracle_routing

# Words whose next word is a key. A leaf-list counts as a list, its values as entries.
LISTS = {"vpn-instance", "interface", "dns", "host", "service", "secondary-address", "bridge-instance"} | oracle_routing.LISTS

# What every configuration here has, since the device's own validation will not let it go; what else the device has come
# up with is taken away first.
BASE_LINES = ("delete vpn", "set vpn vpn-instance 0", "set vpn vpn-instance 512 interface eth0 shutdown false")


@dataclass(frozen=True)
class Edit:
    """One line of configuration mode. The value is None for what has none, and with a deletion."""
    verb: str
    path: tuple
    value: str = None

    def line(self):
        words = self.path + (() if self.value is None else (self.value,))
        return " ".join((self.verb, *(word if re.fullmatch(r"[\w.,:@+/=-]+", word) else f'"{word}"' for word in words)))


@dataclass
class Commit:
    """Edits that come into force together, in groups that make sense only as a whole."""
    groups: list = field(default_factory=list)

    def edits(self):
        return [edit for group in self.groups for edit in group]


# --- the tree ---

def tree_at(tree, path):
    for word in path:
        if not isinstance(tree, dict) or word not in tree:
            return None
        tree = tree[word]
    return tree


def is_entry(path):
    """Whether it is there by itself, with nothing below it."""
    return len(path) >= 2 and (path[-2] in LISTS or path[-2] == "ip" and path[-4:-3] == ("host",)
                               or path[-1] in oracle_routing.LEAVES_WITHOUT_VALUE
                               or oracle_routing.is_container_by_itself(path))


def tree_delete(tree, path):
    """False when nothing is there. Containers that lose their last child go too, as in the datastore."""
    if tree_at(tree, path) is None:
        return False
    del tree_at(tree, path[:-1])[path[-1]]
    above = path[:-1]
    while above and not tree_at(tree, above) and not is_entry(above):
        del tree_at(tree, above[:-1])[above[-1]]
        above = above[:-1]
    return True


def tree_apply(tree, edit):
    """False when the device would refuse the line."""
    if edit.verb == "delete":
        return tree_delete(tree, edit.path)
    for word in edit.path[:-1]:
        tree = tree.setdefault(word, {})
    if edit.value is not None:
        tree[edit.path[-1]] = edit.value
    else:
        tree.setdefault(edit.path[-1], {})
    return True


def tree_base():
    tree = {}
    tree_apply(tree, Edit("set", ("vpn", "vpn-instance", "0")))
    tree_apply(tree, Edit("set", ("vpn", "vpn-instance", "512", "interface", "eth0", "shutdown"), "false"))
    return tree


def tagged_paths(tree):
    return [("vpn", "vpn-instance", vpn, "interface", name) for vpn, name, _ in interfaces(tree) if kind_of(name) == "subif"] + \
        [("bridge", "bridge-instance", key, "interface", port) for key, bridge, port, _ in members(tree) if "vlan" in bridge]


def mtu_paths(tree):
    return [("vpn", "vpn-instance", vpn, "interface", name, "mtu") for vpn, name, leaves in interfaces(tree) if "mtu" in leaves] + \
        [("bridge", "bridge-instance", key, "interface", port, "mtu") for key, _, port, leaves in members(tree)
         if "mtu" in leaves]


def edits_to_base(tree):
    """The changes, one behind the other, by which the device gets back to the least configuration: what is tagged first,
    which would be too big for a port without its MTU, then MTUs."""
    without = copy.deepcopy(tree)
    for paths in (tagged_paths, mtu_paths):
        edits = [Edit("delete", path) for path in paths(without)]
        for edit in edits:
            tree_delete(without, edit.path)
        yield edits
    yield list(edits_between(without, tree_base()))


def edits_between(old, new, path=()):
    """What makes the new tree of the old one."""
    for word in old:
        if word not in new:
            yield Edit("delete", path + (word,))
    for word, value in new.items():
        here = path + (word,)
        if isinstance(value, str):
            if old.get(word) != value:
                yield Edit("set", here, value)
            continue
        if is_entry(here) and word not in old:
            yield Edit("set", here)
        yield from edits_between(old.get(word, {}), value, here)


# --- looking at it ---

def vpns(tree):
    return tree_at(tree, ("vpn", "vpn-instance")) or {}


def bridges(tree):
    return tree_at(tree, ("bridge", "bridge-instance")) or {}


def interfaces(tree):
    """(VPN, name, settings) of each."""
    return [(vpn, name, leaves) for vpn, entry in vpns(tree).items() for name, leaves in entry.get("interface", {}).items()]


def members(tree):
    """(bridge id, bridge, port, settings) of each."""
    return [(key, bridge, name, leaves) for key, bridge in bridges(tree).items()
            for name, leaves in bridge.get("interface", {}).items()]


def untagged_ports(tree):
    return {port for _, bridge, port, _ in members(tree) if "vlan" not in bridge}


def ports_of_vpn0(tree):
    return tree_at(tree, ("vpn", "vpn-instance", "0", "interface")) or {}


def kind_of(name):
    return "subif" if "." in name else re.match(r"[a-z]+", name).group()


def mtu_of(leaves):
    return int(leaves.get("mtu", "1500"))


def kernel_name(name):
    return re.sub(r"^irb(\d)", r"irb.\1", name).replace("/", "_")


def member_name(bridge, port):
    """The member's device."""
    return kernel_name(port) + (f".{bridge['vlan']}" if "vlan" in bridge else "")


# --- rules: each gives the texts of what is wrong with the change from the old tree to the new ---

# What a port that carries a bridge's untagged frames cannot have.
ROUTING_LEAVES = {"ip", "ipv6", "mtu", "mac-address", "arp-timeout"}


def rule_fixed_vpns(_, new):
    if "0" not in vpns(new) or tree_at(new, ("vpn", "vpn-instance", "512", "interface", "eth0")) is None:
        yield "VPN 0 and the management VPN with its port cannot go"


def rule_places(_, new):
    seen = set()
    for vpn, name, _leaves in interfaces(new):
        if name in seen:
            yield f"{name} is in two VPNs"
        seen.add(name)
        if kind_of(name) == "subif" and name.split(".")[0] not in ports_of_vpn0(new):
            yield f"{name} has no port in VPN 0"
        if kind_of(name) == "irb" and vpn == "0":
            yield f"{name} in VPN 0"
        if (kind_of(name) == "eth") != (vpn == "512"):
            yield f"{name} in VPN {vpn}"


def rule_mtu(old, new):
    had_mtu = {name for _, name, leaves in interfaces(old) if "mtu" in leaves}
    ports = dict(ports_of_vpn0(new))
    ports.update({port: leaves for _, bridge, port, leaves in members(new) if "vlan" not in bridge})
    tagged = [(name, leaves) for _, name, leaves in interfaces(new) if kind_of(name) == "subif"]
    # The kernel makes a tagged device smaller with its port, and not larger again: no port may become too small for one.
    tagged += [(f"{port}.{bridge['vlan']}", leaves) for _, bridge, port, leaves in members(new) if "vlan" in bridge]
    for name, leaves in tagged:
        base = name.split(".")[0]
        port = ports.get(base, {})
        # One that is taken away is judged like one that is set: as the default.
        is_judged = "mtu" in leaves or "mtu" in port or {name, base} & had_mtu
        if is_judged and mtu_of(leaves) > mtu_of(port) - 4:
            yield f"{name} is too large for its port"
    for _vpn, name, leaves in interfaces(new):
        if "ipv6" in leaves and mtu_of(leaves) < 1280:
            yield f"{name} is too small for IPv6"


def own_mtus(tree):
    """The paths of MTUs that are set on ports."""
    found = {("vpn", "vpn-instance", vpn, "interface", name, "mtu") for vpn, name, leaves in interfaces(tree)
             if kind_of(name) == "ge" and "mtu" in leaves}
    return found | {("bridge", "bridge-instance", key, "interface", port, "mtu") for key, bridge, port, leaves in members(tree)
                    if "vlan" not in bridge and "mtu" in leaves}


def rule_ports_that_go(old, new):
    """A port keeps its MTU when nothing is configured on it any more, and what is made upon it later takes it over: the
    MTU is to be taken back first. Without this rule a state would depend on what was configured long before."""
    for path in own_mtus(old) - own_mtus(new):
        if tree_at(new, path[:-1]) is None:
            yield f"{path[-2]} goes with an MTU of its own"


def rule_members(_, new):
    placed = {kernel_name(name) for vpn, name, _ in interfaces(new)}
    untagged, tagged = {}, set()
    for key, bridge, port, leaves in members(new):
        entry = ports_of_vpn0(new).get(port)
        if entry is None:
            yield f"{port} of bridge {key} is not in VPN 0"
            continue
        if "vlan" in bridge and ((port, bridge["vlan"]) in tagged or member_name(bridge, port) in placed):
            yield f"{port} has the VLAN of bridge {key} twice"
        tagged.add((port, bridge.get("vlan")))
        is_native = leaves.get("native-vlan") == "true"
        if is_native and "vlan" not in bridge:
            yield f"bridge {key} has no tag to be native for"
        if is_native or "vlan" not in bridge:
            if port in untagged:
                yield f"untagged frames of {port} belong to two bridges"
            untagged[port] = key
            if ROUTING_LEAVES & set(entry):
                yield f"{port} is routed and in bridge {key}"
        # One device with two settings of its state: which one holds is a matter of order.
        if "vlan" not in bridge and "shutdown" in entry:
            yield f"{port} is raised by VPN 0 and by bridge {key}"


def rule_bridge_vlan(old, new):
    tags = [bridge["vlan"] for bridge in bridges(new).values() if "vlan" in bridge]
    if len(tags) != len(set(tags)):
        yield "two bridges of one VLAN"
    for key, bridge in bridges(new).items():
        before = bridges(old).get(key)
        if before and before.get("interface") and bridge.get("interface") and before.get("vlan") != bridge.get("vlan"):
            yield f"bridge {key} has members, its VLAN stays"


def addresses_of_ports(tree, vpn):
    """Without their lengths; what a tunnel of that VPN may start at."""
    found = [leaves.get("ip", {}).get("address") for at, name, leaves in interfaces(tree)
             if at == vpn and kind_of(name) in ("ge", "subif")]
    return {address.split("/")[0] for address in found if address is not None}


def rule_tunnels(old, new):
    for vpn, name, leaves in interfaces(new):
        before = tree_at(old, ("vpn", "vpn-instance", vpn, "interface", name)) or {}
        if kind_of(name) != "gre" or leaves.get("tunnel-destination") in (None, before.get("tunnel-destination")):
            continue
        source = leaves.get("tunnel-source-interface")
        if source is None and "tunnel-source" not in leaves:
            yield f"{name} has no source"
        if source is not None and source not in vpns(new)[vpn]["interface"]:
            yield f"{name} starts at {source}, which is not there"
        if source is None and leaves.get("tunnel-source") not in addresses_of_ports(new, vpn):
            yield f"{name} starts at an address that no port has"


def rule_lists(_, new):
    for vpn, entry in vpns(new).items():
        roles = [dns.get("role") for dns in entry.get("dns", {}).values()]
        if None in roles or len(roles) != len(set(roles)):
            yield f"VPN {vpn} has two resolvers of one role"
        if not all(host.get("ip") for host in entry.get("host", {}).values()):
            yield f"VPN {vpn} has a host without an address"
        for service in entry.get("service", {}).values():
            if set(service.get("interface", {})) - set(ports_of_vpn0(new)):
                yield f"a service of VPN {vpn} has an interface that is not in VPN 0"


RULES = (rule_fixed_vpns, rule_places, rule_mtu, rule_ports_that_go, rule_members, rule_bridge_vlan, rule_tunnels, rule_lists,
         *oracle_routing.RULES)


def violations(old, new):
    return [text for rule in RULES for text in rule(old, new)]


def commit_apply(tree, edits):
    """The tree after the commit, None when the device would refuse it."""
    new = copy.deepcopy(tree)
    if not all(tree_apply(new, edit) for edit in edits) or violations(tree, new):
        return None
    return new


def sequence_end(commits):
    """The tree after all of them, None when one would be refused."""
    tree = tree_base()
    for commit in commits:
        tree = commit_apply(tree, commit.edits())
        if tree is None:
            return None
    return tree


# --- the devices that a configuration has ---

def devices_of(tree):
    """(VPN, device) of what the daemon makes or moves for it; tunnels are left out, which need both of their ends."""
    found = {(vpn, kernel_name(name)) for vpn, name, _ in interfaces(tree) if kind_of(name) != "gre"}
    found |= {("0", key) for key in bridges(tree)}
    legs = [member_name(bridge, port) for _, bridge, port, _ in members(tree)]
    found |= {("0", leg) for leg in legs}
    tagged = legs + [kernel_name(name) for _, name, _ in interfaces(tree) if kind_of(name) == "subif"]
    found |= {("0", name.replace("ge", "sim", 1)) for name in tagged if "." in name}
    if tree_at(tree, ("system", "system-ip")) is not None:
        found.add(("0", "system"))
    return found


def raised_ports(tree):
    """(VPN, device) of the ports that are to come up, which takes the device a while."""
    found = {(vpn, kernel_name(name)) for vpn, name, leaves in interfaces(tree)
             if kind_of(name) == "ge" and leaves.get("shutdown") == "false"}
    return found | {("0", kernel_name(port)) for _, bridge, port, leaves in members(tree)
                    if "vlan" not in bridge and leaves.get("shutdown") == "false"}
