#!/usr/bin/python3
"""In the guest: lists.py WAY CLIENTS SECONDS COUNT asks for the list of drives over so many
connections at once, each as soon as it has its reply, for so long or until there are so many
replies. WAY: quarryd ("list") or udisks2 (GetManagedObjects over the system bus). Prints, as JSON,
the seconds it took, each reply's seconds, and the bytes of one."""

import json
import selectors
import socket
import sys
import time


class Quarryd:
    def __init__(self):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.connect("\0quarryd")
        self.request = b"list\n"

    @staticmethod
    def is_whole(reply):
        if not reply.endswith(b"\n"):
            return False
        last = reply[reply.rfind(b"\n", 0, -1) + 1:]
        if last.startswith(b"ERR"):
            raise SystemExit(last.decode())
        return last.startswith(b"OK ")


class Udisks2:
    def __init__(self):
        from jeepney import DBusAddress, new_method_call
        from jeepney.io.blocking import open_dbus_connection

        connection = open_dbus_connection(bus="SYSTEM")
        connection.receive(timeout=10)  # the bus says which name it has given
        self.connection = connection    # which closes its socket when it goes
        self.socket = connection.sock
        address = DBusAddress("/org/freedesktop/UDisks2", "org.freedesktop.UDisks2",
                              "org.freedesktop.DBus.ObjectManager")
        self.request = new_method_call(address, "GetManagedObjects").serialise(serial=1000)

    @staticmethod
    def is_whole(reply):
        from jeepney.low_level import calc_msg_size

        if len(reply) < 16 or len(reply) < calc_msg_size(reply[:16]):
            return False
        if reply[1] != 2:  # not what the method returns
            raise SystemExit(repr(bytes(reply[:200])))
        return True


class Client:
    def __init__(self, way):
        self.peer = {"quarryd": Quarryd, "udisks2": Udisks2}[way]()
        self.asked = self.reply = None

    def ask(self):
        self.reply = bytearray()
        self.asked = time.perf_counter()
        self.peer.socket.sendall(self.peer.request)

    def read(self):
        """Seconds from request to reply when this was the last of it, else None."""
        got = self.peer.socket.recv(1 << 18)
        if not got:
            raise SystemExit("the connection was closed")
        self.reply += got
        if not self.peer.is_whole(self.reply):
            return None
        return time.perf_counter() - self.asked


def main():
    way, number, limit, count = sys.argv[1], int(sys.argv[2]), float(sys.argv[3]), int(sys.argv[4])
    selector = selectors.DefaultSelector()
    for _ in range(number):
        client = Client(way)
        selector.register(client.peer.socket, selectors.EVENT_READ, client)
    began = time.perf_counter()
    for key in selector.get_map().values():
        key.data.ask()
    taken, size = [], 0
    while len(taken) < count and time.perf_counter() - began < limit:
        for key, _ in selector.select(1):
            seconds = key.data.read()
            if seconds is not None:
                taken.append(seconds)
                size = len(key.data.reply)
                key.data.ask()
    print(json.dumps([time.perf_counter() - began, taken, size]))


if __name__ == "__main__":
    main()
