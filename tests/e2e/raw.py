"""Calls that show what goes over the bus as it is: signatures, and the types inside variants."""

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
