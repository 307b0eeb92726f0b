"""One connection of a client to a scripted server; see scripted_server.py for the answers."""

import base64
import hashlib
import socket
import ssl
import struct

RECORDED_BYTES = 64 * 1024
PIECE_BYTES = 64 * 1024
TLS_HANDSHAKE = b"\x16"


class Stopped(Exception):
    """The server is being stopped."""


class Closed(Exception):
    """The client has closed the connection."""


class Connection:
    """Served on a thread of its own."""

    def __init__(self, server, number, tcp):
        self.server = server
        self.number = number
        self.tcp = tcp
        self.stream = tcp
        self.buffer = b""

    def serve(self):
        try:
            settings = self.server.connectionSettings(self.number)
            mode = settings.get("mode", "tls")
            if mode == "silent":
                while self.tcp.recv(PIECE_BYTES):
                    pass
                return
            if mode == "tls" and not self.secure(settings):
                return
            while self.serveRequest():
                pass
        except (Closed, Stopped, OSError):
            pass
        except Exception as error:
            self.server.record({"event": "serverError", "reason": repr(error)})
            raise
        finally:
            self.close()

    def secure(self, settings):
        context = self.server.context(settings)
        try:
            self.stream = context.wrap_socket(self.tcp, server_side=True,
                                              suppress_ragged_eofs=False)
        except (OSError, ssl.SSLError) as error:
            self.server.record({"event": "handshakeFailed", "connection": self.number,
                                "reason": str(error)})
            return False
        self.server.record({"event": "secured", "connection": self.number,
                            "version": self.stream.version()})
        return True

    def close(self):
        for stream in {self.stream, self.tcp}:
            try:
                stream.close()
            except OSError:
                pass
        self.server.disconnected(self)

    def breakOff(self):
        """From another thread: makes everything that this connection waits for fail."""
        try:
            socket.socket.shutdown(self.stream, socket.SHUT_RDWR)
        except OSError:
            pass

    # Reading.

    def receive(self):
        try:
            data = self.stream.recv(PIECE_BYTES)
        except (ssl.SSLError, ValueError) as error:
            raise Closed from error
        if not data:
            raise Closed
        return data

    def readHead(self):
        while b"\r\n\r\n" not in self.buffer:
            self.buffer += self.receive()
            if self.buffer[:1] == TLS_HANDSHAKE:
                self.stream.sendall(b"HTTP/1.1 400 Bad Request\r\nConnection: close\r\n\r\n")
                raise Closed
        head, _, self.buffer = self.buffer.partition(b"\r\n\r\n")
        return head + b"\r\n\r\n"

    def readBody(self, request, length):
        """Reads up to `length` bytes of the body in all into the request's digest."""
        while request["bodyLength"] < length:
            if not self.buffer:
                self.buffer = self.receive()
            piece = self.buffer[:length - request["bodyLength"]]
            self.buffer = self.buffer[len(piece):]
            request["digest"].update(piece)
            request["bodyLength"] += len(piece)
            request["raw"] += piece[:max(0, RECORDED_BYTES - len(request["raw"]))]

    def serveRequest(self):
        head = self.readHead()
        lines = head.decode("latin-1").split("\r\n")
        method, target = (lines[0].split(" ") + ["", ""])[:2]
        announced = 0
        for line in lines[1:]:
            name, _, value = line.partition(":")
            if name.strip().lower() == "content-length":
                announced = int(value)
        request = {"method": method, "target": target, "raw": head, "bodyLength": 0,
                   "digest": hashlib.sha256()}
        answer = self.server.answer(method, target)
        if "holdBodyFor" in answer:
            self.server.wait(answer["holdBodyFor"])
        wanted = announced if answer.get("readBody", True) else 0
        try:
            self.readBody(request, min(wanted, answer.get("readBytes", announced)))
        finally:
            self.server.recordRequest(self, request, request["bodyLength"] == announced)
        return self.reply(answer, method)

    # Answering.

    def reply(self, answer, method):
        if "holdFor" in answer:
            self.server.wait(answer["holdFor"])
        self.send(answerPieces(answer, method), answer)
        then = answer.get("then", "close" if "cut" in answer else "keep")
        if then == "keep":
            return True
        if then == "drain":
            self.drain()
        if then in ("close", "drain") and isinstance(self.stream, ssl.SSLSocket):
            self.closeTLS()
        if then == "rst":
            # Closing with a linger time of nothing sends a reset.
            self.stream.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        return False

    def closeTLS(self):
        """Sends the TLS closing alert without waiting for the client's."""
        self.stream.settimeout(0)
        try:
            self.stream.unwrap()
        except (OSError, ValueError):
            pass

    def drain(self):
        self.buffer = b""
        try:
            while True:
                self.receive()
        except (Closed, OSError):
            pass

    def send(self, pieces, answer):
        position = 0
        left = answer.get("cut")
        pauseAt = answer.get("pauseAt")
        for piece in pieces:
            while piece:
                count = len(piece)
                if left is not None:
                    if left == 0:
                        return
                    count = min(count, left)
                if pauseAt is not None:
                    if position == pauseAt:
                        self.server.wait(answer["pauseFor"])
                        pauseAt = None
                    elif position < pauseAt:
                        count = min(count, pauseAt - position)
                if "dripSeconds" in answer:
                    begin = answer.get("dripFrom", 0)
                    if position >= begin:
                        count = 1
                        self.server.pause(answer["dripSeconds"])
                    else:
                        count = min(count, begin - position)
                if "pace" in answer:
                    every, seconds = answer["pace"]
                    if position and position % every == 0:
                        self.server.pause(seconds)
                    count = min(count, every - position % every)
                self.stream.sendall(piece[:count])
                piece = piece[count:]
                position += count
                if left is not None:
                    left -= count


def answerPieces(answer, method):
    """The bytes of a whole answer, piece by piece."""
    if "rawBase64" in answer:
        yield base64.b64decode(answer["rawBase64"])
        return
    if "raw" in answer:
        yield answer["raw"].encode("utf-8")
        return
    version = answer.get("version", "HTTP/1.1")
    for status in answer.get("interim", []):
        yield f"{version} {status} Interim\r\n\r\n".encode()
    status = answer.get("status", 200)
    head = f"{version} {status} {answer.get('reason', 'Scripted')}\r\n"
    for name, value in answer.get("headers", []):
        head += f"{name}: {value}\r\n"
    if answer.get("chunked"):
        head += "Transfer-Encoding: chunked\r\n"
    elif "length" in answer:
        if answer["length"] is not None:
            head += f"Content-Length: {answer['length']}\r\n"
    elif status not in (204, 304):
        head += f"Content-Length: {sum(map(len, bodyPieces(answer)))}\r\n"
    yield (head + "\r\n").encode("utf-8")
    if method == "HEAD":
        return
    if answer.get("chunked"):
        yield from chunks(answer)
    else:
        yield from bodyPieces(answer)


def chunks(answer):
    size = answer.get("chunkBytes", 16384)
    for piece in bodyPieces(answer):
        for start in range(0, len(piece), size):
            part = piece[start:start + size]
            yield f"{len(part):x}\r\n".encode() + part + b"\r\n"
    yield b"0\r\n\r\n"


def bodyPieces(answer):
    if "bodyBase64" in answer:
        yield base64.b64decode(answer["bodyBase64"])
    elif "fill" in answer:
        block = bytes(range(256)) * (PIECE_BYTES // 256)
        left = answer["fill"]
        while left > 0:
            yield block[:left]
            left -= len(block)
    elif "repeat" in answer:
        yield from repeated(answer["repeat"])
    else:
        yield answer.get("body", "").encode("utf-8")


def repeated(repeat):
    yield repeat.get("before", "").encode("utf-8")
    each = repeat["each"]
    for start in range(0, repeat["count"], 1000):
        numbers = range(start, min(start + 1000, repeat["count"]))
        yield "".join(each.replace("%d", str(number)) for number in numbers).encode("utf-8")
    yield repeat.get("after", "").encode("utf-8")
