"""Random changes of a configuration, made from the models: a walk down the tree that ends at a value, or a deletion.

A change is likely to be of what rules are about, and to stand on what is there; nothing keeps it to the rules.
"""

import re
import shlex
from collections import ChainMap
from dataclasses import dataclass, field

import random_schema
import random_values

NEW_ENTRY = 0.3         # share of steps into a list that take a key at random, not one that is there
DELETION = 0.22         # share of changes that take something away
WITHOUT_NEEDED = 0.04   # share of entries that are made without what they need
WITH_COMPANIONS = 0.75  # share of settings that come with those that they make sense with
REFERRED_DELETION = 0.1 # share of deletions that take an entry which a setting refers to
SELDOM_DELETED = {"personality"}  # without it most of the rest is refused
MOST_CHANGES = 5

# How often a step goes to a child, by its name or by its parent's and its own; what is not here counts once.
WEIGHTS = {
    "vpn": 30, "bridge": 9, "system": 8, "policy": 8, "snmp": 2, "wlan": 2,
    "vpn-instance": 9, "bridge-instance": 9, "interface": 14, "service": 2, "skylane": 1, "dns": 2, "host": 1,
    "ip": 8, "ipv6": 4, "address": 9, "secondary-address": 4, "address-list": 1, "static-route": 1, "mtu": 8, "shutdown": 4,
    "mac-address": 2, "vrrp": 2, "nat": 2, "ppp": 1, "pppoe-client": 2, "tunnel-interface": 2, "wpnt-extension": 1, "arp": 2,
    "dot1x": 1, "native-vlan": 4, "vlan": 4, "system-ip": 6, "simulation": 3, "radius": 3, "tacacs": 3, "logging": 2, "ntp": 2,
    "archive": 2, "aaa": 2, "policer": 2, "access-list": 2, "static": 5, "overload": 3, "direction": 3, "trap": 3,
    "server": 5, "source-interface": 5, "user": 3, "auth-order": 3, "personality": 0.3,
    "vpn-instance ip": 4, "vpn-instance interface": 17, "router": 11, "bgp": 4, "ospf": 6, "neighbor": 7, "address-family": 4,
    "remote-as": 4, "update-source": 2, "timers": 2, "best-path": 3, "distance": 2, "maximum-prefixes": 3, "redistribute": 2,
    "bgp shutdown": 1, "neighbor shutdown": 1,
    "area": 9, "default-information": 3, "max-metric": 1, "area interface": 7, "nssa": 2, "range": 2, "authentication": 4,
    "lists": 4, "prefix-list": 4, "as-path-list": 3, "community-list": 2, "ext-community-list": 2, "policy route-policy": 7,
    "match": 3, "action": 3, "set": 8, "as-path-prepend": 3, "as-path-exclude": 2,
}
WEIGHTS_OF_KIND = {
    "gre": {"tunnel-source": 10, "tunnel-source-interface": 14, "tunnel-destination": 24},
    "natpool": {"nat": 24},
    "ppp": {"ppp": 12},
    "ge": {"pppoe-client": 4},
}

# Settings that make sense together: behind the first, the others go to the same entry.
COMPANIONS = {
    "tunnel-destination": ("tunnel-source", "tunnel-source-interface"),
    "static": ("direction",),
    "always": ("originate",),
    "originate-policy": ("originate",),
    "metric-type": ("originate",),
}


@dataclass(frozen=True)
class Subject:
    """What a sequence is about."""
    weights: dict = field(default_factory=dict)     # count before the others
    beyond: float = random_values.BEYOND            # share of values from beyond the edge
    more: tuple = (0, 0, 1, 1, 2, 3)                # settings that a new entry comes with


# Routing has large entries, of which each value beyond an edge would refuse the whole.
SUBJECTS = (Subject(), Subject(), Subject({"vpn": 120, "router": 110, "policy": 36, "bgp": 6, "system": 3}, 0.02, (0, 1, 2, 3, 4, 5)))


def quoted(word):
    if re.fullmatch(r"[A-Za-z0-9_.,:@+/=$-]+", word):
        return word
    return '"' + word.replace('"', '\\"') + '"'


class State:
    """A configuration as the lines that make it, and what can be found in it."""

    def __init__(self, root, lines):
        self.root = root
        self.paths = [self.parsed(line) for line in lines]

    def parsed(self, line):
        """(words, steps) of a line; see random_schema.follow."""
        words = tuple(shlex.split(line))[1:]
        return words, random_schema.follow(self.root, words)

    def add(self, line):
        self.paths.append(self.parsed(line))

    def keys_of(self, path):
        """Keys, as tuples, of the entries of a list."""
        size = len(path)
        found = {}
        for words, steps in self.paths:
            if words[:size] == path and len(words) > size:
                count = next((len(step) - 1 for node, step in steps if node.kind == "list" and node.name == path[-1]), 1)
                found[words[size:size + count]] = None
        return list(found)

    def interface_names(self, vpn):
        return [key[0] for key in self.keys_of(("vpn", "vpn-instance", vpn, "interface"))]

    def leaf_of(self, path):
        return next((words[len(path)] for words, _ in self.paths if words[:-1] == path), None)

    def addresses(self, vpn):
        """IPv4 addresses, without their lengths, of a VPN's interfaces."""
        return [words[-1].split("/")[0] for words, _ in self.paths
                if words[:3] == ("vpn", "vpn-instance", vpn) and words[5:7] == ("ip", "address")]

    def referred(self):
        """Paths of the entries that settings refer to."""
        return [(*steps[-1][0].type.target[:-1], words[-1]) for words, steps in self.paths
                if steps[-1][0].type is not None and steps[-1][0].type.target]


class Generator:
    """Makes the lines of commits; the same random source and the same states, the same lines."""

    def __init__(self, random, root, world):
        self.random, self.root, self.world = random, root, world
        self.subject = random.choice(SUBJECTS)
        self.state = self.values = None

    def opening(self):
        """Commits that a sequence begins with, so that there is something to be in each other's way."""
        return [list(lines) for lines in (self.world.opening, *self.world.more)
                if lines is self.world.opening or self.random.random() < 0.35]

    def commit(self, lines):
        """Lines that change the configuration that the given lines make."""
        self.state = State(self.root, lines)
        self.values = random_values.Values(self.random, self.world, self.state, self.subject.beyond)
        made = []
        for _ in range(self.random.choice((1, 1, 2, 2, 3, 4, MOST_CHANGES))):
            is_deletion = lines and self.random.random() < DELETION
            change = [self.deletion(made)] if is_deletion else self.setting()
            made += [line for line in dict.fromkeys(change) if line and line not in made]
            for line in change:
                if line and line.startswith("set"):
                    self.state.add(line)
        return made

    # deletions

    def deletion(self, made):
        """Takes a leaf, an entry or all of a container; seldom something that stands high above."""
        referred = self.state.referred() if self.random.random() < REFERRED_DELETION else []
        if referred:
            return " ".join(["delete", *map(quoted, self.random.choice(referred))])
        words, steps = self.random.choice(self.state.paths)
        depth = max(self.random.randint(1, len(steps)), self.random.randint(1, len(steps)))
        path = [word for _, step in steps[:depth] for word in step]
        line = " ".join(["delete", *map(quoted, path)])
        is_new = any(other.startswith("set " + line[7:]) for other in made)
        is_list = steps[depth - 1][0].kind == "list" and len(steps[depth - 1][1]) == 1
        is_seldom = steps[-1][0].name in SELDOM_DELETED and self.random.random() < 0.9
        return None if is_new or is_list or is_seldom else line

    # settings

    def setting(self):
        return self.below(self.root, ())

    def below(self, node, words):
        """Goes on from a container or an entry to one of its children."""
        children = [child for child in node.children.values() if child.name not in node.keys]
        if not children:
            return [self.line(words)]
        tables = ChainMap(self.subject.weights, self.kind_weights(words), WEIGHTS)
        weights = [tables.get(f"{node.name} {child.name}") or tables.get(child.name, 1) for child in children]
        child = self.random.choices(children, weights)[0]
        lines = self.to(child, words)
        for other in COMPANIONS.get(child.name, ()):
            if other in node.children and self.random.random() < WITH_COMPANIONS / len(COMPANIONS[child.name]):
                lines += self.to(node.children[other], words)
        return lines

    @staticmethod
    def kind_weights(words):
        is_interface = words[:1] == ("vpn",) and len(words) == 5 and words[3] == "interface"
        return WEIGHTS_OF_KIND.get(random_values.kind_of(words[4]), {}) if is_interface else {}

    @staticmethod
    def word_of(node):
        return next(word for word, child in node.parent.children.items() if child is node)

    def to(self, node, words):
        """Sets something at a node or below it; the words lead to where it stands."""
        path = (*words, self.word_of(node))
        if node.kind in ("leaf", "leaf-list"):
            return [*self.referred(node), self.line(path, node)]
        if node.kind == "list":
            return self.entry(node, path)
        is_enough = node.is_presence and self.random.random() < 0.4
        return [self.line(path)] if is_enough else [*self.needed(node, path), *self.below(node, path)]

    def referred(self, leaf):
        """An entry for a leaf that refers to a list without any; mostly, since a reference may be to nothing too."""
        path = leaf.type.target[:-1]
        if not path or self.state.keys_of(path) or self.random.random() < self.subject.beyond:
            return []
        node = self.root
        for name in path:
            node = node.children[name]
        lines = self.entry(node, path)
        for line in lines:
            self.state.add(line)
        return lines

    def line(self, words, leaf=None):
        parts = ["set", *words]
        if leaf is not None and leaf.type.base != "empty":
            parts.append(self.values.value(leaf, words))
        return " ".join([parts[0], *map(quoted, parts[1:])])

    def entry(self, node, words):
        """An entry: one that is there and something in it, or a new one with what it needs and some more."""
        there = self.state.keys_of(words)
        is_new = not there or self.random.random() < NEW_ENTRY
        for key in () if is_new else self.random.choice(there):
            words = (*words, key)
        if not is_new:
            return self.below(node, words)
        for key in node.keys:
            words = (*words, self.values.value(node.children[key], words))
        lines = [self.line(words), *self.needed(node, words)]
        for _ in range(self.random.choice(self.subject.more)):
            lines += self.below(node, words)
        return lines

    def needed(self, node, words):
        if self.random.random() < WITHOUT_NEEDED:
            return []
        return [line for child in node.required() for line in self.to(child, words)]


# --- from one configuration to another ---

def lines_between(root, old, new, is_fine=False):
    """What leads from the configuration of the old lines to that of the new ones: first what goes, as few and large as can
    be or, if fine, leaf by leaf."""
    kept = set()
    for line in new:
        words, steps = State(root, ()).parsed(line)
        kept |= {words[:size] for size in range(len(words) + 1)}
    gone = {}
    for line in old:
        if line in new:
            continue
        _words, steps = State(root, ()).parsed(line)
        path = ()
        for node, step in steps:
            path += step
            if path not in kept and not is_fine or step is steps[-1][1]:
                gone[" ".join(["delete", *map(quoted, path)])] = None
                break
    return list(gone) + [line for line in new if line not in old]
