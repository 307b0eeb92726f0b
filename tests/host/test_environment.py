"""A mount whose environment was made by another hand: libraries do not follow it."""

import json

import baits
from hosted import DONE, wait_for
from server_certificates import Certificates
from tls_server import TLS_1_2, Terms, TLSServer, serve_listing


def test_no_file_that_the_environment_names_to_a_library_is_opened(own_place):
    directory = own_place.directory / "baits"
    variables = baits.lay(directory)
    watch = baits.Watch(directory)
    mounted = own_place.mount(env=variables).ready()
    document = own_place.point / "Home" / "Documents" / "a.txt"
    document.write_bytes(b"contents")
    own_place.wait_synced()
    assert own_place.run("status", env=variables).returncode == DONE
    assert mounted.end() == DONE
    assert watch.seen() == set()
    watch.close()
    assert not (directory / "keys").exists()


def test_a_mount_takes_no_weak_suites_from_the_environment(make_place, tmp_path):
    (tmp_path / "certificates").mkdir()
    certificates = Certificates(tmp_path / "certificates")
    terms = Terms(*certificates.chain(["pinned"]), lowest=TLS_1_2, highest=TLS_1_2,
                  suites="eNULL:@SECLEVEL=0")
    configuration = tmp_path / "openssl.cnf"
    configuration.write_text("openssl_conf = all\n[all]\nssl_conf = ssl\n[ssl]\n"
                             "system_default = weak\n[weak]\n"
                             "CipherString = ALL:eNULL:@SECLEVEL=0\nMaxProtocol = TLSv1.2\n")
    container = tmp_path / "container"
    container.mkdir(mode=0o700)
    with TLSServer(terms, lambda connection: serve_listing(connection, b"")) as server:
        bridge = container / "fp-webdav.json"
        bridge.write_text(json.dumps({"port": server.port, "user": "u", "pass": "secret",
                                      "certPEM": certificates.pem("pinned")}), encoding="utf-8")
        bridge.chmod(0o600)
        place = make_place(container)
        mounted = place.mount(env={"OPENSSL_CONF": str(configuration)}).ready()
        wait_for(lambda: place.status()["state"] in ("offline", "held"), "trouble")
        assert mounted.end() == DONE
        for connection in server.wait_ended(1):
            assert connection.plain == b""
            assert not connection.secured
