"""Connections: whom the program trusts, what it follows, and what a broken one means."""

import json
import socket

import pytest

from conftest import write_bridge
from driver import FILE_PROVIDER, ROOT, URL, Drive, error_of, run, text_of
from multistatus import multistatus, response, status

CANCELLED = (URL, -999)
BAD_URL = (URL, -1000)
CANNOT_CONNECT = (URL, -1004)
LOST = (URL, -1005)
MISMATCH = "cert pin mismatch — refusing loopback connection"


def fails_with(reply, *expected):
    assert error_of(reply) in expected, reply["error"]
    return text_of(reply)


def listing_failed(reply):
    return f"enumerate / failed: {text_of(reply)}"


# ---- the pinned certificate ----------------------------------------------------------------------


@pytest.mark.parametrize("certificate", ["other", "other+pinned", "expired", "expired+pinned"])
def test_another_leaf_is_refused_and_never_sees_the_credentials(scene, certificate):
    scene.script(multistatus(), certificate=certificate)
    with scene.drive() as drive:
        reply = drive.call("enumerateItems", identifier=ROOT)
        assert fails_with(reply, CANCELLED) == "cancelled"
        assert drive.log_lines(2) == [MISMATCH, listing_failed(reply)]
        drive.finish()
        assert len(drive.lines) == 2
    assert scene.asked() == []


def test_a_chain_behind_the_pinned_leaf_is_ignored(scene):
    scene.script(multistatus(), certificate="pinned+other+expired")
    with scene.drive() as drive:
        assert drive.call("enumerateItems", identifier=ROOT)["error"] is None


def test_validity_issuer_and_host_name_do_not_matter(scene):
    expired = scene.server.certificates.pem("expired")
    write_bridge(scene.container, scene.server.port, expired)
    scene.script(multistatus(), certificate="expired")
    with scene.drive() as drive:
        assert drive.call("enumerateItems", identifier=ROOT)["error"] is None


def test_every_refused_connection_is_logged(scene):
    scene.script(multistatus(), certificate="other")
    with scene.drive() as drive:
        for _ in range(3):
            fails_with(drive.call("item", identifier="/a"), CANCELLED)
        assert drive.log_lines(3) == [MISMATCH] * 3
        drive.finish()
        assert len(drive.lines) == 3
    assert len(scene.server.eventsOf("connected")) == 3


@pytest.mark.parametrize("spoil", [
    lambda pem: pem.replace("\n", "\n  "),
    lambda pem: pem.replace("\n-----END", "A\n-----END"),
    lambda pem: pem.replace("M", "*", 1), lambda pem: pem.replace("\n", "\t\n"),
    lambda pem: "\ufeff" + pem, lambda pem: pem.replace("CERTIFICATE", "X509 CERTIFICATE"),
    lambda pem: "subject=/CN=127.0.0.1\n" + pem])
def test_without_a_readable_pin_connections_are_refused_in_silence(scene, spoil):
    write_bridge(scene.container, scene.server.port, spoil(scene.server.certPEM))
    scene.script(multistatus())
    with scene.drive() as drive:
        reply = drive.call("enumerateItems", identifier=ROOT)
        fails_with(reply, CANCELLED)
        drive.finish()
        assert drive.log_lines(1) == [listing_failed(reply)]
        assert len(drive.lines) == 1
    assert scene.asked() == []


@pytest.mark.parametrize("pem", ["", "-----BEGIN CERTIFICATE-----\n-----END CERTIFICATE-----\n"])
def test_an_empty_pin_matches_nothing(scene, pem):
    write_bridge(scene.container, scene.server.port, pem)
    with scene.drive() as drive:
        reply = drive.call("enumerateItems", identifier=ROOT)
        fails_with(reply, CANCELLED)
        assert drive.log_lines(2) == [MISMATCH, listing_failed(reply)]
    assert scene.asked() == []


@pytest.mark.parametrize("rewrite", [
    lambda pem: pem.replace("\n", "\r\n"), lambda pem: pem.replace("\n", ""),
    lambda pem: pem.replace("\n", "\r"), lambda pem: "\n\n" + pem + "\r\n\r\n"])
def test_line_ends_in_the_certificate_do_not_matter(scene, rewrite):
    write_bridge(scene.container, scene.server.port, rewrite(scene.server.certPEM))
    scene.script(multistatus())
    with scene.drive() as drive:
        assert drive.call("enumerateItems", identifier=ROOT)["error"] is None


def test_two_certificates_in_the_file_match_no_server(scene):
    write_bridge(scene.container, scene.server.port, scene.server.certPEM + scene.server.otherPEM)
    for certificate in ("pinned", "other", "pinned+other"):
        scene.script(multistatus(), certificate=certificate)
        with scene.drive() as drive:
            fails_with(drive.call("enumerateItems", identifier=ROOT), CANCELLED)
    assert scene.asked() == []


@pytest.mark.parametrize("wish", ["optional", "required"])
def test_a_wish_for_a_client_certificate_is_refused(scene, wish):
    scene.script(multistatus(), clientCertificate=wish)
    with scene.drive() as drive:
        reply = drive.call("enumerateItems", identifier=ROOT)
        fails_with(reply, CANCELLED)
        assert drive.log_lines(1) == [listing_failed(reply)]
        drive.finish()
        assert len(drive.lines) == 1
    assert scene.asked() == []


def test_the_pin_is_asked_for_on_every_new_connection(scene):
    scene.script(dict(multistatus(), then="close"),
                 connections=[{}, {"certificate": "other"}])
    with scene.drive() as drive:
        assert drive.call("enumerateItems", identifier=ROOT)["error"] is None
        scene.server.waitForEvents("disconnected", 1)
        fails_with(drive.call("enumerateItems", identifier=ROOT), CANCELLED)
    assert len(scene.asked()) == 1


# ---- no server, or another one -------------------------------------------------------------------


def test_nobody_on_the_port(tmp_path):
    with socket.socket() as taken:
        taken.bind(("127.0.0.1", 0))  # bound, so that nobody else listens there either
        container = write_bridge(tmp_path / "container", taken.getsockname()[1], "QUJD")
        with Drive(container) as drive:
            reply = drive.call("enumerateItems", identifier=ROOT)
            assert fails_with(reply, CANNOT_CONNECT) == "Could not connect to the server."
            assert drive.log_lines(1) == [listing_failed(reply)]


@pytest.mark.parametrize("port", [0, -1, 65536, 443000, -2 ** 63, 2 ** 63 - 1])
def test_an_impossible_port_fails_each_request_and_nothing_else(tmp_path, port):
    container = write_bridge(tmp_path / "container", port, "QUJD")
    with Drive(container) as drive:
        for _ in range(2):
            fails_with(drive.call("enumerateItems", identifier=ROOT), BAD_URL, CANNOT_CONNECT)
            fails_with(drive.call("deleteItem", identifier="/a"), BAD_URL, CANNOT_CONNECT)
        assert drive.call("item", identifier=ROOT)["error"] is None
        assert drive.finish() == 0


def test_a_server_without_tls(scene):
    scene.script(multistatus(), mode="plain")
    with scene.drive() as drive:
        fails_with(drive.call("enumerateItems", identifier=ROOT), (URL, -1200), LOST)
    for event in scene.server.requests:
        assert "authorization" not in str(event).lower()


def test_old_tls_is_refused(scene):
    scene.script(multistatus(), maximumTLS="1.1")
    with scene.drive() as drive:
        fails_with(drive.call("enumerateItems", identifier=ROOT), (URL, -1200))
    assert scene.asked() == []


def test_tls_1_2_is_spoken(scene):
    scene.script(multistatus(), maximumTLS="1.2")
    with scene.drive() as drive:
        assert drive.call("enumerateItems", identifier=ROOT)["error"] is None
    assert scene.server.eventsOf("secured")[0]["version"] == "TLSv1.2"


# ---- what is not followed, repeated or taken from the environment --------------------------------


@pytest.mark.parametrize("code", [301, 302, 303, 307, 308])
@pytest.mark.parametrize("target", ["/elsewhere", "https://127.0.0.1:{port}/elsewhere",
                                    "http://127.0.0.1:1/"])
def test_redirects_are_not_followed(scene, code, target):
    location = target.format(port=scene.server.port)
    scene.script(status(code, headers=[["Location", location]]), multistatus())
    with scene.drive() as drive:
        reply = drive.call("item", identifier="/a")
        fails_with(reply, (FILE_PROVIDER, -1004))
        drive.finish()
    assert scene.asked() == [("PROPFIND", "/a")]


def test_a_401_is_not_answered_with_another_attempt(scene):
    scene.script(status(401, headers=[["WWW-Authenticate", 'Basic realm="x"'],
                                      ["WWW-Authenticate", 'Digest realm="x", nonce="n"']]),
                 multistatus())
    with scene.drive() as drive:
        fails_with(drive.call("item", identifier="/a"), (FILE_PROVIDER, -1000))
        drive.finish()
    assert len(scene.asked()) == 1


def test_cookies_are_not_kept(scene):
    scene.script(dict(multistatus(), headers=[["Set-Cookie", "a=b; Path=/"]]))
    with scene.drive() as drive:
        drive.call("enumerateItems", identifier=ROOT)
        drive.call("enumerateItems", identifier=ROOT)
    assert b"cookie" not in scene.raw(1).lower()


def test_answers_are_not_kept(scene):
    scene.script(dict(multistatus(response("/a", etag='"1"')),
                      headers=[["Cache-Control", "max-age=3600"], ["ETag", '"x"']]),
                 multistatus(response("/a", etag='"2"')))
    with scene.drive() as drive:
        versions = [drive.call("item", identifier="/a")["item"]["itemVersion"]["contentVersion"]
                    for _ in range(2)]
    assert versions == ["1|0|0", "2|0|0"]
    assert scene.raw(0) == scene.raw(1)


def test_proxies_and_netrc_are_not_used(scene):
    home = scene.directory / "home"
    home.mkdir()
    (home / ".netrc").write_text("machine 127.0.0.1 login other password wrong\n")
    (home / ".netrc").chmod(0o600)
    (home / ".curlrc").write_text('user = "other:wrong"\n')
    nowhere = "http://127.0.0.1:1"
    scene.script(multistatus())
    with scene.drive(env={"HOME": str(home), "https_proxy": nowhere, "HTTPS_PROXY": nowhere,
                          "all_proxy": nowhere, "ALL_PROXY": nowhere, "no_proxy": ""}) as drive:
        assert drive.call("enumerateItems", identifier=ROOT)["error"] is None
    assert scene.raw(0) == scene.head("PROPFIND", "/", "Depth: 1", "Content-Type: application/xml")


def test_tls_secrets_are_not_written_down(scene):
    secrets = scene.directory / "secrets"
    scene.script(multistatus())
    with scene.drive(env={"SSLKEYLOGFILE": str(secrets)}) as drive:
        assert drive.call("enumerateItems", identifier=ROOT)["error"] is None
    assert not secrets.exists()


def test_system_certificates_open_no_door(scene):
    bundle = scene.directory / "bundle.pem"
    bundle.write_text(scene.server.otherPEM)
    scene.script(multistatus(), certificate="other")
    with scene.drive(env={"SSL_CERT_FILE": str(bundle), "CURL_CA_BUNDLE": str(bundle)}) as drive:
        fails_with(drive.call("enumerateItems", identifier=ROOT), CANCELLED)
    assert scene.asked() == []


@pytest.mark.parametrize("operation, members", [
    ("enumerateItems", {"identifier": "/a"}), ("item", {"identifier": "/a"}),
    ("deleteItem", {"identifier": "/a"}), ("fetchContents", {"identifier": "/a"}),
    ("createItem", {"item": {"filename": "a", "parentItemIdentifier": ROOT}}),
    ("modifyItem", {"item": {"itemIdentifier": "/a", "filename": "b",
                             "parentItemIdentifier": ROOT}, "changedFields": ["filename"]})])
@pytest.mark.parametrize("then", ["close", "drop", "rst"])
def test_a_request_is_not_repeated_when_the_connection_breaks(scene, operation, members, then):
    # The first request leaves a connection to be used again, on which the second one fails.
    scene.script(multistatus(), {"cut": 0, "then": then}, multistatus())
    with scene.drive() as drive:
        assert drive.call("enumerateItems", identifier="/first")["error"] is None
        fails_with(drive.call(operation, **members), LOST)
        drive.finish()
    assert len(scene.asked()) == 2


def test_a_new_connection_is_made_after_one_was_lost(scene):
    scene.script({"cut": 0, "then": "rst"}, multistatus())
    with scene.drive() as drive:
        fails_with(drive.call("enumerateItems", identifier=ROOT), LOST)
        assert drive.call("enumerateItems", identifier=ROOT)["error"] is None


def test_a_connection_closed_while_idle_is_no_failure(scene):
    scene.script(dict(multistatus(), then="close"))
    with scene.drive() as drive:
        for number in range(1, 4):
            assert drive.call("enumerateItems", identifier=ROOT)["error"] is None
            scene.server.waitForEvents("disconnected", number)
    assert len(scene.asked()) == 3


# ---- the configuration's values ------------------------------------------------------------------


@pytest.mark.parametrize("user, password", [
    ("", ""), ("a:b", "c:d"), ("ü😀", "pä%20\"\\"), ("x" * 3000, "y" * 3000), ("u", "\r\nEvil: 1")])
def test_credentials_are_sent_as_they_are(scene, user, password):
    import base64
    write_bridge(scene.container, scene.server.port, scene.server.certPEM, user, password)
    scene.script(multistatus())
    with scene.drive() as drive:
        assert drive.call("enumerateItems", identifier=ROOT)["error"] is None
    expected = base64.b64encode(f"{user}:{password}".encode())
    lines = scene.raw(0).split(b"\r\n")
    assert b"Authorization: Basic " + expected in lines
    assert not any(line.startswith(b"Evil") for line in lines)


def test_a_changed_file_is_seen_by_the_next_program_only(scene):
    scene.script(multistatus())
    with scene.drive() as drive:
        assert drive.call("enumerateItems", identifier=ROOT)["error"] is None
        (scene.container / "fp-webdav.json").write_text(json.dumps(
            {"port": 1, "user": "", "pass": "", "certPEM": ""}))
        assert drive.call("enumerateItems", identifier=ROOT)["error"] is None
    result = run("ls", container=scene.container)
    assert result.returncode == 1
