"""Calls that show what goes over the bus as it is: signatures, and the types inside variants."""

import xml.etree.ElementTree

import dbus
import dbus.lowlevel

from stack.client import BusError
from stack.waiting import LIMIT


PREFIX = "org.kestrix.Procwarden."


def call(bus, service, object_name, member, *arguments, signature="", interface=None, prefix=PREFIX):
    """Returns (signature, arguments) of the reply; the arguments keep the bus's types."""
    name = prefix + object_name
    return call_path(bus, service, "/" + name.replace(".", "/"), interface or name, member, *arguments,
                     signature=signature)


def call_path(bus, service, path, interface, member, *arguments, signature=""):
    """The same for an object at any path."""
    message = dbus.lowlevel.MethodCallMessage(service, path, interface, member)
    message.append(*arguments, signature=signature)
    connection = bus.connect()
    try:
        reply = connection.send_message_with_reply_and_block(message, LIMIT)
    except dbus.DBusException as error:
        raise BusError(error.get_dbus_name(), error.get_dbus_message()) from None
    finally:
        connection.close()
    return str(reply.get_signature()), reply.get_args_list()


def types(details):
    """Key -> D-Bus type of the variant's content, of an a{sv}."""
    letters = {dbus.Int32: "i", dbus.UInt32: "u", dbus.String: "s", dbus.Boolean: "b"}
    return {str(key): "a" + str(value.signature) if isinstance(value, dbus.Array) else letters[type(value)]
            for key, value in details.items()}


def interface(bus, service, object_name, prefix=PREFIX, path=None):
    """Members of the object's own interface: "method Name(in) -> out", "signal Name(arguments)" and
    "property Name type access"."""
    name = prefix + object_name
    _, (text,) = call_path(bus, service, path or "/" + name.replace(".", "/"),
                           "org.freedesktop.DBus.Introspectable", "Introspect")
    tree = xml.etree.ElementTree.fromstring(text)
    members = []
    for node in tree.findall(f"interface[@name='{name}']/*"):
        if node.tag == "property":
            members.append(f"property {node.get('name')} {node.get('type')} {node.get('access')}")
            continue
        arguments = {"in": "", "out": ""}
        for argument in node.findall("arg"):
            arguments[argument.get("direction", "in")] += argument.get("type")
        joined = arguments["in"] + arguments["out"]
        members.append(f"signal {node.get('name')}({joined})" if node.tag == "signal"
                       else f"{node.tag} {node.get('name')}({arguments['in']}) -> {arguments['out']}")
    return members
