"""Values of leaves for random configurations: from small pools, so that references meet, with the edges of each rule.

What a value is drawn from is a row: by the leaf's name, by a typedef, by the built-in type; the first that there is. A row
has the values that are likely to do, and those at or beyond an edge, which come now and then.
"""

import re
from dataclasses import dataclass

BEYOND = 0.09        # share of values from beyond the edge
REFERENCE = 0.75     # share of names of interfaces that are taken from those that exist
POLICY_REFERENCE = 0.97  # share of references to entries of other lists that are good, if there are such entries
OWN_NEIGHBOR = 0.2   # share of neighbours that have the address of an interface

TAGS = ("1", "100", "200", "300", "4094")
NUMBERED = {
    "loopback": ("loopback1", "loopback2", "loopback65530"),
    "natpool": ("natpool1", "natpool2", "natpool31"),
    "gre": ("gre1", "gre2", "gre255"),
    "irb": ("irb1", "irb2", "irb63"),
    "ppp": ("ppp1", "ppp31"),
    "mgmt": ("eth0",),
    "cellular": ("cellular0",),
}
ODD_NAMES = (
    "ge0/0.0", "ge0/1.010", "ge0/2.4095", "ge0/3.4096", "ge0/9.5", "ge0/9", "ge1/0", "10ge0/0", "xge0/0", "irb0", "irb64",
    "irb1.5", "loopback1.5", "loopback1234567", "loopback12345678", "natpool32", "natpool0", "gre0", "gre256", "ppp0", "ppp32",
    "cellular1", "vap0", "vap9", "eth1", "eth0.5", "system", "ge0/0.1234567890", "natpool1x", "lo0", "wlan0",
)


@dataclass(frozen=True)
class World:
    """What a kind of device has: its ports, which interfaces are likely in which VPN, and how a sequence begins."""
    ports: tuple
    vpns: tuple
    kinds: dict     # by VPN, "service" for all that are not named
    opening: tuple  # lines that come always
    more: tuple     # groups of lines of which some come


POLICIES = (
    ("set policy lists prefix-list alpha ip-prefix 10.0.0.0/8 le 24", "set policy lists as-path-list alpha as-path ^65000_",
     "set policy lists community-list b-2 community 65000:1", "set policy lists ext-community-list x community \"soo 65000:1\""),
    ("set policy route-policy alpha sequence 10 action base-action accept",
     "set policy route-policy alpha sequence 10 action set as-path-prepend \"65000 65000.1\""),
    ("set policy route-policy b-2 default-action accept",),
)
EDGE = World(
    ports=("ge0/0", "ge0/1", "ge0/2", "ge0/3"),
    vpns=("0", "0", "0", "0", "1", "5", "7", "512"),
    kinds={
        "0": ("port",) * 6 + ("subif",) * 3 + ("loopback",) * 2 + ("gre",) * 4 + ("natpool",) * 2 + ("ppp",) * 2
             + ("irb", "cellular"),
        "512": ("mgmt",) * 4 + ("port", "loopback"),
        "service": ("subif",) * 6 + ("natpool",) * 4 + ("gre",) * 3 + ("loopback",) * 2 + ("irb",) * 3 + ("port", "ppp"),
    },
    opening=tuple(f"set vpn vpn-instance 0 interface ge0/{port}" for port in range(4)),
    more=(
        ("set vpn vpn-instance 0 interface ge0/0 ip address 10.1.1.1/24", "set vpn vpn-instance 0 interface ge0/0 shutdown false"),
        ("set vpn vpn-instance 0 interface ge0/2 ipv6 address 2001:db8:1::1/64",),
        ("set vpn vpn-instance 5",), ("set vpn vpn-instance 7 interface loopback2 ip address 10.3.0.2/32",),
        ("set vpn vpn-instance 5 interface ge0/0.100 mtu 1400", "set vpn vpn-instance 5 interface ge0/0.100 ip address 10.2.0.1/16"),
        ("set vpn vpn-instance 5 interface natpool1 ip address 10.20.0.0/24", "set vpn vpn-instance 5 interface natpool1 nat direction inside"),
        ("set vpn vpn-instance 0 interface gre1 tunnel-source-interface ge0/0",
         "set vpn vpn-instance 0 interface gre1 tunnel-destination 192.0.2.1"),
        ("set bridge bridge-instance 1 vlan 100", "set bridge bridge-instance 1 interface ge0/1"),
        ("set bridge bridge-instance 2", "set bridge bridge-instance 2 interface ge0/3"),
        ("set bridge bridge-instance 3 vlan 300", "set bridge bridge-instance 3 interface ge0/3 native-vlan true"),
        ("set vpn vpn-instance 0 interface loopback1 ip address 10.3.0.1/32",),
        ("set vpn vpn-instance 0 interface ge0/1 mtu 1500", "set vpn vpn-instance 0 interface ppp1 mtu 1492",
         "set vpn vpn-instance 0 interface ge0/1 pppoe-client ppp-interface ppp1"),
        ("set policy policer p1 rate 1000000", "set policy policer p1 burst 15000", "set policy access-list a1 sequence 1 action policer p1"),
        ("set system system-ip 10.255.0.1",),
        *POLICIES,
        ("set vpn vpn-instance 5 router bgp 65000.1 neighbor 10.2.0.9 remote-as 65001",
         "set vpn vpn-instance 5 router bgp 65000.1 address-family ipv4-unicast aggregate-address 10.0.0.0/8"),
        ("set vpn vpn-instance 0 router bgp 65000 neighbor 2001:db8:8::1 remote-as 65000",),
        ("set vpn vpn-instance 7 interface loopback2 shutdown false",
         "set vpn vpn-instance 7 router ospf area 0 interface loopback2"),
        ("set vpn vpn-instance 0 router ospf area 1 interface ge0/0 authentication type simple",
         "set vpn vpn-instance 0 router ospf area 2 nssa"),
    ),
)
NODE = World(
    ports=("eth0", "eth1", "eth2", "eth3"),
    vpns=("0", "0", "512", "512", "5"),
    kinds={"0": ("port",) * 6 + ("subif",) * 3 + ("loopback",) * 2 + ("gre", "cellular"),
           "service": ("port",) * 4 + ("subif",) * 2 + ("loopback",)},
    opening=("set vpn vpn-instance 0 interface eth0", "set vpn vpn-instance 0 interface eth2"),
    more=(
        ("set vpn vpn-instance 512 interface eth1 ip address 10.1.1.1/24", "set vpn vpn-instance 512 interface eth1 shutdown false"),
        ("set vpn vpn-instance 0 interface eth0 ip address 10.1.2.1/24", "set vpn vpn-instance 0 interface eth0 shutdown false"),
        ("set vpn vpn-instance 0 interface eth2.100 mtu 1400",),
        ("set vpn vpn-instance 0 interface eth2 ip address-list 10.8.0.1/24",),
        ("set system system-ip 10.255.0.1",),
        *POLICIES,
        ("set vpn vpn-instance 0 router bgp 65000 neighbor 10.1.2.9 remote-as 65001",),
        ("set vpn vpn-instance 0 router ospf area 0 interface eth0",),
    ),
)
WORLDS = {"krest": EDGE, "tarn": EDGE}  # all others are like NODE


@dataclass(frozen=True)
class Row:
    good: tuple
    beyond: tuple = ()
    share: float = None     # of values from beyond the edge, if not the usual one


PREFIXES = Row(
    ("10.1.1.1/24", "10.1.1.2/24", "10.1.2.1/24", "10.1.3.1/26", "10.1.3.65/26", "10.2.0.1/16", "10.3.0.1/32", "10.3.0.2/32",
     "10.4.1.1/24", "10.5.1.1/30", "10.6.0.1/24", "10.7.0.1/24", "10.8.0.1/24", "172.16.0.1/12", "192.168.1.1/24"),
    ("10.1.0.1/8", "10.1.1.0/24", "10.1.1.255/24", "224.0.0.1/24", "0.0.0.0/0", "0.0.0.1/24", "127.0.0.1/8", "255.255.255.255/32",
     "240.0.0.1/24", "169.254.1.1/16", "10.5.1.1/31", "10.9.9.9/0", "10.1.1.1/33", "10.1.1.1"))
POOL_PREFIXES = Row(("10.20.0.0/24", "10.20.1.0/26", "10.20.2.0/30", "10.20.3.0/32", "10.20.4.128/25"),
                    ("10.20.0.0/23", "10.20.0.1/24", "10.20.0.0/16", "10.1.1.0/24", "2001:db8::/64"))
ADDRESSES = Row(("10.1.1.1", "10.1.1.2", "10.1.2.1", "10.20.0.5", "10.20.1.7", "10.30.0.1", "10.3.0.1", "192.0.2.1", "192.0.2.2"),
                ("10.20.0.0", "10.20.0.255", "0.0.0.0", "224.0.0.5", "255.255.255.255", "127.0.0.1", "10.1.1", "2001:db8::1"))
NEIGHBORS = Row(("10.2.0.9", "10.1.1.9", "192.0.2.1", "192.0.2.2", "10.5.1.2", "2001:db8:8::1", "2001:db8:9::2"),
                ("0.0.0.0", "224.0.0.5", "255.255.255.255", "10.1.1", "::", "fe80::1", "ff02::1", "fe80::1%eth0"))
ADDRESSES6 = Row(("2001:db8:9::53", "2001:db8:8::1"), ("::", "ff02::1", "fe80::1", "::1"))

# Any kind of text, of which the last ones may be too long or of the wrong letters.
WORDS = Row(("alpha", "b-2", "c.3", "x", "A_1"), ("w" * 32, "w" * 33, "w" * 300, "-x", "a;b", "a b", ""))
TEXTS = Row(("text 1", "a longer text, with 2 blanks", "x"), ("t" * 32, "t" * 33, "t" * 129, " x", "a $b"))

# Systems as they are put before a path; the last ones are none.
AS_PATHS = Row(("65000", "65000 65000.1", "100 200.300", "1 2 3", "4294967295 " * 10 + "1"),
               ("0", "70000.1", "1.70000", "0.0", "65000 x", "1+1", "65000 1-1", "100  200", "4294967296", "1.2.3", "1.", "x",
                "65535.65535 " * 9 + "65535.1", "1 " * 63 + "1", "1 " * 64 + "1", " 1", "1,2"), 0.15)

OF_LEAF = {
    "mtu": Row(("576", "1280", "1400", "1492", "1496", "1500", "1600", "1996", "2000"),
               ("575", "1279", "1348", "1428", "1429", "1493", "1997", "2001", "0")),
    "vlan": Row(("1", "100", "200", "300", "4094", "4095"), ("0", "4096", "010")),
    "bridge-id": Row(("1", "2", "3", "63"), ("0", "64", "65535", "65536")),
    "vpn-id": Row((), ("2", "511", "513", "65529", "65530", "-1")),
    "vpn": Row((), ("2", "65529", "65530")),
    "device-count": Row(("0", "1", "2"), ("3", "100")),
    "tcp-mss-adjust": Row(("500", "1300", "1348", "1452"), ("499", "1349", "1453", "1960", "1961")),
    "shaping-rate": Row(("0", "1000", "1000000"), ("1000001", "10000000", "10000001", "4294967295")),
    "rate": Row(("8", "1000000", "1000000000"), ("0", "7", "1000000001", "10000000000", "10000000001", "18446744073709551615")),
    "policer-name": Row(("p1", "p2"), ("p3",)),
    "policer": Row(("p1", "p2"), ("p3",)),
    "acl-name": Row(("a1", "a2"), ("a3",)),
    "seq-value": Row(("1", "10"), ("65535", "0")),
    "group": Row(("netadmin", "operator", "basic"), ()),
    "user": Row(("admin", "u1"), ()),
    "password": Row(("secret1", "p_2"), ("s" * 127, "s" * 128, "s" * 256, "has blank")),
    "secret-key": Row(("secret1", "k_2"), ("s" * 128, "s" * 129, "s" * 512)),
    "ppp-interface": Row(("ppp1", "ppp31"), ("ppp32", "ge0/0")),
    "radius-servers": Row(("tag1", "tag2"), ()),
    "tag": Row(("tag1", "tag2"), ()),
    "overlay-as": Row(("1", "65000", "1.5"), ("0", "4294967295", "65536.1", "4294967296")),
    "source-ip": Row(("10.30.0.1", "10.30.0.2"), ("10.30.0.0", "10.30.0.255", "0.0.0.0")),
    "translate-ip": Row(("10.20.0.5", "10.20.0.254", "10.20.1.7"), ("10.20.0.0", "10.20.0.255", "10.40.0.1", "224.0.0.1")),
    "a-num": Row(("0", "0", "1", "2", "51", "4294967295"), ("4294967296", "-1")),
    "ge": Row(("8", "16", "24", "32"), ("0", "33")),
    "le": Row(("16", "24", "28", "32"), ("0", "33")),
    "eq": Row(("16", "24", "32"), ("0", "33")),
    "as-path": Row(("^65000_", "_65001$", "_(1|2)_", "^$", ".*", "^[0-9]+ 100$", "65000", "^1{2,3}[-0-9]?$"),
                   ("(", "[1", ")", "1{2", "*", "1{3,2}", "[9-0]", "a+", "1x", "1" * 127, "1" * 128, "(" * 127, ""), 0.15),
    "as-path-prepend": AS_PATHS,
    "as-path-exclude": AS_PATHS,
    "sysObjectID": Row(("1.3.6.1.4.1.1",), ()),
}
OF_TYPEDEF = {
    "ipv4-address-prefix": PREFIXES,
    "ipv6-address-prefix": Row(
        ("2001:db8:1::1/64", "2001:db8:1::2/64", "2001:db8:2::1/64", "2001:db8:3::1/128", "2001:db8:4::1/48"),
        ("fe80::1/64", "ff02::1/64", "::/0", "::1/128", "::/64", "2001:db8:1::/64", "2001:db8::1/129")),
    "ipv4-network": Row(("10.0.0.0/8", "10.1.1.0/24", "192.0.2.0/24"), ("0.0.0.0/0", "10.1.1.1/24", "10.0.0.0/33")),
    "ipv4-address": ADDRESSES,
    "ip-address": Row(ADDRESSES.good + ADDRESSES6.good, ADDRESSES.beyond + ADDRESSES6.beyond),
    "mac-address": Row(("02:aa:00:00:00:01", "00:11:22:33:44:55", "fe:ff:ff:ff:ff:ff"),
                       ("00:00:00:00:00:00", "01:00:5e:00:00:01", "ff:ff:ff:ff:ff:ff", "02:aa:00:00:00")),
    "host-name": Row(("alpha", "host-2", "h3.example"), ("h" * 32, "h" * 33, "h" * 64, "a..b", "10.1.1.1")),
    "file-path": Row(("/home/admin/archive", "admin@192.0.2.1:cfg"), ("/" + "p" * 223, "/" + "p" * 251, "p" * 253, "$x")),
    "number-range": Row(("100", "100-200"), ("1-", "4294967296")),
    "port-ranges": Row(("80", "80 443 8000-8080"), ("99999", "80,443")),
    "port-number": Row(("1", "162", "1812", "65535"), ("0", "65536")),
    "as-number": Row(("1", "65000", "65001", "65000.1", "1.10", "4294967295"),
                     ("0", "0.0", "65536.1", "1.65536", "4294967296", "01.1", "1.")),
    "community": Row(("65000:1", "65000:2", "0:0", "65535:65535", "no-export", "internet", "local-as", "no-advertise"),
                     ("65536:1", "1:65536", "1:2:3", "x", "1", "")),
    "ext-community": Row(("rt 65000:1", "soo 65000:1", "soo 10.1.1.1:1", "rt 65000:4294967295",
                          "rt 65000.1:65535", "rt 4294967295:0"),
                         ("rt 1", "soo", "rt 1:99999999999", "rt 300.1.1.1:1", "rt 65000.1:65536", "rt  1:1", "RT 1:1", "")),
    "secret": Row(("secret1", "k_2"), ("s" * 128, "s" * 129, "s" * 512, "s" * 513)),
    "banner-text": Row(("welcome", "line 1\\nline 2", "100 %% sure"), ("b" * 2048, "b" * 2049, "50 % off", "q\"q")),
    "safe-word": WORDS,
    "safe-text": TEXTS,
}
LOGIN_PASSWORDS = Row(("$6$salt$hash", "$1$ab$cd"), ("plain", "$6$" + "h" * 241))


def kind_of(name):
    if "." in name:
        return "subif"
    found = re.search(r"[a-z]+", name)
    return found.group() if found else ""


def parent_of(name):
    return name.split(".")[0]


class Values:
    """Draws values. What it must know of the configuration is asked from `state`: see random_generate.State."""

    def __init__(self, random, world, state, beyond=BEYOND):
        self.random, self.world, self.state, self.beyond = random, world, state, beyond

    def draw(self, row):
        if row.beyond and (not row.good or self.random.random() < (row.share or self.beyond)):
            return self.random.choice(row.beyond)
        return self.random.choice(row.good)

    def value(self, node, words):
        """The text of a leaf, of a leaf-list's value or of a key; the words are the path that leads to it."""
        if node.type.target:
            return self.reference(node)
        special = SPECIAL.get(node.name)
        chosen = special(self, node, words) if special else None
        if chosen is not None:
            return chosen
        if "interface-name" in node.type.names and node.name not in OF_LEAF:
            return self.interface(words)
        if node.name in OF_LEAF:
            return self.draw(OF_LEAF[node.name])
        return self.of_type(node.type)

    def of_type(self, kind):
        for name in kind.names:
            if name in OF_TYPEDEF:
                return self.draw(OF_TYPEDEF[name])
        if kind.members:
            return self.of_type(self.random.choice(kind.members))
        if kind.base == "boolean":
            return self.random.choice(("true", "false"))
        if kind.base == "bits":
            return " ".join(self.random.sample(kind.words, self.random.randint(1, len(kind.words))))
        if kind.words:
            return self.random.choice(kind.words)
        return self.number(kind) if kind.ranges else self.text(kind)

    def number(self, kind):
        least, most = self.random.choice(kind.ranges)
        if self.random.random() < self.beyond:
            return str(self.random.choice((least - 1, most + 1)))
        return str(self.random.choice((least, most, (least + most) // 2, min(least + 1, most))))

    def text(self, kind):
        least, most = kind.length or (0, 64)
        return "x" * self.random.choice((max(least, 1), min(most, 7), min(most, 300)))

    # leaves whose value depends on where they stand

    def reference(self, node):
        """A key of the list that the leaf refers to."""
        there = self.state.keys_of(node.type.target[:-1])
        if there and self.random.random() < POLICY_REFERENCE:
            return self.random.choice(there)[0]
        return self.draw(WORDS)

    def interface(self, words):
        """A name that some setting refers to."""
        own = words[2] if words[:1] == ("vpn",) else "0"
        vpn = own if "router" in words else self.random.choice((own, "0"))
        there = self.state.interface_names(vpn)
        if there and self.random.random() < REFERENCE:
            return self.random.choice(there)
        return self.name_for(vpn)

    def name_for(self, vpn):
        """A name that may be good for an interface of a VPN."""
        if self.random.random() < self.beyond:
            return self.random.choice(ODD_NAMES)
        kind = self.random.choice(self.world.kinds.get(vpn, self.world.kinds["service"]))
        port = self.random.choice(self.world.ports)
        if kind in ("port", "subif"):
            return port if kind == "port" else f"{port}.{self.random.choice(TAGS)}"
        return self.random.choice(NUMBERED[kind])

    def vpn(self, _node, _words):
        return self.random.choice(self.world.vpns) if self.random.random() >= self.beyond else None

    def interface_key(self, _node, words):
        """A name for a new entry of a VPN, a bridge or a radio."""
        if words[0] == "vpn":
            return self.name_for(words[2])
        if words[0] == "bridge":
            return self.random.choice(self.world.ports * 8 + ODD_NAMES)
        return self.random.choice(("vap0", "vap1", "vap3", "vap4", "ge0/1"))

    def mtu(self, _node, words):
        """The size of a tagged interface is now and then at the edge that its port sets."""
        name = words[-2]
        if kind_of(name) != "subif" or self.random.random() < 0.3:
            return None
        port = int(self.state.leaf_of(("vpn", "vpn-instance", "0", "interface", parent_of(name), "mtu")) or "1500")
        return str(port - self.random.choice((4, 4, 4, 5, 3, 100)))

    def prefix(self, _node, words):
        if kind_of(next((word for word in words[4:5]), "")) == "natpool":
            return self.draw(POOL_PREFIXES)
        return None

    def source_address(self, _node, words):
        there = self.state.addresses(words[2])
        return self.random.choice(there) if there and self.random.random() < REFERENCE else None

    def system_ip(self, _node, _words):
        return self.random.choice(("10.255.0.1", "10.255.0.2", "10.3.0.9")) if self.random.random() < 0.5 \
            else self.source_address(None, ("vpn", "vpn-instance", "0"))

    def vrrp_address(self, _node, words):
        return self.source_address(None, words) if words[-1] == "ipv4" else None

    def neighbor_address(self, words):
        """Now and then that of an interface of the VPN, which cannot be a neighbour's."""
        there = self.state.addresses(words[2])
        return self.random.choice(there) if there and self.random.random() < OWN_NEIGHBOR else self.draw(NEIGHBORS)

    def as_number_key(self, _node, words):
        """That of the instance that is there, since a VPN has one only."""
        there = self.state.keys_of(words)
        return there[0][0] if there and self.random.random() >= self.beyond else None

    def login_password(self, _node, words):
        return self.draw(LOGIN_PASSWORDS) if words[:2] == ("system", "aaa") else None

    def name_key(self, _node, words):
        if words[:3] == ("system", "aaa", "user"):
            return self.draw(OF_LEAF["user"])
        return None


def address_special(values, node, words):
    """Interface addresses, shared addresses of a VRRP group, and neighbours."""
    if words[-1] == "neighbor":
        return values.neighbor_address(words)
    if "vrrp" in words:
        return values.vrrp_address(node, words)
    return values.prefix(node, words) if "ip" in words and "interface" in words else None


SPECIAL = {
    "vpn-id": Values.vpn,
    "vpn": Values.vpn,
    "if-name": Values.interface_key,
    "mtu": Values.mtu,
    "address": address_special,
    "as-num": Values.as_number_key,
    "tunnel-source": Values.source_address,
    "system-ip": Values.system_ip,
    "password": Values.login_password,
    "name": Values.name_key,
}
