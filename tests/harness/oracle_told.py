"""What routing daemons still hold of what was configured earlier, where a change tells them less than a start does.

A follower goes through the commits with one such thing: from the rows of a state (oracle_state.py) that the peers held
before a commit it gives those after it, and from nothing what a start tells. Where the two differ the peers must hold the
one before a restart and the other after it, and nothing else.
"""

from dataclasses import dataclass
from typing import Callable

from oracle_routing import BGP, NETS, OSPF, POLICY, at, entries, router_paths

THERE = "there" # value of an object's own row

INTERNAL_VPN = "65530"


def row(vpn, daemon, *words):
    return f"vpn {vpn} message {daemon} {' '.join(words)}"


def vpn_path(vpn, *words):
    return ("vpn", "vpn-instance", vpn, *words)


def as_number(text):
    high, _, low = text.rpartition(".")
    return str((int(high or 0) << 16) + int(low))


def device_name(port):
    return port.replace("irb", "irb.").replace("/", "_")


# --- numbers whose removal is not told ---

def leaf_follow(root, leaf, row_of):
    """Such a number stays as it was as long as its object does; row_of gives None for other objects."""
    def follow(held, old, new):
        found = {}
        for vpn, above in router_paths(new).items():
            for _, path, entry in entries(new, root, above):
                name = row_of(vpn, path[len(above):])
                value = at(entry, leaf.split())
                if value is None and at(old, path) is not None:
                    value = held.get(name)
                if name and value is not None:
                    found[name] = value
        return found
    return follow


def neighbor_limit_row(vpn, words):
    if words[2:3] != ("neighbor",) or words[4:5] != ("address-family",) or len(words) != 6:
        return None
    return row(vpn, "bgpd", "bgp", as_number(words[1]), "neighbor", words[3], "family 0 .maximum_prefixes")


def digest_key_row(vpn, words):
    if words[3:4] != ("interface",) or len(words) != 5:
        return None
    return row(vpn, "ospfd", "ospf area", words[2], "interface", device_name(words[4]), ".md5_key_id")


# --- addresses of interfaces in areas ---

def area_of_ports(tree, vpn):
    areas = at(tree, vpn_path(vpn, "router", "ospf", "area")) or {}
    return {port: area for area, entry in areas.items() for port in entry.get("interface", {})}


def mark_after(mark, areas, is_cleared, is_there):
    """The area that the interface's address is told in when it changes, None for none."""
    before, now = areas
    if not is_there or now is None:
        return None
    if before != now:
        return now
    return mark if mark == now and not is_cleared else None


def address_follow(held, old, new):
    """Beside the rows it keeps the marks: (VPN, interface) -> area."""
    found = {}
    for vpn in router_paths(new):
        was, now = area_of_ports(old, vpn), area_of_ports(new, vpn)
        gone = [area for area in at(old, vpn_path(vpn, "router", "ospf", "area")) or ()
                if at(new, vpn_path(vpn, "router", "ospf", "area", area)) is None]
        for port, area in now.items():
            entry, mark = at(new, vpn_path(vpn, "interface", port)), held.get((vpn, port))
            top = row(vpn, "ospfd", "ospf area", area, "interface", device_name(port), "address")
            if was.get(port) != area or mark == area:
                address = at(entry, ("ip", "address"))
                told = [f"{top} {address}"] if address else []
            else:
                told = [name for name in held if str(name).startswith(top + " ")]
            found.update({name: THERE for name in told})
            mark = mark_after(mark, (was.get(port), area), bool(gone), entry is not None)
            if mark is not None:
                found[vpn, port] = mark
    return found


# --- policies of OSPF's routes ---

def routes_follow(held, old, new):
    found = {}
    for vpn in router_paths(new):
        path = vpn_path(vpn, "router", "ospf")
        for value, direction in enumerate(("in", "out")):
            name = row(vpn, "zebra", "ospf-routes", str(value))
            entry, before = (at(tree, path + ("route-policy", direction)) for tree in (new, old))
            policy = entry["pol-name"] if entry else held.get(name + " .route_policy")
            is_taken_back = entry is None and before is not None and at(new, path) is not None
            if policy is not None and not is_taken_back:
                found |= {name: THERE, name + " .route_policy": policy}
    return found


# --- parts of policies ---

def member_follow(top, word, kind, update):
    """Follows fields of the members of the lists at a path. A VPN that is new is told all as it is."""
    def follow(held, old, new):
        found = {}
        for vpn in [*router_paths(new), INTERNAL_VPN]:
            has_all = vpn == INTERNAL_VPN or at(old, vpn_path(vpn)) is not None
            for name, members in (at(new, top) or {}).items():
                for member, entry in members.get(word, {}).items():
                    before = at(old, top + (name, word, member)) if has_all else None
                    base = row(vpn, "zebra", kind, name, member)
                    last = {field: held.get(f"{base} .{field}") for field in update.fields}
                    for field, value in update(last, before, entry).items():
                        found.update({f"{base} .{field}".replace("zebra", daemon, 1): value
                                      for daemon in ("zebra", "ospfd", "bgpd") if value is not None})
        return found
    return follow


def bounds_update(last, before, entry):
    """An equality is told as both bounds; taken back, it takes those bounds with it that are not told with that."""
    before = {} if before is None else before
    after = {bound: entry.get(bound) if entry.get(bound) != before.get(bound) else last[bound] for bound in ("ge", "le")}
    if "eq" in before and "eq" not in entry:
        after = {bound: value if entry.get(bound) != before.get(bound) else None for bound, value in after.items()}
    if entry.get("eq") != before.get("eq") and "eq" in entry:
        after = {bound: entry["eq"] for bound in after}
    return after


bounds_update.fields = ("ge", "le")

AGGREGATOR = {"set_aggr_as_num": ("action", "set", "aggregator-as"), "set_aggr_ip_addr": ("action", "set", "aggregator-address")}


def aggregator_update(last, before, entry):
    """One that is taken back takes the other along, if that is not told with it."""
    values = {field: (at(before, words), at(entry, words)) for field, words in AGGREGATOR.items()}
    has_loss = any(was is not None and now is None for was, now in values.values())
    return {field: now if was != now else None if has_loss else last[field] for field, (was, now) in values.items()}


aggregator_update.fields = tuple(AGGREGATOR)


@dataclass(frozen=True)
class Cause:
    what: str
    reason: str
    follow: Callable # (rows held before, tree before, tree) -> rows held


CAUSES = (
    Cause("limits of prefixes that were taken back", "the message has no form for the removal",
          leaf_follow(BGP, "maximum-prefixes prefix-num", neighbor_limit_row)),
    Cause("key numbers of OSPF's digests that were taken back", "the removal is not told",
          leaf_follow(OSPF, "authentication message-digest key-id", digest_key_row)),
    Cause("addresses of interfaces in areas",
          "they are told of interfaces that have a mark; it is set when the interface is put into the area, if it is there "
          "then, and an area that goes clears the marks of all areas of the VPN", address_follow),
    Cause("policies of OSPF's routes, of a VPN whose OSPF went as a whole",
          "what stands below a container that goes is not told one by one, and zebra is not told of the container",
          routes_follow),
    Cause("bounds of networks that have or had an equality beside others",
          "a change tells what has changed, not what it brings back to light",
          member_follow(NETS.path, "ip-prefix", "prefix-list", bounds_update)),
    Cause("aggregators of which half was taken back", "one word takes both back",
          member_follow(POLICY.path, "sequence", "route-map", aggregator_update)),
)


def told_after(told, old, new):
    """{what: rows held} after a commit; from nothing, after a start."""
    return {cause.what: cause.follow(told.get(cause.what, {}), old, new) for cause in CAUSES}


def stale_rows(told, tree):
    """{what: {row: (its value now, after a start)}} where they are not the same; None for a row that is not there."""
    fresh, stale = told_after({}, {}, tree), {}
    for what, held in told.items():
        names = {name for name in (*held, *fresh[what]) if isinstance(name, str)}
        stale[what] = {name: (held.get(name), fresh[what].get(name)) for name in names
                       if held.get(name) != fresh[what].get(name)}
    return stale
