"""A TLS server on 127.0.0.1 on the functions of OpenSSL itself, for what Python's own module cannot
do: suites that are no good, floods of messages, renegotiation, and a record of every byte.

    with TLSServer(terms, behave) as server: ... server.port, server.connections

`behave(connection)` runs on a thread for each connection. What a connection received is kept, and
says what the client gave away.
"""

import contextlib
import ctypes
import socket
import struct
import threading

PIECE_BYTES = 64 * 1024

CHANGE_CIPHER, ALERT, HANDSHAKE, APPLICATION = 20, 21, 22, 23
CLIENT_HELLO, HELLO_REQUEST, SERVER_HELLO = 1, 0, 2
ALPN, SESSION_TICKET, PRE_SHARED_KEY, EARLY_DATA, VERSIONS, LATER_AUTHENTICATION = (
    16, 35, 41, 42, 43, 49)
TLS_1_0, TLS_1_1, TLS_1_2, TLS_1_3 = 0x0301, 0x0302, 0x0303, 0x0304

# From OpenSSL's headers.
PEM, WANT_READ = 1, 2
SET_MINIMUM, SET_MAXIMUM = 123, 124
VERIFY_PEER = 1
KEY_UPDATE_NOT_REQUESTED, KEY_UPDATE_REQUESTED = 0, 1

_ssl = ctypes.CDLL("libssl.so.3")
_crypto = ctypes.CDLL("libcrypto.so.3")


def _declare(library, name, result, *arguments):
    function = getattr(library, name)
    function.restype, function.argtypes = result, arguments
    return function


_P, _I, _L, _S = ctypes.c_void_p, ctypes.c_int, ctypes.c_long, ctypes.c_char_p
_METHOD = _declare(_ssl, "TLS_server_method", _P)
_NEW_CONTEXT = _declare(_ssl, "SSL_CTX_new", _P, _P)
_FREE_CONTEXT = _declare(_ssl, "SSL_CTX_free", None, _P)
_CONTROL = _declare(_ssl, "SSL_CTX_ctrl", _L, _P, _I, _L, _P)
_SUITES = _declare(_ssl, "SSL_CTX_set_cipher_list", _I, _P, _S)
_LEVEL = _declare(_ssl, "SSL_CTX_set_security_level", None, _P, _I)
_CHAIN = _declare(_ssl, "SSL_CTX_use_certificate_chain_file", _I, _P, _S)
_KEY = _declare(_ssl, "SSL_CTX_use_PrivateKey_file", _I, _P, _S, _I)
_EARLY = _declare(_ssl, "SSL_CTX_set_max_early_data", _I, _P, ctypes.c_uint32)
_VERIFY = _declare(_ssl, "SSL_CTX_set_verify", None, _P, _I, _P)
_NEW = _declare(_ssl, "SSL_new", _P, _P)
_FREE = _declare(_ssl, "SSL_free", None, _P)
_BIOS = _declare(_ssl, "SSL_set_bio", None, _P, _P, _P)
_ACCEPTS = _declare(_ssl, "SSL_set_accept_state", None, _P)
_SHAKE = _declare(_ssl, "SSL_do_handshake", _I, _P)
_READ = _declare(_ssl, "SSL_read", _I, _P, _S, _I)
_WRITE = _declare(_ssl, "SSL_write", _I, _P, _S, _I)
_SHUTDOWN = _declare(_ssl, "SSL_shutdown", _I, _P)
_ERROR = _declare(_ssl, "SSL_get_error", _I, _P, _I)
_UPDATE = _declare(_ssl, "SSL_key_update", _I, _P, _I)
_TICKET = _declare(_ssl, "SSL_new_session_ticket", _I, _P)
_RENEGOTIATE = _declare(_ssl, "SSL_renegotiate", _I, _P)
_REUSED = _declare(_ssl, "SSL_session_reused", _I, _P)
_MEMORY = _declare(_crypto, "BIO_s_mem", _P)
_NEW_BIO = _declare(_crypto, "BIO_new", _P, _P)
_TAKE = _declare(_crypto, "BIO_read", _I, _P, _S, _I)
_PUT = _declare(_crypto, "BIO_write", _I, _P, _S, _I)
_FORGET_ERRORS = _declare(_crypto, "ERR_clear_error", None)


class Closed(Exception):
    """The client has ended the connection, or one side has refused the other."""


class Terms:
    """What a server offers. Without a certificate it is anonymous."""

    def __init__(self, chain=None, key=None, lowest=TLS_1_2, highest=TLS_1_3, suites=None,
                 early_data=0, asks_for_certificate=False):
        self.context = _NEW_CONTEXT(_METHOD())
        _LEVEL(self.context, 0)
        assert _CONTROL(self.context, SET_MINIMUM, lowest, None) == 1
        assert _CONTROL(self.context, SET_MAXIMUM, highest, None) == 1
        assert _SUITES(self.context, (suites or "ALL:@SECLEVEL=0").encode()) == 1
        if chain:
            self.change_certificate(chain, key)
        if early_data:
            assert _EARLY(self.context, early_data) == 1
        if asks_for_certificate:
            _VERIFY(self.context, VERIFY_PEER, None)

    def __del__(self):
        _FREE_CONTEXT(self.context)

    def change_certificate(self, chain, key):
        """For new connections; the keys of tickets stay."""
        assert _CHAIN(self.context, chain.encode()) == 1
        assert _KEY(self.context, key.encode(), PEM) == 1


class Connection:
    """One connection of a client; belongs to the thread that serves it, but for what it kept."""

    def __init__(self, tcp, terms):
        self.tcp = tcp
        self.terms = terms
        self.received = b""     # as it came
        self.plain = b""        # what of it was application data, decrypted
        self.secured = False
        self.ended = False      # the client has closed its side
        self.problem = None     # of the thread that serves it
        self.session = _NEW(terms.context)
        self.input, self.output = _NEW_BIO(_MEMORY()), _NEW_BIO(_MEMORY())
        _BIOS(self.session, self.input, self.output)
        _ACCEPTS(self.session)
        self.buffer = ctypes.create_string_buffer(PIECE_BYTES)

    # The wire.

    def send_raw(self, data):
        try:
            self.tcp.sendall(data)
        except OSError as error:
            raise Closed from error

    def receive_raw(self):
        try:
            data = self.tcp.recv(PIECE_BYTES)
        except OSError as error:
            raise Closed from error
        if not data:
            self.ended = True
            raise Closed
        self.received += data
        return data

    def receive_to_the_end(self):
        with contextlib.suppress(Closed):
            while True:
                self.receive_raw()

    def flush(self):
        while (count := _TAKE(self.output, self.buffer, PIECE_BYTES)) > 0:
            self.send_raw(self.buffer.raw[:count])

    def _until(self, act):
        """Repeats `act` while it wants input, and gives its positive result."""
        while True:
            _FORGET_ERRORS()
            result = act()
            self.flush()
            if result > 0:
                return result
            if _ERROR(self.session, result) != WANT_READ:
                raise Closed
            data = self.receive_raw()
            _PUT(self.input, data, len(data))

    # What a server does.

    def secure(self):
        self._until(lambda: _SHAKE(self.session))
        self.secured = True

    def is_resumed(self):
        return _REUSED(self.session) == 1

    def read(self):
        count = self._until(lambda: _READ(self.session, self.buffer, PIECE_BYTES))
        data = self.buffer.raw[:count]
        self.plain += data
        return data

    def read_head(self):
        head = b""
        while b"\r\n\r\n" not in head:
            head += self.read()
        return head

    def write(self, data):
        self._until(lambda: _WRITE(self.session, data, len(data)))

    def answer(self, body=b"", status=207):
        self.write(b"HTTP/1.1 %d Scripted\r\nContent-Length: %d\r\n\r\n" % (status, len(body))
                   + body)

    def close(self):
        _SHUTDOWN(self.session)
        self.flush()
        self.tcp.shutdown(socket.SHUT_RDWR)

    def queue_key_update(self, answered):
        """Not sent before `flush` or the next write."""
        kind = KEY_UPDATE_REQUESTED if answered else KEY_UPDATE_NOT_REQUESTED
        assert _UPDATE(self.session, kind) == 1
        assert _SHAKE(self.session) == 1

    def queue_ticket(self):
        assert _TICKET(self.session) == 1
        assert _SHAKE(self.session) == 1

    def ask_to_renegotiate(self):
        assert _RENEGOTIATE(self.session) == 1
        _SHAKE(self.session)
        self.flush()

    def free(self):
        self.tcp.close()
        _FREE(self.session)

    # What the client gave away.

    def records(self):
        """(type, contents) of the records that came."""
        found, rest = [], self.received
        while len(rest) >= 5:
            kind, _, length = struct.unpack("!BHH", rest[:5])
            found.append((kind, rest[5:5 + length]))
            rest = rest[5 + length:]
        return found

    def hello(self):
        return ClientHello(self.records()[0][1])


class ClientHello:
    """The members of the message that a client begins with."""

    def __init__(self, message):
        assert message[0] == CLIENT_HELLO
        body = message[4:]
        at = 2 + 32
        self.session = body[at + 1:at + 1 + body[at]]
        at += 1 + body[at]
        count, = struct.unpack_from("!H", body, at)
        self.suites = [suite for suite, in struct.iter_unpack("!H", body[at + 2:at + 2 + count])]
        at += 2 + count
        self.compressions = list(body[at + 1:at + 1 + body[at]])
        at += 1 + body[at] + 2
        self.extensions = {}
        while at < len(body):
            kind, length = struct.unpack_from("!HH", body, at)
            self.extensions[kind] = body[at + 4:at + 4 + length]
            at += 4 + length

    def versions(self):
        return {version for version, in struct.iter_unpack("!H", self.extensions[VERSIONS][1:])}


class TLSServer:
    """Serves every connection with `behave`, on the terms of `terms` at that time."""

    def __init__(self, terms, behave):
        self.terms = terms
        self.behave = behave
        self.connections = []
        self.changed = threading.Condition()
        self.threads = []
        self.listener = socket.create_server(("127.0.0.1", 0), backlog=128)
        self.port = self.listener.getsockname()[1]

    def __enter__(self):
        self.acceptor = threading.Thread(target=self._accept, daemon=True)
        self.acceptor.start()
        return self

    def __exit__(self, *_):
        with contextlib.suppress(OSError):
            self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()
        self.acceptor.join()
        for connection in self.connections:
            with contextlib.suppress(OSError):
                connection.tcp.shutdown(socket.SHUT_RDWR)
        for thread in self.threads:
            thread.join()
        for connection in self.connections:
            connection.free()

    def _accept(self):
        while True:
            try:
                tcp, _ = self.listener.accept()
            except OSError:
                return
            connection = Connection(tcp, self.terms)
            with self.changed:
                self.connections.append(connection)
            thread = threading.Thread(target=self._serve, args=(connection,), daemon=True)
            self.threads.append(thread)
            thread.start()

    def _serve(self, connection):
        try:
            with contextlib.suppress(Closed):
                self.behave(connection)
        except BaseException as problem:
            connection.problem = problem
            raise
        finally:
            # A client that was refused still may send, and that is what counts.
            connection.receive_to_the_end()
            with self.changed:
                connection.ended = True
                self.changed.notify_all()

    def wait_ended(self, count, seconds=120):
        """The connections, once that many have come and all have ended."""
        with self.changed:
            done = self.changed.wait_for(
                lambda: len(self.connections) >= count
                and all(connection.ended for connection in self.connections), seconds)
        assert done, [vars(connection) for connection in self.connections]
        assert [connection.problem for connection in self.connections] == \
            [None] * len(self.connections)
        return self.connections


def serve_listing(connection, body):
    """Answers every request with the same multistatus body."""
    connection.secure()
    while True:
        connection.read_head()
        connection.answer(body)
