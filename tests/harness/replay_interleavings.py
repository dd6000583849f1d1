"""Interleavings of commits of policies and of VPNs, for replay_property.py: what is typed, and which changes it makes.

An interleaving is a list of waves; a wave is a list of sessions that are typed at once; a session is a list of commits.
Each session has VPNs, lists and policies of its own, so what its commits change does not depend on how they fall among
those of the others. A commit is the configuration that the session then has: a dict of paths and values, None for an
entry. The lines to type are the difference from the one before, and any commit may be left out.
"""

from collections import Counter
from dataclasses import dataclass, field

LISTS = "policy lists"
PREFIXES = ("10.0.0.0/8", "10.1.0.0/16", "172.16.0.0/12", "192.168.7.0/24", "0.0.0.0/0")
LENGTHS = ("26", "28", "30")
MEMBERS = {
    "prefix-list": ("ip-prefix", PREFIXES),
    "as-path-list": ("as-path", ("^65000_", "_65001$", ".*", "^$")),
    "community-list": ("community", ("65000:1", "65000:2", "no-export", "internet")),
    "ext-community-list": ("community", ('"rt 65000:1"', '"soo 65000:2"', '"rt 10.0.0.1:3"')),
}
MESSAGES = {"prefix-list": "m_prefix_list", "as-path-list": "m_bgp_as_path_list", "community-list": "m_bgp_community_list",
            "ext-community-list": "m_bgp_ext_community_list", "route-policy": "m_route_map"}
DAEMONS = {"m_bgp_as_path_list": ("bgpd",), "m_bgp_community_list": ("bgpd",), "m_bgp_ext_community_list": ("bgpd",),
           "m_prefix_list": ("bgpd", "ospfd", "zebra"), "m_route_map": ("bgpd", "ospfd", "zebra")}

# Leaves of a clause, and values; of a reference, the kind of list that it names. Those of a row come and go together:
# the removal of either leaf of an aggregator takes both from the daemons.
NUMBERS = ("0", "1", "7", "4294967295")
ORIGINS = ("igp", "egp", "incomplete")
ADDRESSES = ("10.9.9.1", "2001:db8::1")
AS_NUMBERS = ("65000", '"65001 65000.1"')
CLAUSE = (
    (("match address", "prefix-list"),),
    (("match next-hop", "prefix-list"),),
    (("match as-path", "as-path-list"),),
    (("match community", "community-list"),),
    (("match ext-community", "ext-community-list"),),
    (("match metric", NUMBERS),),
    (("match origin", ORIGINS),),
    (("match peer", ADDRESSES),),
    (("match local-preference", NUMBERS),),
    (("match ovc-tag", NUMBERS),),
    (("match ospf-tag", NUMBERS),),
    (("action set atomic-aggregate", ("true", "false")),),
    (("action set next-hop", ADDRESSES),),
    (("action set local-preference", NUMBERS),),
    (("action set metric", NUMBERS),),
    (("action set metric-type", ("type1", "type2")),),
    (("action set origin", ORIGINS),),
    (("action set originator", ADDRESSES),),
    (("action set ospf-tag", NUMBERS),),
    (("action set weight", NUMBERS),),
    (("action set aggregator-as", ("65000", "70000")), ("action set aggregator-address", ADDRESSES)),
    (("action set as-path-prepend", AS_NUMBERS),),
    (("action set as-path-exclude", AS_NUMBERS),),
    (("action set ovc-tag", NUMBERS),),
)
SET_COMMUNITIES = ("65000:7", "65000:8", "local-as")
SEQUENCES = ("1", "10", "20", "65534")
VPNS_OF_SESSION = (("10", "11"), ("20", "21"), ("30", "31"))


@dataclass
class Commit:
    """What the session then has; so many seconds after the one before; how late daemons of VPNs made by it are."""
    state: dict
    pause_s: float = 0.0
    late_ms: int = 0


@dataclass
class Wave:
    """Sessions typed at once. With a restart, the daemon is killed as they begin."""
    sessions: list = field(default_factory=list) # of lists of commits, by the session's number
    with_restart: bool = False


# --- configurations ---

def drop(state, path):
    for key in [key for key in state if key == path or key.startswith(path + " ")]:
        del state[key]


def names(state, kind):
    """Paths of the lists or policies of a kind."""
    prefix = f"{LISTS} {kind} " if kind in MEMBERS else f"policy {kind} "
    return [path for path in state if path.startswith(prefix) and " " not in path[len(prefix):]]


def references_repair(state):
    """Without references to lists that are gone."""
    for path in [path for path, kind in references(state) if f"{LISTS} {kind} {state[path]}" not in state]:
        del state[path]


def references(state):
    kinds = {leaf: kind for row in CLAUSE for leaf, kind in row if kind in MEMBERS}
    for path in state:
        leaf = " ".join(path.split()[-2:])
        if leaf in kinds and " sequence " in path:
            yield path, kinds[leaf]


def lines_between(old, new):
    gone = [path for path in old if path not in new]
    tops = [path for path in gone if not any(path.startswith(other + " ") for other in gone)]
    return [f"delete {path}" for path in tops] + [
        f"set {path}" + ("" if value is None else f" {value}")
        for path, value in new.items() if path not in old or old[path] != value]


# --- changes, as messages tell them ---

def object_of(path):
    """(message, name, member) that the path is in or is; None beside policies. No member: the list or policy itself."""
    words = path.replace('"', "").split()
    if words[0] != "policy":
        return None
    kind, name, rest = (words[2], words[3], words[4:]) if words[1] == "lists" else (words[1], words[2], words[3:])
    if kind != "route-policy":
        return MESSAGES[kind], name, " ".join(rest[1:2] if kind == "prefix-list" else rest[1:]) or None
    return MESSAGES[kind], name, rest[1] if rest[:1] == ["sequence"] else None


def changes_between(old, new):
    """The objects that a commit has to send a message about, each once: (message, name, member)."""
    old_objects, new_objects = ({object_of(path) for path in state} - {None} for state in (old, new))
    changed = {object_of(path) for path in set(old) | set(new)
               if old.get(path, "") != new.get(path, "")} - {None}
    return Counter(one for one in changed if is_told(one, old_objects, new_objects))


def is_told(one, old_objects, new_objects):
    message, name, member = one
    has_been, is_there = ((message, name, None) in objects for objects in (old_objects, new_objects))
    if member is not None:
        return is_there # those of a list that goes go with it
    return has_been and not is_there or message == "m_route_map"


def changes_of(interleaving):
    sums, states = Counter(), {}
    for wave in interleaving:
        for number, commits in enumerate(wave.sessions):
            for commit in commits:
                sums += changes_between(states.get(number, {}), commit.state)
                states[number] = commit.state
    return sums


def end_states(interleaving):
    """What each session has at the end."""
    states = {}
    for wave in interleaving:
        states |= {number: commits[-1].state for number, commits in enumerate(wave.sessions) if commits}
    return states


# --- generation ---

class Generator:
    """Makes interleavings; the same random source, the same interleavings."""

    def __init__(self, random, sessions):
        self.random = random
        self.states = [{} for _ in range(sessions)]

    def interleaving(self):
        first = [Wave([[self.commit(number, self.FIRST)] for number in range(len(self.states))])]
        return first + [self.wave() for _ in range(self.random.randint(1, 3))]

    def wave(self):
        sessions = [[self.commit(number, self.STEPS) for _ in range(self.random.randint(0, 3))]
                    for number in range(len(self.states))]
        return Wave(sessions, with_restart=self.random.random() < 0.05)

    def commit(self, number, steps):
        state = dict(self.states[number])
        for _ in range(self.random.choice((1, 1, 2, 3, 5))):
            self.random.choice(steps)(self, state, number)
        references_repair(state)
        self.states[number] = state
        return Commit(state, self.random.choice((0, 0, 0.01, 0.05)), self.random.choice((0, 0, 0, 50, 200)))

    def vpn(self, state, number):
        path = f"vpn vpn-instance {self.random.choice(VPNS_OF_SESSION[number])}"
        if path in state:
            drop(state, path)
        else:
            state[path] = None

    def vpns(self, state, number):
        """Two in one commit, as far as they are not there."""
        for vpn in VPNS_OF_SESSION[number]:
            state[f"vpn vpn-instance {vpn}"] = None

    def member(self, state, number):
        kind = self.random.choice(list(MEMBERS))
        name = f"{LISTS} {kind} {kind[0]}{number}{self.random.choice('ab')}"
        word, texts = MEMBERS[kind]
        state.setdefault(name, None)
        path = f"{name} {word} {self.random.choice(texts)}"
        drop(state, path)
        if self.random.random() < 0.7:
            state[path] = None
            if kind == "prefix-list":
                state.update({f"{path} {leaf}": value for leaf, value in self.lengths()})

    def lengths(self):
        """Not eq beside the others: what of them is left when it goes is not in the change that takes it away."""
        low, high = sorted(self.random.sample(LENGTHS, 2))
        return self.random.choice(((), (("ge", low),), (("le", high),), (("ge", low), ("le", high)), (("eq", low),)))

    def clause(self, state, number):
        name = f"policy route-policy r{number}{self.random.choice('ab')}"
        state.setdefault(name, None)
        path = f"{name} sequence {self.random.choice(SEQUENCES)}"
        state.setdefault(path, None)
        state[f"{path} action base-action"] = self.random.choice(("accept", "reject"))
        for row in self.random.sample(CLAUSE, self.random.randint(0, 3)):
            values = [(f"{path} {leaf}", self.value(state, choice)) for leaf, choice in row]
            is_gone = any(value is None for _, value in values) or self.random.random() < 0.3
            for leaf, value in values:
                state.pop(leaf, None)
                if not is_gone:
                    state[leaf] = value
        if self.random.random() < 0.3:
            community = f"{path} action set community {self.random.choice(SET_COMMUNITIES)}"
            drop(state, community) if community in state else state.update({community: None})

    def value(self, state, choice):
        """None when there is no list to name."""
        if choice not in MEMBERS:
            return self.random.choice(choice)
        paths = names(state, choice)
        return self.random.choice(paths).split()[-1] if paths else None

    def default_action(self, state, number):
        name = f"policy route-policy r{number}{self.random.choice('ab')}"
        state.setdefault(name, None)
        state.pop(f"{name} default-action", None)
        if self.random.random() < 0.7:
            state[f"{name} default-action"] = self.random.choice(("accept", "reject"))

    def list_goes(self, state, number):
        there = [path for kind in MESSAGES for path in names(state, kind)]
        if there:
            drop(state, self.random.choice(there))

    FIRST = (member, clause, clause, vpn)
    STEPS = (vpn, vpn, vpn, vpns, member, member, clause, clause, default_action, list_goes)


# --- shrinking ---

def smaller(interleaving):
    """Interleavings with less in them, those that drop most first. What is there all the time, goes all the time."""
    for index in reversed(range(len(interleaving))):
        yield interleaving[:index] + interleaving[index + 1:]
    for number in range(len(interleaving[0].sessions) if interleaving else 0):
        if any(wave.sessions[number] for wave in interleaving):
            yield [Wave([[] if at == number else commits for at, commits in enumerate(wave.sessions)], wave.with_restart)
                   for wave in interleaving]
    yield from with_less_commits(interleaving)
    paths = {path for wave in interleaving for commits in wave.sessions for commit in commits for path in commit.state}
    for path in sorted(paths, key=lambda path: (len(path.split()), path)):
        yield without(interleaving, path)


def with_less_commits(interleaving):
    for at, wave in enumerate(interleaving):
        for number, commits in enumerate(wave.sessions):
            for index in range(len(commits)):
                sessions = list(wave.sessions)
                sessions[number] = commits[:index] + commits[index + 1:]
                yield interleaving[:at] + [Wave(sessions, wave.with_restart)] + interleaving[at + 1:]


def without(interleaving, path):
    def less(commit):
        state = dict(commit.state)
        if not path.endswith(" base-action"):
            drop(state, path)
        references_repair(state)
        return Commit(state, commit.pause_s, commit.late_ms)
    return [Wave([[less(commit) for commit in commits] for commits in wave.sessions], wave.with_restart)
            for wave in interleaving]


def typed(interleaving):
    """For people: what is typed where, and when."""
    states = {}
    for at, wave in enumerate(interleaving):
        yield f"wave {at + 1}" + (", the daemon killed as it begins" if wave.with_restart else "")
        for number, commits in enumerate(wave.sessions):
            for commit in commits:
                lines = lines_between(states.get(number, {}), commit.state)
                states[number] = commit.state
                if lines:
                    yield f"  session {number + 1}, after {commit.pause_s} s, daemons of new VPNs {commit.late_ms} ms late"
                    yield from (f"    {line}" for line in lines + ["commit"])
