#!/usr/bin/env python3
"""A client of talvexvpnd without Qt, made from docs/protocol.md and docs/protocol-frames.md alone.
It asks for an endpoint, brings a tunnel up, keeps it for some seconds and takes it down:

    minimal_client.py HOST UDP-PORT CA-FILE CERT-FILE KEY-FILE
"""
import io
import pathlib
import select
import socket
import struct
import sys
import time

MAIN_SOCKET = "/tmp/local:TalvexFreeVpnIpcInterface"
IPC = ("IpcInterface", b"ad65198f84790423debe13cef807967b10723b23")
SERVICE = ("ServiceInterface", b"6e948fa9a606e1f9474e286989dc09c7b0b8b31b")
CREATE_PRIVILEGED_PROCESS, SERVER_SLOT, VPN_COMMAND = 0, 0, 1  # slots in their interfaces
INIT, ADD_OBJECT, INVOKE, REPLY, OBJECT_LIST = 2, 4, 6, 7, 9  # types of frames
HEARTBEAT = 10  # seconds; after 30 without one the daemon ends the tunnel
HOLD = 3  # seconds for which the tunnel is kept


def text(value):
    data = value.encode("utf-16-be")
    return struct.pack(">I", len(data)) + data


def record(host="", udp_port=0, ca="", cert="", key=""):
    head = struct.pack(">IBI", 1024, 0, 21) + b"VpnServerInformation\0"
    name, number, info = text(""), struct.pack(">i", -1), text("")
    ports = struct.pack(">ii", udp_port, 0)
    return (head + name + number + info + text(host) + number + text(ca) + text(key) + text(cert)
            + ports)


def read(stream, form):
    return struct.unpack(">" + form, stream.read(struct.calcsize(">" + form)))[-1]


def read_text(stream):
    size = read(stream, "I")
    return "" if size == 0xFFFFFFFF else stream.read(size).decode("utf-16-be")


def read_value(stream):
    kind, _ = read(stream, "I"), read(stream, "B")
    if kind == 2:
        return read(stream, "i")
    if kind == 10:
        return read_text(stream)
    stream.read(read(stream, "I"))  # the type's name: OperationResult
    return read(stream, "i?"), read_text(stream)


def peer_uid(connection):
    if sys.platform == "darwin":  # SOL_LOCAL, LOCAL_PEERCRED: version, user, groups
        return struct.unpack_from("II", connection.getsockopt(0, 1, 76))[1]
    return struct.unpack("iII", connection.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, 12))[1]


class Connection:
    def __init__(self, path, interface):
        self.name, signature = interface
        self.socket = socket.socket(socket.AF_UNIX)
        try:
            self.socket.connect(path)
        except OSError:
            sys.exit("the daemon is not running")
        if peer_uid(self.socket) != 0:  # everybody may make files in /tmp
            sys.exit("the socket is not root's")
        listed = text(self.name) + struct.pack(">I", len(signature)) + signature
        while listed not in self.expect(OBJECT_LIST).read():
            pass  # the first list of a new endpoint is empty
        self.send(ADD_OBJECT, b"\0")
        self.expect(INIT)

    def send(self, frame_type, content):
        frame = struct.pack(">H", frame_type) + text(self.name) + content
        self.socket.sendall(struct.pack(">I", len(frame)) + frame)

    def call(self, slot, *arguments, serial=-1):
        head = struct.pack(">iii", 0, slot, len(arguments))
        self.send(INVOKE, head + b"".join(arguments) + struct.pack(">ii", serial, -1))

    def receive(self, frame_type, seconds):
        """Returns what follows the type in the next frame of this type; None when none comes."""
        end = time.monotonic() + seconds
        while select.select([self.socket], [], [], max(0, end - time.monotonic()))[0]:
            size = self.socket.recv(4, socket.MSG_WAITALL)
            if len(size) < 4:
                sys.exit("the daemon closed the connection")
            frame = io.BytesIO(self.socket.recv(*struct.unpack(">I", size), socket.MSG_WAITALL))
            if read(frame, "H") == frame_type:
                return frame
        return None

    def expect(self, frame_type):
        return self.receive(frame_type, 5) or sys.exit("the daemon does not answer")

    def heartbeat(self):
        self.call(SERVER_SLOT, struct.pack(">IB?", 1, 0, True))

    def command(self, message, server):
        self.call(VPN_COMMAND, struct.pack(">IB", 10, 0) + text(message), server)

    def wait_for_answer(self, seconds):
        """Returns whether an answer came that reports success."""
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            answer = self.receive(INVOKE, min(end - time.monotonic(), HEARTBEAT))
            if answer:
                _, _ = read_text(answer), read(answer, "iii")  # name; the only signal there is
                message, (success, key) = read_value(answer), read_value(answer)
                print(message, str(success).lower(), key, flush=True)
                return success
            self.heartbeat()
        return False


def main():
    if len(sys.argv) != 6:
        sys.exit("usage: minimal_client.py HOST UDP-PORT CA-FILE CERT-FILE KEY-FILE")
    try:
        texts = [pathlib.Path(path).read_text("latin-1") for path in sys.argv[3:]]
    except OSError as error:
        sys.exit(f"cannot read {error.filename}")
    server = record(sys.argv[1], int(sys.argv[2]), *texts)
    try:
        ipc = Connection(MAIN_SOCKET, IPC)
        ipc.call(CREATE_PRIVILEGED_PROCESS, serial=1)
        reply = ipc.expect(REPLY)
        _, _, number = read_text(reply), read(reply, "i"), read_value(reply)  # name, serial
        if number < 0:
            sys.exit("the daemon makes no endpoint")
        vpn = Connection(f"{MAIN_SOCKET}_{number}", SERVICE)
        vpn.heartbeat()
        vpn.command('{"type":"connect","cmd":"ovpnUdp"}', server)
        connected = vpn.wait_for_answer(120)
        if connected:
            vpn.wait_for_answer(HOLD)
        # A failed attempt may have left openvpn running, so that too ends with a disconnect.
        vpn.command('{"type":"openvpn","cmd":"disconnect"}', record())
        vpn.wait_for_answer(120)
    except OSError:
        sys.exit("the daemon closed the connection")
    sys.exit(0 if connected else 1)


if __name__ == "__main__":
    main()
