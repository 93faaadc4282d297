#!/usr/bin/python3
"""Announces many NBD servers by multicast DNS, as so many hosts would: each from an address of its own, each with
a delay of its own, and none that whoever asks has said he knows.

    announce.py INTERFACE-ADDRESS PORT NAME=ADDRESS…

An address that the host does not have is announced from INTERFACE-ADDRESS: a server that is gone.

Answers until it is killed; says "ready" on standard output when it listens.
"""

import heapq
import random
import select
import socket
import struct
import sys
import time

GROUP = ("224.0.0.251", 5353)
A, PTR, TXT, SRV = 1, 12, 16, 33
SERVICE = (b"_nbd", b"_tcp", b"local")


def encode(labels):
    return b"".join(bytes([len(label)]) + label for label in labels) + b"\0"


def record(owner, kind, data, unique):
    return encode(owner) + struct.pack(">HHIH", kind, 0x8001 if unique else 1, 120, len(data)) + data


def read_name(packet, at):
    """The labels at `at`, and where what follows them begins."""
    labels, end = [], None
    while packet[at] != 0:
        if packet[at] >= 0xC0:
            end = end or at + 2
            at = struct.unpack_from(">H", packet, at)[0] & 0x3FFF
        else:
            labels.append(packet[at + 1 : at + 1 + packet[at]])
            at += 1 + packet[at]
    return tuple(labels), end or at + 1


def read_query(packet):
    """The questions of a query, and the instances that whoever asks knows already."""
    _, flags, question_count, answer_count = struct.unpack_from(">HHHH", packet)
    questions, known, at = [], set(), 12
    if flags & 0x8000:
        return [], known
    for _ in range(question_count):
        name, at = read_name(packet, at)
        questions.append((name, struct.unpack_from(">H", packet, at)[0]))
        at += 4
    for _ in range(answer_count):
        name, at = read_name(packet, at)
        kind, length = struct.unpack_from(">H6xH", packet, at)
        at += 10
        if kind == PTR:
            known.add(read_name(packet, at)[0])
        at += length
    return questions, known


class Server:
    def __init__(self, name, address, port, interface):
        self.instance = (name.encode(), *SERVICE)
        self.host = (b"host-" + name.encode(), b"local")
        text = [b"uuid=00000000-0000-4000-8000-%012x" % int.from_bytes(socket.inet_aton(address)), b"label=" + name.encode()]
        self.pointer = record(SERVICE, PTR, encode(self.instance), False)
        self.service = record(self.instance, SRV, struct.pack(">HHH", 0, 0, port) + encode(self.host), True)
        self.text = record(self.instance, TXT, b"".join(bytes([len(each)]) + each for each in text), True)
        self.address = record(self.host, A, socket.inet_aton(address), True)
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.socket.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_TTL, 255)
        self.socket.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_LOOP, 0)
        try:
            self.socket.bind((address, 5353))
        except OSError:
            self.socket.bind((interface, 5353))

    def answers(self, questions, known):
        """The records that answer, those that will be asked for next behind them."""
        for name, kind in questions:
            if name == SERVICE and self.instance not in known:
                return [self.pointer], [self.service, self.text, self.address]
            if name == self.instance and kind in (SRV, TXT):
                return [self.service, self.text], [self.address]
            if name == self.host and kind == A:
                return [self.address], []
        return [], []

    def send(self, answers, more):
        header = struct.pack(">HHHHHH", 0, 0x8400, 0, len(answers), 0, len(more))
        self.socket.sendto(header + b"".join(answers + more), GROUP)


def main():
    interface, port, *named = sys.argv[1:]
    servers = [Server(*each.split("="), int(port), interface) for each in named]
    by_name = {}
    for server in servers:
        by_name[server.instance] = by_name[server.host] = server
    listener = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    listener.bind(GROUP)
    listener.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, socket.inet_aton(GROUP[0]) + socket.inet_aton(interface))
    print("ready", flush=True)
    waiting = []
    while True:
        timeout = max(0, waiting[0][0] - time.monotonic()) if waiting else None
        if select.select([listener], [], [], timeout)[0]:
            questions, known = read_query(listener.recv(9000))
            asked = servers if any(name == SERVICE for name, _ in questions) else {
                by_name[name] for name, _ in questions if name in by_name}
            for server in asked:
                answers, more = server.answers(questions, known)
                if answers:
                    due = time.monotonic() + random.uniform(0.02, 0.12)
                    heapq.heappush(waiting, (due, id(server), server, answers, more))
        while waiting and waiting[0][0] <= time.monotonic():
            _, _, server, answers, more = heapq.heappop(waiting)
            server.send(answers, more)


main()
