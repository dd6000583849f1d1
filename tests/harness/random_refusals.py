"""What the device may say when it refuses a configuration: every text that there is, in its own words.

%s stands for any text, %d and its like for a number. A refusal that no row tells is a failure of the device: it says
something that nobody has promised.
"""

import re

AGENT_ERROR = " confd_str %s (%d) %s"

# Rules between objects.
RULES = (
    # the system, and who may log in
    "System ip address: %s is invalid. It should be ipv4 unicast address",
    "System ip address: %s is invalid. It should be unicast address",
    "System ip should be non-zero: %s",
    "Interface %s with address %s & System Ip %s cannot be same",
    "secret-key cannot be more than 128 characters",
    "VPN %lu does not exist",
    "Group not configured for user",
    "Cannot delete auth-type",
    "\"local\" should be present in authentication order",
    "IP address does not exist for interface %s vpn %u",
    "Invalid source interface %s config for %s for vpn %ld",
    "Unable to validate source interface config for %s",
    "hook post-login-message of %s failed for /banner/motd",  # its copy is gone already
    # bridges
    "Invalid bridge-id %d. Valid values are 0..63",
    "Cannot change the vlan id of bridge %d when there are interfaces present.",
    "Interface %s name is invalid.  Only base interfaces can be bound to a bridge.",
    "Interface %s cannot be bound to bridge %d because base interface %s doesn't exist in global vpn.",
    "Interface %s must be configured under wlan configuration",
    "Interface %s name is invalid.",
    "Interface exists in VPN %ld",
    "Interface is part of bridge %d",
    "Interface is part of bridge %d as native-vlan",
    "Interface %s is already bound to bridge %dto service native vlan traffic.",
    "This is not a VLAN tagged bridge.  Native vlan feature is not needed!",
    "Interface %s is not in global vpn.",
    "Port doesn't exist.",
    "Interface routing attributes cannot be configured while it already exists in a bridge %d",
    # VPNs
    "Cannot delete vpn 0",
    "Cannot delete management vpn 512",
    "Cannot delete %s interface from management vpn (%d)",
    "Only vpn 0 or 512 can be configured",
    "Invalid vlan-tag in interface name %s. Valid values are 1..4094",
    "Parent interface %s for tagged interface %s does not exist in vpn 0",
    "%s interface is not configurable in this system",
    "Parent interface %s cant be removed because it is part of bridge %d",
    "Service interface %s does not exist in vpn %d",
    "Interface %s is not a valid skylane local exit interface. Interface should be in vpn 0 & nat interface or GRE interface",
    # names of interfaces
    "Interface %s name len exceeds max allowed - %d",
    "Invalid interface %s specified",
    "Invalid loopback interface name - %s",
    "Valid natpool names: natpool<1..%d>",
    "Valid GRE interface names: gre<1..%d>",
    "Valid PPP interface names: ppp<1..%d>",
    "PPP interface only allowed on VPN 0",
    "Interface %s cannot be configured in this vpn",
    "Cannot configure sub-interface when main interface is 802.1x enabled",
    "Invalid IRB interface name.  The name should be irb<bridge_id:1-63>!",
    "IRB interfaces are not allowed in VPN 0!",
    # their settings
    "MAC-Address %s must be a valid unicast MAC address",
    "ARP IP-Address %s must be a valid unicast IP address",
    "Must be less than the default value %d",
    "Must be less than the max value %d",
    "Please remove 802.1x configuration from interface %s first",
    "Interface %s not present in vpn %ld",
    "The bind interface %s must be a valid physical interface",
    "Cannot bind tunnel-interface %s to itself",
    "Can configure this command only in transport vpn",
    "Cannot configure both wpnt-extension and tunnel-interface on the same interface %s",
    "Cannot configure %s as last resort. Already interface %s is configured as last resort. \n"
    "Only one last resort can be configured\n",
    "Invalid value for shaping rate.. Allowed values for 10g intf <0..10000000>KB",
    "Invalid value for shaping rate.. Allowed values for 1g intf <0..1000000>KB",
    "Invalid value for policer{%s} rate.. Allowed values for 10g intf <8..10000000000>bps",
    "Invalid value for policer{%s} rate.. Allowed values for 1g intf <8..1000000000>bps",
    "Failed to get /policy/policer{%s}/rate" + AGENT_ERROR,
    "Can't find interface entry vpn:%lu name:%s",
    "DHCPv6 client is running. Can't change dhcp-rapid-commit",
    "DHCPv6 client is running (shutdown %d dhcp-client %d). Can't change dhcp-rapid-commit",
    # sizes of packets
    "Cellular interface MTU can not be greater than %d",
    "Tagged interface MTU needs to be at least 4 bytes less than max MTU range of 1800",
    "Cannot find parent interface %s in vpn 0",
    "Tagged interface MTU needs to be at least 4 bytes less than parent interface (%s) mtu (%d)",
    "PPP interface MTU can not be greater than %d",
    "PPP interface (%s) mtu (%d) needs to be at least 8 bytes less than the bound physical interface (%s) mtu (%d)",
    "Parent interface MTU needs to be at least 4 bytes more than tagged interface (%s) mtu (%d) in vpn %lu",
    "MTU cannot be less than 1280 for ipv6 interface",
    # addresses
    "Invalid Prefix: %s - Natpool interface cannot have an ipv6 address.",
    "Invalid Prefix: %s - Natpool interface should be on subnet boundaries.",
    "Invalid Prefix Length - Number of IP addresses in a natpool cannot be more than 256.",
    "Cannot configure ip address when there are static NAT mappings are configured on the interface",
    "Invalid Prefix: %s",
    "Configured IPv6 address %s is a link local address",
    "Configured IP address %s is a multicast address",
    "Configured IP address %s cannot be all zeros",
    "Configured IP address %s must be a valid unicast ip address",
    "Interface %s with address %s & System IP %s cannot be same in vpn 0",
    "VRRP address cannot be the same as interface address",
    "VRRP group %x ip address must be in same subnet as interface ip address",
    "Interface %s with address %s & interface %s with %saddress %s cannot have overlapping subnets",
    "Interface %s with dhcp-address %s & interface %s with %saddress %s cannot have overlapping subnets",
    "Interface %s with secondary-address %s & interface %s with %saddress %s cannot have overlapping subnets",
    "Interface %s with address %s & Interface %s with address %s cannot have same subnet %s",
    "Interface %s with addresses %s & %s cannot have different subnets",
    # tunnels and the translation of addresses
    "Tunnel Destination IP-Address %s must be a valid unicast IP address",
    "Tunnel Source Interface %s needs to be configured first ",
    "Failed to get string element " + AGENT_ERROR,
    "GRE interface %s and %s have the same tunnel source interface and destination. Not allowed !",
    "GRE interface %s and %s have the same tunnel source and destination. Not allowed !",
    "Tunnel source IP address for Interface %s not present in vpn %ld",
    "Translated ip-address %s must be a valid unicast IP address",
    "Failed to get direction for the nat" + AGENT_ERROR,
    "natpool interface ip address is not set",
    "source-ip or translate-ip %s cannot be a .0  or a .255 address.",
    "Source address %s is not in the range of the interface ip prefix.",
    "Interface %s with address %s & translate-ip %s cannot be same",
    "NAT Overload cannot exist on an outside natpool interface.",
    # BGP
    "Default bgp context not present",
    "Invalid as-path string: %s",
    "as-path expression '%s' : %s",  # in the words of the routing daemon
    "Interface %s with address %s & BGP neighbor address %s cannot be same",
)

# A member of a bridge that is an interface of its own.
CONFIGURED = (
    "address", "dhcp-client", "dhcp-distance", "dhcp-helper", "interval", "retries", "tunnel-source", "tunnel-source-interface",
    "tunnel-destination", "ppp-interface", "ppp", "map-type", "tunnel-interface", "flow-control", "clear-dont-fragment", "pmtu",
    "mtu", "static-ingress-qos", "tcp-mss-adjust", "wpnt-extension", "mac-address", "speed", "duplex", "profile", "preference",
    "autonegotiate", "arp-timeout", "shaping-rate", "qos-map", "rewrite-rule", "ipv6 address", "ipv6 dhcp-client",
    "ipv6 dhcp-distance", "ipv6 dhcp-rapid-commit",
)

# The models' own rules, judged when a transaction is; each names the node.
MODEL = (
    "'%s' has to be set",
    "'%s' has to be chosen: none of its nodes is set",
    "'%s' has %d elements, at least %d are needed",
    "'%s' has %d elements, at most %d are allowed",
    "'%s' = \"%s\" refers to nothing that is there (%s)",
    "'%s' may not be there: it is for when \"%s\" only",
    "'%s': another entry has the same %s, which has to be unique",
)

# What is refused as it is typed; the line and the column stand before it.
TYPED = (
    "bad value '%s' for '%s': %s",
    "bad value for '%s': %s",
    "bad value '%s' for '%s' of '%s': %s",
    "a value for '%s' is missing: %s",
    "'%s' of '%s' is missing: %s",
    "'%s' does not exist",
    "'%s' has nothing to delete",
)

WILD = {"s": r".*", "d": r"-?\d+", "ld": r"-?\d+", "lu": r"\d+", "u": r"\d+", "x": r"[0-9a-f]+"}


def pattern_of(text):
    """The text as an expression; %s and its like as in printf."""
    parts = re.split(r"%(ld|lu|s|d|u|x)", text.strip())
    return re.compile("".join(WILD[part] if at % 2 else re.escape(part) for at, part in enumerate(parts)), re.DOTALL)


def table_make(texts):
    return [(pattern_of(text), text) for text in texts]


RULE_TABLE = table_make((*RULES, *(f"Interface is configured with {word} in VPN %ld" for word in CONFIGURED)))
MODEL_TABLE = table_make(MODEL)
TYPED_TABLE = table_make(TYPED)


def row_of(said, table):
    """The row with the most words of its own of those that tell the text."""
    found = [text for pattern, text in table if pattern.fullmatch(said)]
    return max(found, key=lambda text: len(re.sub("%l?[sdux]", "", text)), default=None)


def refusal_of(said, file_name, musts):
    """(kind, row): kind is "rule", "model", "typed", or None when nobody has promised the text. `musts` are the texts of
    the models' own conditions."""
    said = said.strip().removeprefix("cli: ").strip()
    at = re.match(re.escape(file_name) + r":\d+(?::\d+)?: ", said)
    if at:
        row = row_of(said[at.end():], TYPED_TABLE)
        return ("typed", row) if row else (None, None)
    row = row_of(said, RULE_TABLE)
    if row:
        return "rule", row
    condition = next((text for text in musts if re.fullmatch(rf"'[^']+'(?: = \".*\")?: {re.escape(text)}", said)), None)
    row = condition or row_of(said, MODEL_TABLE)
    return ("model", row) if row else (None, None)
