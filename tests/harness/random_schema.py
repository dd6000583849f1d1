"""The configuration that the device's models describe, as a tree: what the random configurations are made from.

yanglint turns each module into its XML form; groupings, uses and typedefs are resolved here, choices and cases are left
out as they are in a path. Nodes of operational data, actions and notifications are left out too.
"""

import subprocess
import xml.etree.ElementTree
from dataclasses import dataclass, field
from pathlib import Path

YIN = "{urn:ietf:params:xml:ns:yang:yin:1}"
INTEGERS = {f"{sign}int{bits}": (-(1 << bits - 1) if not sign else 0, (1 << bits - (0 if sign else 1)) - 1)
            for sign in ("", "u") for bits in (8, 16, 32, 64)}


class Unknown(Exception):
    """A model says something that is not understood here; the text names it."""


@dataclass
class Type:
    base: str                                   # the built-in type, or a typedef of a module that is not here
    names: tuple = ()                           # typedefs on the way, the outermost first, without prefixes
    ranges: tuple = ()                          # (from, to) of an integer
    length: tuple = None                        # (least, most) of a text
    words: tuple = ()                           # names of an enumeration or of bits
    members: tuple = ()                         # types of a union
    target: tuple = ()                          # names on the way to the leaf whose values a reference takes


@dataclass
class Node:
    kind: str                                   # container, list, leaf, leaf-list
    name: str
    module: str
    prefix: str
    parent: object = None
    children: dict = field(default_factory=dict)    # by the word that the CLI knows them by
    keys: tuple = ()
    type: Type = None
    is_mandatory: bool = False
    is_presence: bool = False
    least: int = 0
    choice: str = None                          # of which this node is one way
    musts: tuple = ()                           # texts of the rules that stand here

    def path(self):
        return (*self.parent.path(), self.name) if self.parent else ()

    def required(self):
        """Children that an entry or a container cannot be without."""
        return [child for child in self.children.values()
                if child.name not in self.keys and (child.is_mandatory or child.least)]


def value_of(element, tag, attribute="value", otherwise=None):
    found = element.find(YIN + tag)
    return otherwise if found is None else found.get(attribute)


def text_of(element, tag):
    found = element.find(f"{YIN}{tag}/{YIN}value")
    return None if found is None else found.text


class Module:
    """One model: its definitions by name, and the modules behind its prefixes."""

    def __init__(self, root):
        self.root, self.name = root, root.get("name")
        self.prefix = value_of(root, "prefix")
        self.imports = {value_of(item, "prefix"): item.get("module") for item in root.findall(YIN + "import")}
        self.groupings = {item.get("name"): item for item in root.iter(YIN + "grouping")}
        self.typedefs = {item.get("name"): item for item in root.iter(YIN + "typedef")}


def modules_read(folder):
    for path in sorted(Path(folder).glob("*.yang")):
        done = subprocess.run(["yanglint", "-f", "yin", "-p", str(folder), str(path)], capture_output=True, check=True)
        yield Module(xml.etree.ElementTree.fromstring(done.stdout))


def parts_of(text, otherwise):
    """"1..5 | 7" as pairs of numbers; min and max are those of the type below."""
    pairs = []
    for part in text.split("|"):
        ends = [{"min": otherwise[0][0], "max": otherwise[-1][1]}.get(end.strip(), end) for end in part.split("..")]
        pairs.append((int(ends[0]), int(ends[-1])))
    return tuple(pairs)


class Reader:
    def __init__(self, modules):
        self.modules = {module.name: module for module in modules}

    def tree(self):
        root = Node("container", "", "", "")
        for module in self.modules.values():
            self.children_add(root, module, module.root, None)
        for module in self.modules.values():
            self.augments_add(root, module, module.root)
        return root

    def augments_add(self, node, module, element):
        """The augments that stand in a module or in a uses; the node is what their targets start from."""
        for augment in element.findall(YIN + "augment"):
            self.augment_add(node, module, augment)

    def augment_add(self, node, module, element):
        for step in element.get("target-node").strip("/").split("/"):
            found = [child for child in node.children.values() if child.name == step.split(":")[-1]]
            if not found:
                return  # operational data, or an action's parameters
            node = found[0]
        self.children_add(node, module, element, None)

    def found(self, module, name, table):
        """The definition, and the module that it stands in; None when that one is not here."""
        prefix, _, plain = name.rpartition(":")
        owner = module if prefix in ("", module.prefix) else self.modules.get(module.imports[prefix])
        return (owner, getattr(owner, table)[plain]) if owner and plain in getattr(owner, table) else (None, None)

    def children_add(self, parent, module, element, choice):
        for item in element:
            tag = item.tag.removeprefix(YIN)
            if tag == "uses":
                owner, grouping = self.found(module, item.get("name"), "groupings")
                if grouping is None:
                    raise Unknown(f"{module.name} uses {item.get('name')}, which is not there")
                self.children_add(parent, owner, grouping, choice)
                self.augments_add(parent, module, item)
            elif tag == "choice":
                self.children_add(parent, module, item, item.get("name"))
            elif tag == "case":
                self.children_add(parent, module, item, choice)
            elif tag in ("container", "list", "leaf", "leaf-list") and value_of(item, "config") != "false":
                self.node_add(parent, module, item, tag, choice)

    def node_add(self, parent, module, item, kind, choice):
        node = Node(kind, item.get("name"), module.name, module.prefix, parent, choice=choice)
        node.keys = tuple((value_of(item, "key") or "").split())
        node.is_mandatory = value_of(item, "mandatory") == "true"
        node.is_presence = item.find(YIN + "presence") is not None
        node.least = int(value_of(item, "min-elements") or 0)
        node.musts = tuple(text_of(must, "error-message") for must in item.findall(YIN + "must"))
        if kind in ("leaf", "leaf-list"):
            node.type = self.type_of(module, item.find(YIN + "type"))
        else:
            self.children_add(node, module, item, None)
            if kind == "container" and not node.children and not node.is_presence:
                return
        other = parent.children.get(node.name)
        if other is not None:  # of another module: both are told apart by their prefixes
            parent.children[f"{other.prefix}:{other.name}"] = parent.children.pop(node.name)
        parent.children[node.name if other is None else f"{node.prefix}:{node.name}"] = node

    def type_of(self, module, element):
        name = element.get("name")
        owner, typedef = self.found(module, name, "typedefs")
        plain = name.split(":")[-1]
        if typedef is not None:
            inner = self.type_of(owner, typedef.find(YIN + "type"))
            inner.names = (plain, *inner.names)
        elif ":" in name:
            inner = Type("unknown", (plain,))
        else:
            ranges = (INTEGERS[name],) if name in INTEGERS else ()
            inner = Type(name, ranges=ranges)
        if value_of(element, "range"):
            inner.ranges = parts_of(value_of(element, "range"), inner.ranges)
        if value_of(element, "length"):
            parts = parts_of(value_of(element, "length"), ((0, 4096),))
            inner.length = (parts[0][0], parts[-1][1])
        words = tuple(word.get("name") for tag in ("enum", "bit") for word in element.findall(YIN + tag))
        inner.words = words or inner.words
        inner.members = tuple(self.type_of(module, member) for member in element.findall(YIN + "type")) or inner.members
        steps = (value_of(element, "path") or "").strip("/").split("/")
        inner.target = tuple(step.split(":")[-1] for step in steps if step) or inner.target
        return inner


def schema_read(folder):
    return Reader(modules_read(folder)).tree()


def nodes_below(node):
    for child in node.children.values():
        yield child
        yield from nodes_below(child)


def follow(root, words):
    """The steps of a path: (node, words from its name to the end of its keys). Ends at a leaf, whatever follows it."""
    node, at, steps = root, 0, []
    while at < len(words) and node.kind not in ("leaf", "leaf-list"):
        node = node.children.get(words[at]) or node.children.get(words[at].split(":")[-1])
        if node is None:
            raise Unknown(f"no '{words[at]}' in the models: {' '.join(words)}")
        size = 1 + len(node.keys)
        steps.append((node, tuple(words[at:at + size])))
        at += size
    return steps
