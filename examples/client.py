#!/usr/bin/env python3
"""A client of orvbrokerd in Python, with nothing but the standard library.

client.py call NAME [DATA]     prints the answer's data
client.py subscribe EVENT      prints each event, until it is interrupted
"""

import json
import socket
import struct
import sys

NAME = "\0orvbrokerd-1.3.skt"  # the NUL byte makes the name an abstract one


def fail(status, text):
    print(text, file=sys.stderr)
    sys.exit(status)


def parse(data):
    try:
        return json.loads(data)
    except ValueError as error:
        return fail(2, "DATA is not JSON: %s" % error)


def receive(stream):
    """One frame: a length in the machine's byte order, and that many bytes of text."""
    length = stream.read(4)
    text = stream.read(struct.unpack("=I", length)[0]) if len(length) == 4 else b""
    return text.decode() if text else fail(3, "the daemon has closed the connection")


def request(stream, **members):
    """One request, one answer. The next request must wait for the answer to this one."""
    stream.write(json.dumps(members).encode() + b"\n")
    stream.flush()
    answer = json.loads(receive(stream))
    return answer["data"] if answer["status"] == 0 else fail(1, json.dumps(answer["data"]))


def main(action, name, *data):
    connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    try:
        connection.connect(NAME)
    except OSError as error:
        fail(3, "orvbrokerd: %s" % error)
    stream = connection.makefile("rwb")
    if action == "call":
        members = {"data": parse(data[0])} if any(data) else {}
        print(json.dumps(request(stream, type="command", name=name, **members)))
        return
    request(stream, type="subscribe", name=name)
    while True:
        print(receive(stream), flush=True)


if sys.argv[1:2] not in (["call"], ["subscribe"]) or len(sys.argv) not in (3, 4):
    fail(2, __doc__)
main(*sys.argv[1:])
