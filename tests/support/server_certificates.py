"""Self-signed certificates for test servers on 127.0.0.1."""

import hashlib
import os
import shutil
import subprocess
import threading

# Only the command of a certificate authority takes dates in the past.
AUTHORITY = """\
[ca]
default_ca = own
[own]
database = {path}.database
new_certs_dir = {directory}
rand_serial = yes
default_md = sha256
policy = any
[any]
commonName = supplied
"""


def run(*command):
    subprocess.run(command, check=True, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                   stderr=subprocess.DEVNULL)


class Certificates:
    """Certificates with names, each made in `directory` when it is first asked for.

    Most have keys of their own and sign themselves. "expired" is no longer valid, "samekey" has the
    key of "pinned", and "issued" is signed by "pinned".
    """

    def __init__(self, directory):
        self.directory = directory
        self.lock = threading.Lock()

    def paths(self, name):
        """The paths of the certificate and of its key, both PEM."""
        cert = os.path.join(self.directory, name + ".pem")
        key = os.path.join(self.directory, name + ".key")
        if name in ("samekey", "issued"):
            self.paths("pinned")
        with self.lock:
            if not os.path.exists(cert):
                if name == "samekey":
                    shutil.copy(os.path.join(self.directory, "pinned.key"), key)
                else:
                    run("openssl", "ecparam", "-name", "prime256v1", "-genkey", "-noout",
                        "-out", key)
                makers = {"expired": self.makeExpired, "issued": self.makeIssued}
                makers.get(name, self.make)(cert, key)
        return cert, key

    def make(self, cert, key):
        run("openssl", "req", "-x509", "-new", "-key", key, "-subj", "/CN=127.0.0.1",
            "-days", "30", "-out", cert)

    def makeExpired(self, cert, key):
        request, config = cert + ".csr", cert + ".cnf"
        run("openssl", "req", "-new", "-key", key, "-subj", "/CN=127.0.0.1", "-out", request)
        with open(config, "w", encoding="ascii") as file:
            file.write(AUTHORITY.format(path=cert, directory=self.directory))
        with open(cert + ".database", "w", encoding="ascii"):
            pass
        run("openssl", "ca", "-batch", "-selfsign", "-config", config, "-in", request,
            "-keyfile", key, "-startdate", "20200101000000Z", "-enddate", "20210101000000Z",
            "-notext", "-out", cert)

    def makeIssued(self, cert, key):
        request, authority = cert + ".csr", os.path.join(self.directory, "pinned")
        run("openssl", "req", "-new", "-key", key, "-subj", "/CN=127.0.0.1", "-out", request)
        run("openssl", "x509", "-req", "-in", request, "-CA", authority + ".pem",
            "-CAkey", authority + ".key", "-CAcreateserial", "-days", "30", "-out", cert)

    def pem(self, name):
        with open(self.paths(name)[0], encoding="ascii") as file:
            return file.read()

    def chain(self, names):
        """The paths of a file with the certificates of `names` and of the first one's key."""
        # A name for each list, however long it is.
        path = os.path.join(self.directory, "chain-" + hashlib.sha256(
            "+".join(names).encode()).hexdigest())
        text = "".join(self.pem(name) for name in names)
        with self.lock:
            with open(path + ".tmp", "w", encoding="ascii") as file:
                file.write(text)
            os.rename(path + ".tmp", path)
        return path, self.paths(names[0])[1]
