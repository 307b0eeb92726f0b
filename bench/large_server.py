"""A server of folders with very many empty files, made up when they are listed; nothing is kept.

A process of its own, so that it does not slow down what measures. It takes no changes but the
removal of a whole folder, by `forget`.
"""

import json
import multiprocessing
import ssl
import sys
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from pathlib import Path
from urllib.parse import unquote

from command import ROOT

sys.path.insert(0, str(ROOT / "tests" / "support"))
from multistatus import HEAD, TAIL, response  # noqa: E402
from server_certificates import Certificates  # noqa: E402

PIECE = 2000  # entries that are made up at once
DATE = "Tue, 14 Nov 2023 22:13:20 GMT"


def file_response(path, size):
    return response(path, size=size, etag=f'"{size}"', modified=DATE)


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def log_message(self, *_):
        pass

    def entries(self, path, depth):
        """The answer in pieces; None when there is nothing."""
        folders, files = self.server.folders, self.server.files
        if path in files:
            return [HEAD + file_response(path, len(files[path])) + TAIL]
        if path not in folders:
            return None
        own = HEAD + response(path.rstrip("/") + "/", folder=True, modified=DATE)
        if depth == "0":
            return [own + TAIL]
        return self.listed(path, own)

    def listed(self, path, own):
        yield own
        above = path.rstrip("/") + "/"
        for other in list(self.server.folders):
            if other != path and other.rpartition("/")[0] == path.rstrip("/"):
                yield response(other + "/", folder=True, modified=DATE)
        for other, contents in self.server.files.items():
            if other.rpartition("/")[0] == path.rstrip("/"):
                yield file_response(other, len(contents))
        count = self.server.folders.get(path, 0)
        for first in range(0, count, PIECE):
            yield "".join(file_response(f"{above}document {number:07}.txt", 0)
                          for number in range(first, min(first + PIECE, count)))
        yield TAIL

    def do_PROPFIND(self):
        pieces = self.entries(unquote(self.path).rstrip("/") or "/", self.headers.get("Depth"))
        if pieces is None:
            self.answer(404, b"")
            return
        self.send_response(207)
        self.send_header("Content-Type", "application/xml; charset=utf-8")
        self.send_header("Transfer-Encoding", "chunked")
        self.end_headers()
        for piece in pieces:
            data = piece.encode()
            self.wfile.write(b"%x\r\n%s\r\n" % (len(data), data))
        self.wfile.write(b"0\r\n\r\n")

    def do_GET(self):
        contents = self.server.files.get(unquote(self.path))
        self.answer(404 if contents is None else 200, contents or b"")

    def do_DELETE(self):
        self.server.folders.pop(unquote(self.path).rstrip("/"), None)
        self.answer(204, b"")

    def answer(self, status, body):
        self.send_response(status)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)


class LargeServer:
    """`folders`: how many files each has. `files`: contents by path."""

    def __init__(self, directory, folders, files):
        self.directory = Path(directory)
        self.folders = {"/": 0, "/Home": 0, **folders}
        self.files = files
        self.root = self.directory
        self.container = self.directory / "container"

    def __enter__(self):
        certificate, key = Certificates(str(self.directory)).paths("pinned")
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(certificate, key)
        server = ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        server.daemon_threads = True
        server.socket = context.wrap_socket(server.socket, server_side=True,
                                            do_handshake_on_connect=False)
        server.folders, server.files = self.folders, self.files
        self.context = context
        self.certificate = certificate
        self.port = server.server_address[1]
        self.process = multiprocessing.get_context("fork").Process(target=server.serve_forever,
                                                                   daemon=True)
        self.process.start()
        server.socket.close()
        self.container.mkdir(mode=0o700)
        bridge = self.container / "fp-webdav.json"
        bridge.touch(0o600)
        bridge.write_text(json.dumps({"port": self.port, "user": "bench", "pass": "secret",
                                      "certPEM": Path(certificate).read_text("utf-8")}), "utf-8")
        return self

    def forget(self, path):
        """The folder is gone, as if another client had removed it."""
        import http.client  # pylint: disable=import-outside-toplevel
        insecure = ssl.create_default_context(cafile=self.certificate)
        insecure.check_hostname = False
        connection = http.client.HTTPSConnection("127.0.0.1", self.port, context=insecure)
        connection.request("DELETE", path)
        connection.getresponse().read()
        connection.close()

    def __exit__(self, *_):
        self.process.terminate()
        self.process.join()
