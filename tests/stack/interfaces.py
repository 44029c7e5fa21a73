"""Interfaces as data/interfaces describes them, and as a running service shows them."""

import importlib.util
import os
import sys
import xml.etree.ElementTree as ElementTree

from .stack import TREE

# What every object has, from the library.
STANDARD = {"org.freedesktop.DBus.Introspectable", "org.freedesktop.DBus.Peer", "org.freedesktop.DBus.Properties"}


def _bus_reference():
    """The program that reads the descriptions."""
    spec = importlib.util.spec_from_file_location("bus_reference", os.path.join(TREE, "docs", "bus_reference.py"))
    module = importlib.util.module_from_spec(spec)
    sys.modules[spec.name] = module
    spec.loader.exec_module(module)
    return module


def described():
    """Name -> what docs/bus_reference.py reads of the interface."""
    return {interface.name: interface for interface in _bus_reference().read_interfaces()}


def expected_members(interface):
    """The same as members_of(), of a described interface."""
    return {member.name: _member(member.kind, member.inputs, member.outputs, member.access)
            for member in interface.members}


def members_of(element):
    """Name -> kind, arguments, results, access; each argument is (name, type)."""
    found = {}
    for child in element:
        if child.tag == "annotation":
            continue
        name = child.get("name")
        assert name not in found, f"{element.get('name')}.{name} is there twice"
        arguments = [(argument.get("direction", "out" if child.tag == "signal" else "in"), argument.get("name"),
                      argument.get("type")) for argument in child.findall("arg")]
        results = [(argument, kind) for direction, argument, kind in arguments if direction == "out"]
        if child.tag == "property":
            results = [(name, child.get("type"))]
        found[name] = _member(child.tag, [(argument, kind) for direction, argument, kind in arguments
                                          if direction == "in"], results, child.get("access"))
    return found


def _member(kind, inputs, outputs, access):
    return {"kind": kind, "in": [tuple(argument) for argument in inputs],
            "out": [tuple(argument) for argument in outputs], "access": access}


def signatures(members):
    """Without the names of arguments, which nothing on the bus depends on."""
    return {name: {**member, **{key: "".join(kind for _, kind in member[key]) for key in ("in", "out")}}
            for name, member in members.items()}


def introspect(bus, service, path="/"):
    """Path -> interface -> members, of every object from path on, without the standard interfaces."""
    connection = bus.connect()
    try:
        return dict(_walk(connection, service, path))
    finally:
        connection.close()


def _walk(connection, service, path):
    text = connection.call_blocking(service, path, "org.freedesktop.DBus.Introspectable", "Introspect", "", ())
    tree = ElementTree.fromstring(str(text))
    interfaces = {element.get("name"): members_of(element) for element in tree.findall("interface")
                  if element.get("name") not in STANDARD}
    if interfaces:
        yield path, interfaces
    for child in tree.findall("node"):
        yield from _walk(connection, service, f"{path.rstrip('/')}/{child.get('name')}")
