"""Servers that attack the connection itself. What counts is what the server received: a server that
is not the pinned one gets no byte of a request, and the pinned one gets it on good terms only."""

import os
import struct
import threading

import pytest

import baits
import tls_server
from conftest import write_bridge
from driver import ROOT, URL, Drive, error_of, run
from multistatus import multistatus, response
from server_certificates import Certificates
from tls_server import (ALERT, ALPN, APPLICATION, CHANGE_CIPHER, EARLY_DATA, HANDSHAKE,
                        HELLO_REQUEST, LATER_AUTHENTICATION, PRE_SHARED_KEY, SERVER_HELLO,
                        SESSION_TICKET, TLS_1_0, TLS_1_1, TLS_1_2, TLS_1_3, Closed,
                        Terms, TLSServer, serve_listing)

CANCELLED = (URL, -999)
TIMED_OUT = (URL, -1001)
LOST = (URL, -1005)
NOT_SECURE = (URL, -1200)
LISTING = multistatus(response("/a", size=1, etag='"1"'))["body"].encode()
# An alert in version 1.3: level, description, the hidden type, and the seal.
SEALED_ALERT_BYTES = 2 + 1 + 16
NULL_SUITES = "eNULL:@SECLEVEL=0"
ANONYMOUS_SUITES = "aNULL:@SECLEVEL=0"


class Place:
    """Certificates, a container, and a directory for temporary files."""

    def __init__(self, directory):
        self.directory = directory
        self.temporary = directory / "temporary"
        self.temporary.mkdir()
        (directory / "certificates").mkdir()
        self.certificates = Certificates(directory / "certificates")
        self.container = directory / "container"

    def terms(self, names="pinned", **members):
        return Terms(*self.certificates.chain(names.split("+")), **members)

    def serve(self, terms, behave=lambda connection: serve_listing(connection, LISTING)):
        server = TLSServer(terms, behave)
        write_bridge(self.container, server.port, self.certificates.pem("pinned"))
        return server

    def environment(self, extra=None):
        return {"TMPDIR": str(self.temporary), **(extra or {})}

    def drive(self, env=None):
        return Drive(self.container, env=self.environment(env))

    def run(self, *arguments, env=None, **options):
        return run(*arguments, container=self.container, env=self.environment(env), **options)

    def list_once(self, env=None):
        """The reply to one listing of the root, and the driver's highest memory in bytes."""
        with self.drive(env) as drive:
            reply = drive.call("enumerateItems", identifier=ROOT)
            return reply, highest_memory(drive.process.pid)


@pytest.fixture
def place(tmp_path):
    return Place(tmp_path)


def highest_memory(pid):
    with open(f"/proc/{pid}/status", encoding="ascii") as file:
        for line in file:
            if line.startswith("VmHWM:"):
                return int(line.split()[1]) * 1024
    raise AssertionError("the process has no memory")


def assert_gave_nothing(connection):
    """The client sent the messages of a handshake and of its refusal, and nothing else."""
    assert connection.plain == b""
    kinds = [kind for kind, _ in connection.records()]
    assert set(kinds) <= {HANDSHAKE, ALERT, CHANGE_CIPHER, APPLICATION}, kinds
    # In version 1.3 a sealed alert looks like application data, and ends what the client sends.
    sealed = [contents for kind, contents in connection.records() if kind == APPLICATION]
    assert [len(contents) for contents in sealed] in ([], [SEALED_ALERT_BYTES]), kinds
    if sealed:
        assert kinds[-1] == APPLICATION
    for secret in (b"Authorization", b"PROPFIND", b"Basic ", b"HTTP/"):
        assert secret not in connection.received


# ---- servers that are not the pinned one ---------------------------------------------------------


@pytest.mark.parametrize("version", [TLS_1_2, TLS_1_3])
@pytest.mark.parametrize("names", ["other", "other+pinned", "samekey", "samekey+pinned",
                                   "issued", "issued+pinned"])
def test_no_other_leaf_gets_a_byte_of_a_request(place, names, version):
    with place.serve(place.terms(names, lowest=version, highest=version)) as server:
        reply, _ = place.list_once()
        assert error_of(reply) == CANCELLED
        for connection in server.wait_ended(1):
            assert_gave_nothing(connection)
            assert not connection.secured


@pytest.mark.parametrize("version", [TLS_1_2, TLS_1_3])
@pytest.mark.parametrize("names", ["other", "samekey"])
def test_no_session_is_resumed_when_the_certificate_has_changed(place, names, version):
    before = place.terms(lowest=version, highest=version)

    def behave(connection):
        connection.secure()
        connection.read_head()
        connection.answer(LISTING)
        connection.close()

    with place.serve(before, behave) as server, place.drive() as drive:
        assert drive.call("enumerateItems", identifier=ROOT)["error"] is None
        server.wait_ended(1)
        # The same context still opens the tickets that it has given.
        certificate, key = place.certificates.paths(names)
        before.change_certificate(certificate, key)
        assert error_of(drive.call("enumerateItems", identifier=ROOT)) == CANCELLED
        first, second = server.wait_ended(2)
        assert b"PROPFIND" in first.plain
        assert_gave_nothing(second)
        for extension in (PRE_SHARED_KEY, EARLY_DATA):
            assert extension not in second.hello().extensions
        assert not second.hello().extensions.get(SESSION_TICKET)
        assert not second.is_resumed()


@pytest.mark.parametrize("version", [TLS_1_2, TLS_1_3])
def test_a_wish_for_a_client_certificate_ends_the_handshake(place, version):
    terms = place.terms(lowest=version, highest=version, asks_for_certificate=True)
    with place.serve(terms) as server:
        reply, _ = place.list_once()
        assert error_of(reply) == CANCELLED
        for connection in server.wait_ended(1):
            assert_gave_nothing(connection)


@pytest.mark.parametrize("version", [TLS_1_0, TLS_1_1])
def test_outdated_versions_get_no_request(place, version):
    with place.serve(place.terms(lowest=version, highest=version)) as server:
        reply, _ = place.list_once()
        assert error_of(reply) == NOT_SECURE
        for connection in server.wait_ended(1):
            assert_gave_nothing(connection)


@pytest.mark.parametrize("suites", [NULL_SUITES, ANONYMOUS_SUITES, "aNULL+eNULL:@SECLEVEL=0"])
def test_suites_without_a_cipher_or_a_certificate_get_no_request(place, suites):
    terms = (Terms if suites.startswith("aNULL") else place.terms)(
        lowest=TLS_1_2, highest=TLS_1_2, suites=suites)
    with place.serve(terms) as server:
        reply, _ = place.list_once()
        assert error_of(reply) == NOT_SECURE
        for connection in server.wait_ended(1):
            assert_gave_nothing(connection)


@pytest.mark.parametrize("command", [("ls",), ("put", "{file}", "/Home/a"), ("get", "/a", "-")])
def test_a_stranger_on_the_port_gets_a_hello_and_nothing_else(place, command):
    heard = []

    def listen(connection):
        with pytest.raises(Closed):
            while True:
                heard.append(connection.receive_raw())
                # What is no TLS ends the handshake.
                connection.send_raw(b"220 welcome\r\n")

    source = place.directory / "source"
    source.write_bytes(b"contents")
    with place.serve(Terms(), listen) as server:
        result = place.run(*(word.format(file=source) for word in command))
        assert result.returncode == 1
        for connection in server.wait_ended(1):
            assert [kind for kind, _ in connection.records()][0] == HANDSHAKE
            assert {kind for kind, _ in connection.records()[1:]} <= {ALERT}
            assert_gave_nothing(connection)
            assert b"contents" not in connection.received


# ---- what the client offers ----------------------------------------------------------------------

# Forward secrecy and a cipher: what RFC 8446 names, and of version 1.2 ECDHE and DHE with AES in
# GCM or ChaCha20, and ECDHE with AES in CBC. The last one says that renegotiation is understood.
GOOD_SUITES = {0x1301, 0x1302, 0x1303,
               0xC02B, 0xC02C, 0xC02F, 0xC030, 0xCCA9, 0xCCA8, 0x009E, 0x009F, 0xCCAA,
               0xC009, 0xC00A, 0xC013, 0xC014, 0xC023, 0xC024, 0xC027, 0xC028,
               0x00FF}


def hostile_configuration(directory):
    """The path of a configuration that allows everything."""
    path = directory / "openssl.cnf"
    path.write_text("openssl_conf = all\n[all]\nssl_conf = ssl\n[ssl]\nsystem_default = weak\n"
                    "[weak]\nMinProtocol = TLSv1\nMaxProtocol = TLSv1.2\n"
                    "CipherString = ALL:eNULL:aNULL:@SECLEVEL=0\n"
                    "Options = UnsafeLegacyRenegotiation,SessionTicket,Compression\n")
    return {"OPENSSL_CONF": str(path)}


@pytest.mark.parametrize("hostile", [False, True])
def test_the_hello_names_good_terms_only_whatever_the_environment_says(place, hostile):
    env = hostile_configuration(place.directory) if hostile else None
    with place.serve(place.terms()) as server:
        reply, _ = place.list_once(env)
        assert reply["error"] is None
        hello = server.wait_ended(1)[0].hello()
    assert set(hello.suites) <= GOOD_SUITES
    assert {0x1301, 0xC02B, 0xC02F} <= set(hello.suites)
    assert hello.versions() == {TLS_1_2, TLS_1_3}
    assert hello.compressions == [0]
    for extension in (ALPN, PRE_SHARED_KEY, EARLY_DATA, LATER_AUTHENTICATION):
        assert extension not in hello.extensions


COMMANDS = [("ls",), ("ls", "-R"), ("stat", "/a"), ("get", "/a", "-"), ("put", "{file}", "/Home/b"),
            ("mkdir", "/Home/b"), ("mv", "/Home/a", "/Home/b"), ("rm", "/Home/a"), ("doctor",)]


@pytest.mark.parametrize("anonymous", [False, True])
@pytest.mark.parametrize("command", COMMANDS, ids=" ".join)
def test_no_command_takes_weak_suites_from_the_environment(place, command, anonymous):
    terms = (Terms if anonymous else place.terms)(
        lowest=TLS_1_2, highest=TLS_1_2, suites=ANONYMOUS_SUITES if anonymous else NULL_SUITES)
    source = place.directory / "source"
    source.write_bytes(b"contents")
    with place.serve(terms) as server:
        result = place.run(*(word.format(file=source) for word in command),
                           env=hostile_configuration(place.directory))
        assert result.returncode != 0
        for connection in server.wait_ended(1):
            assert_gave_nothing(connection)


def test_the_driver_takes_no_weak_suites_from_the_environment(place):
    terms = place.terms(lowest=TLS_1_2, highest=TLS_1_2, suites=NULL_SUITES)
    with place.serve(terms) as server:
        reply, _ = place.list_once(hostile_configuration(place.directory))
        assert error_of(reply) == NOT_SECURE
        for connection in server.wait_ended(1):
            assert_gave_nothing(connection)


# ---- the environment of every library ------------------------------------------------------------


@pytest.mark.parametrize("command", [*COMMANDS, ("ls", "-l"), ("drive",)], ids=" ".join)
def test_no_file_that_the_environment_names_to_a_library_is_opened(place, command):
    directory = place.directory / "baits"
    variables = baits.lay(directory)
    source = place.directory / "source"
    source.write_bytes(b"contents")
    # No date in the usual form, so that the library of formats has to read it.
    body = multistatus(response("/a", size=1, etag='"1"',
                                modified="Sat, 1 Feb 2025 01:02:03 GMT"))["body"].encode()
    with place.serve(place.terms(), lambda connection: serve_listing(connection, body)):
        watch = baits.Watch(directory)
        if command == ("drive",):
            assert place.list_once(variables)[0]["error"] is None
        else:
            result = place.run(*(word.format(file=source) for word in command), env=variables)
            assert result.returncode == 0, result.stderr
        assert watch.seen() == set()
        watch.close()
    assert not (directory / "keys").exists()


# ---- the pinned server misbehaves ----------------------------------------------------------------

# More than any listing of these tests needs above an ordinary one: the address sanitizer alone keeps
# 256 MiB that were given back.
MORE_MEMORY = 400 << 20
FLOOD = 1 << 30


def record(kind, contents):
    return struct.pack("!BHH", kind, TLS_1_2, len(contents)) + contents


def server_hello(suite=0xC02F, compression=0, extensions=b"", version=TLS_1_2):
    body = (struct.pack("!H", version) + os.urandom(32) + b"\0" + struct.pack("!HB", suite, compression)
            + struct.pack("!H", len(extensions)) + extensions)
    return record(HANDSHAKE, bytes([SERVER_HELLO]) + len(body).to_bytes(3, "big") + body)


def ordinary_memory(place):
    with place.serve(place.terms()):
        reply, memory = place.list_once()
        assert reply["error"] is None
        return memory


def after_the_request(act):
    """A server that does something between the first request and its answer."""
    def behave(connection):
        connection.secure()
        connection.read_head()
        act(connection)
        connection.answer(LISTING)
        connection.read_head()
    return behave


def queue_updates(connection, count, answered):
    for _ in range(count):
        connection.queue_key_update(answered)
        connection.flush()


def queue_tickets(connection, count):
    for number in range(count):
        connection.queue_ticket()
        if number % 64 == 63:
            connection.flush()
    connection.flush()


def test_renegotiation_is_not_done(place):
    terms = place.terms(lowest=TLS_1_2, highest=TLS_1_2)
    behave = after_the_request(lambda connection: connection.ask_to_renegotiate())
    with place.serve(terms, behave) as server:
        reply, _ = place.list_once()
        assert error_of(reply) in (None, LOST)
        connection, = server.wait_ended(1)
        kinds = [kind for kind, _ in connection.records()]
        assert HANDSHAKE not in kinds[kinds.index(APPLICATION):]
        assert connection.plain.count(b"PROPFIND") == 1


@pytest.mark.parametrize("disturb", [
    lambda connection: queue_tickets(connection, 300),
    lambda connection: queue_updates(connection, 300, answered=False),
    lambda connection: queue_updates(connection, 300, answered=True)],
    ids=["tickets", "key updates", "answered key updates"])
def test_some_messages_after_the_handshake_disturb_nothing(place, disturb):
    with place.serve(place.terms(lowest=TLS_1_3), after_the_request(disturb)) as server:
        reply, _ = place.list_once()
        assert reply["error"] is None
        connection, = server.wait_ended(1)
        assert connection.plain.count(b"PROPFIND") == 1


def test_messages_between_pieces_of_an_answer_are_not_counted_together(place):
    def behave(connection):
        connection.secure()
        connection.read_head()
        connection.write(b"HTTP/1.1 207 Scripted\r\nContent-Length: %d\r\n\r\n" % len(LISTING))
        for byte in LISTING:
            queue_updates(connection, 10, answered=False)
            connection.write(bytes([byte]))
        connection.read_head()

    assert len(LISTING) * 10 > 1000
    with place.serve(place.terms(lowest=TLS_1_3), behave):
        reply, _ = place.list_once()
        assert reply["error"] is None


@pytest.mark.parametrize("disturb", [
    lambda connection: queue_tickets(connection, FLOOD),
    lambda connection: queue_updates(connection, FLOOD, answered=False),
    lambda connection: queue_updates(connection, FLOOD, answered=True)],
    ids=["tickets", "key updates", "answered key updates"])
def test_a_flood_of_messages_after_the_handshake_ends_the_request(place, disturb):
    ordinary = ordinary_memory(place)
    with place.serve(place.terms(lowest=TLS_1_3), after_the_request(disturb)) as server:
        reply, memory = place.list_once()
        assert error_of(reply) == LOST
        assert memory < ordinary + MORE_MEMORY
        connection, = server.wait_ended(1)
        assert connection.plain.count(b"PROPFIND") == 1


def flood_of(*pieces):
    def behave(connection):
        connection.receive_raw()
        for piece in pieces[:-1]:
            connection.send_raw(piece)
        while True:
            connection.send_raw(pieces[-1])
    return behave


@pytest.mark.parametrize("behave", [
    flood_of(record(HANDSHAKE, bytes([HELLO_REQUEST, 0, 0, 0]) * 4000)),
    flood_of(server_hello(), record(HANDSHAKE, bytes([HELLO_REQUEST, 0, 0, 0]) * 4000)),
    flood_of(record(HANDSHAKE, bytes([SERVER_HELLO, 0xFF, 0xFF, 0xFF])), record(HANDSHAKE, b"\0")),
    flood_of(record(HANDSHAKE, bytes([SERVER_HELLO, 0, 0xFF, 0xFF])), record(HANDSHAKE, b"\0")),
    flood_of(record(HANDSHAKE, b"")), flood_of(record(ALERT, bytes([1, 90]))),
    flood_of(record(CHANGE_CIPHER, b"\1")), flood_of(record(APPLICATION, b"x" * 1000)),
    flood_of(b"\0" * 4096)],
    ids=["hello requests", "hello requests after the hello", "huge hello", "long hello",
         "empty records", "warnings", "changes of the cipher", "data", "zeros"])
def test_a_handshake_that_never_ends_is_ended(place, behave):
    ordinary = ordinary_memory(place)
    with place.serve(place.terms(), behave) as server:
        reply, memory = place.list_once()
        assert error_of(reply) in (NOT_SECURE, LOST)
        assert memory < ordinary + MORE_MEMORY
        for connection in server.wait_ended(1):
            assert_gave_nothing(connection)


def test_a_handshake_that_drips_ends_as_silence_does(place):
    stop = threading.Event()

    def behave(connection):
        connection.receive_raw()
        for byte in record(HANDSHAKE, bytes([SERVER_HELLO, 0, 0xFF, 0xFF])) * 100:
            connection.send_raw(bytes([byte]))
            if stop.wait(2):
                return

    with place.serve(place.terms(), behave) as server:
        try:
            reply, _ = place.list_once()
        finally:
            stop.set()
        assert error_of(reply) == TIMED_OUT
        for connection in server.wait_ended(1):
            assert_gave_nothing(connection)


def extension(kind, contents):
    return struct.pack("!HH", kind, len(contents)) + contents


@pytest.mark.parametrize("hello", [
    server_hello(extensions=extension(ALPN, b"\0\3\2h2")),
    server_hello(extensions=extension(ALPN, b"\0\x09\x08http/1.1")),
    server_hello(extensions=extension(ALPN, b"")),
    server_hello(extensions=extension(EARLY_DATA, b"")),
    server_hello(extensions=extension(PRE_SHARED_KEY, b"\0\0")),
    server_hello(compression=1), server_hello(suite=0x003B), server_hello(suite=0xC018),
    server_hello(suite=0x002F), server_hello(version=TLS_1_1),
    server_hello(extensions=extension(tls_server.VERSIONS, b"\x03\x02"))],
    ids=["ALPN h2", "ALPN http/1.1", "empty ALPN", "early data", "earlier key", "compression",
         "no cipher", "anonymous", "no forward secrecy", "version 1.1", "version 1.1 by extension"])
def test_an_answer_that_was_not_offered_is_refused(place, hello):
    def behave(connection):
        connection.receive_raw()
        connection.send_raw(hello)
        while True:
            connection.receive_raw()

    with place.serve(place.terms(), behave) as server:
        reply, _ = place.list_once()
        assert error_of(reply) == NOT_SECURE
        for connection in server.wait_ended(1):
            assert_gave_nothing(connection)
            assert connection.records()[-1][0] == ALERT


def test_a_server_that_takes_early_data_gets_none(place):
    def behave(connection):
        connection.secure()
        connection.read_head()
        connection.answer(LISTING)
        connection.close()

    with place.serve(place.terms(lowest=TLS_1_3, early_data=16384), behave) as server:
        with place.drive() as drive:
            for number in (1, 2, 3):
                assert drive.call("enumerateItems", identifier=ROOT)["error"] is None
                server.wait_ended(number)
        for connection in server.connections:
            assert EARLY_DATA not in connection.hello().extensions
            assert PRE_SHARED_KEY not in connection.hello().extensions
            assert not connection.is_resumed()


@pytest.mark.parametrize("count, error", [(20, None), (2000, NOT_SECURE)])
@pytest.mark.parametrize("version", [TLS_1_2, TLS_1_3])
def test_a_long_chain_is_read_and_an_enormous_one_refused(place, count, error, version):
    ordinary = ordinary_memory(place)
    with place.serve(place.terms("+".join(["pinned"] + ["other"] * count), lowest=version,
                                 highest=version)) as server:
        reply, memory = place.list_once()
        assert error_of(reply) == error
        assert memory < ordinary + MORE_MEMORY
        if error:
            for connection in server.wait_ended(1):
                assert_gave_nothing(connection)
