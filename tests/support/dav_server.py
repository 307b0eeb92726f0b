"""A WebDAV server in memory that goes wrong as a test says, and judges what it is asked.

    with DavServer() as server:
        server.put("/Home/a.txt", b"contents")
        server.fault("PUT", "/Home/a.txt", answer={"status": 507}, effect=False)
        ... server.read("/Home/a.txt"), server.tree(), server.asked("PUT"), server.violations

A fault is for requests of one method (or any, None) for one path (or any, None; a compiled pattern
is searched for) and, when `depth` is given, of that depth. `effect` False: what is asked for does
not happen. `answer` is put over the answer (for its members see scripted_server.py) or is called
with it and gives another; `reading` has the members that steer the reading of the body. `times` is
how many requests it is for; None for all. The first fault that fits counts. `fault.met` says how
many requests it was for so far.
"""

import base64
import email.utils
import posixpath
import re
import socket
from dataclasses import dataclass, field
from urllib.parse import quote, unquote_to_bytes, urlsplit

import scripted_connection
from multistatus import multistatus, response
from scripted_server import ScriptedServer

START = 1_700_000_000


def clean(path):
    return path.rstrip("/") or "/"


def decoded(target):
    """The path in a request's target. Bytes that are no UTF-8 survive as surrogates."""
    return clean(unquote_to_bytes(target.split("?")[0]).decode("utf-8", "surrogateescape"))


@dataclass
class Fault:
    method: str | None
    path: object
    answer: object = None
    effect: bool = True
    times: int | None = None
    depth: str | None = None
    reading: dict = field(default_factory=dict)
    met: int = 0
    refused: int = 0

    def fits(self, request):
        if self.times is not None and self.met >= self.times:
            return False
        if self.method not in (None, request["method"]):
            return False
        if self.depth not in (None, request["headers"].get("depth")):
            return False
        if isinstance(self.path, re.Pattern):
            return bool(self.path.search(request["path"]))
        return self.path in (None, request["path"])


class DavConnection(scripted_connection.Connection):
    def readBody(self, request, length):
        while request["bodyLength"] < length:
            if not self.buffer:
                self.buffer = self.receive()
            piece = self.buffer[:length - request["bodyLength"]]
            self.buffer = self.buffer[len(piece):]
            request["body"] += piece
            request["bodyLength"] += len(piece)

    def serveRequest(self):
        formed = self.server.formed
        lines = self.readHead().decode("latin-1").split("\r\n")
        method, target = (lines[0].split(" ") + ["", ""])[:2]
        headers = {name.strip().lower(): value.strip()
                   for name, _, value in (line.partition(":") for line in lines[1:] if line)}
        request = {"method": method, "target": target, "path": formed(decoded(target)),
                   "headers": headers, "body": bytearray(), "bodyLength": 0}
        fault = self.server.faultFor(request)
        reading = fault.reading if fault else {}
        if "holdBodyFor" in reading:
            self.server.wait(reading["holdBodyFor"])
        announced = int(headers.get("content-length", 0))
        self.readBody(request, min(announced, reading.get("readBytes", announced)))
        if request["bodyLength"] < announced:
            return False
        answer = self.server.perform(request, fault)
        try:
            return self.reply(answer, method)
        except OSError:
            self.server.noteRefusal(fault)
            raise


class DavServer(ScriptedServer):
    connectionClass = DavConnection

    def __init__(self):
        super().__init__()
        # What the server makes of the names in a path.
        self.formed = lambda path: path
        self.files = {"/": None, "/Home": None}
        self.marks = {"/": 0, "/Home": 0}
        self.dates = {"/": START, "/Home": START}
        self.last = 0
        self.faults = []
        self.log = []
        self.violations = []
        self.admitted = {"/", "/Home"}

    # What tests do behind the client's back.

    def put(self, path, contents):
        with self.changed:
            if posixpath.dirname(path) not in self.files:
                self.makeFolder(posixpath.dirname(path))
            self._set(path, bytes(contents))

    def makeFolder(self, path):
        with self.changed:
            above = posixpath.dirname(path)
            if above not in self.files:
                self.makeFolder(above)
            self._set(path, None)

    def remove(self, path):
        with self.changed:
            for one in self._within(path):
                del self.files[one]

    def read(self, path):
        with self.changed:
            return self.files.get(path)

    def tree(self, below="/Home"):
        """The bytes of the files and None for folders, by their paths below a folder."""
        with self.changed:
            return {path[len(below):]: contents for path, contents in self.files.items()
                    if path.startswith(below + "/")}

    def saved(self):
        """All that is here, as a value for a JSON file; `restore` of another server takes it."""
        with self.changed:
            return {"last": self.last, "entries": [
                {"path": path, "mark": self.marks[path], "date": self.dates[path],
                 "contents": None if held is None else base64.b64encode(held).decode()}
                for path, held in sorted(self.files.items())]}

    def restore(self, saved):
        with self.changed:
            self.last = saved["last"]
            for values in (self.files, self.marks, self.dates):
                values.clear()
            for entry in saved["entries"]:
                path, held = entry["path"], entry["contents"]
                self.files[path] = None if held is None else base64.b64decode(held)
                self.marks[path] = entry["mark"]
                self.dates[path] = entry["date"]
            self.admitted |= self.files.keys()

    def goAway(self):
        """Nothing listens any more. Requests that a fault holds stay as they are."""
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()
        self.away = self.fault(None, None, effect=False, answer={"cut": 0, "then": "rst"})

    def comeBack(self):
        """As it was, on the same port."""
        with self.changed:
            # A request on a connection that was kept may have met it.
            if self.away in self.faults:
                self.faults.remove(self.away)
        self.disconnect()
        self.listen()

    def fault(self, method, path, **members):
        with self.changed:
            self.faults.append(Fault(method, path, **members))
            return self.faults[-1]

    def heal(self):
        """Ends all faults."""
        with self.changed:
            self.faults.clear()

    def admit(self, path):
        """The client may ask for that, though it never was there."""
        self.admitted.add(path)

    def asked(self, *methods):
        """(method, path) of the requests so far that were read to their end."""
        with self.changed:
            return [(one["method"], one["path"]) for one in self.log
                    if not methods or one["method"] in methods]

    def waitFor(self, condition, seconds=60):
        with self.changed:
            if not self.changed.wait_for(condition, seconds):
                raise TimeoutError("what was waited for did not come")

    # What connections ask.

    def faultFor(self, request):
        with self.changed:
            for fault in self.faults:
                if fault.fits(request):
                    fault.met += 1
                    return fault
        return None

    def noteRefusal(self, fault):
        with self.changed:
            if fault is not None:
                fault.refused += 1
            self.changed.notify_all()

    def perform(self, request, fault):
        with self.changed:
            self.log.append(request)
            self._judge(request)
            answer = {"status": 204}
            if fault is None or fault.effect:
                answer = getattr(self, "_" + request["method"], self._unknown)(request)
            if fault is not None and callable(fault.answer):
                answer = fault.answer(answer)
            elif fault is not None and fault.answer is not None:
                answer = {**answer, **fault.answer}
            self.changed.notify_all()
            return answer

    def destination(self, request):
        return self.formed(decoded(urlsplit(request["headers"]["destination"]).path))

    def _judge(self, request):
        """Notes what a client that only trusts proper entries never asks for."""
        method, path = request["method"], request["path"]
        listsRoot = method == "PROPFIND" and request["headers"].get("depth") == "1"
        places = [path]
        if method == "MOVE":
            places.append(self.destination(request))
        for place in places:
            above, name = posixpath.split(place)
            if place == "/":
                proper = listsRoot
            elif place not in self.admitted and (method in ("PUT", "MKCOL") or place != path):
                proper = (above in self.admitted and self.files.get(above, 1) is None
                          and name not in ("", ".", ".."))
                self.admitted.add(place)
            else:
                proper = place in self.admitted
            if not proper:
                self.violations.append(f"{method} {request['target']} ({place})")

    def _set(self, path, contents):
        self.last += 1
        self.files[path] = contents
        self.marks[path] = self.last
        self.dates[path] = START + self.last
        self.admitted.add(path)
        self.changed.notify_all()

    def _within(self, path):
        return [one for one in self.files if one == path or one.startswith(path + "/")]

    def entry(self, path):
        contents = self.files[path]
        href = quote(path.encode("utf-8", "surrogateescape"))
        members = {"raw": True, "etag": f'"m{self.marks[path]}"',
                   "modified": email.utils.formatdate(self.dates[path], usegmt=True)}
        if contents is None:
            return response(href if path == "/" else href + "/", folder=True, **members)
        return response(href, size=len(contents), **members)

    def _unknown(self, _):
        return {"status": 501}

    def _PROPFIND(self, request):
        path = request["path"]
        if path not in self.files:
            return {"status": 404}
        entries = [self.entry(path)]
        if request["headers"].get("depth") == "1":
            entries += [self.entry(one) for one in self.files
                        if one != "/" and posixpath.dirname(one) == path]
        return multistatus(*entries)

    def _GET(self, request):
        contents = self.files.get(request["path"])
        if contents is None:
            return {"status": 404}
        return {"status": 200, "headers": [["ETag", f'"m{self.marks[request["path"]]}"']],
                "bodyBase64": base64.b64encode(contents).decode()}

    def _PUT(self, request):
        path = request["path"]
        if self.files.get(posixpath.dirname(path), b"") is not None:
            return {"status": 409}
        if path in self.files and self.files[path] is None:
            return {"status": 405}
        status = 204 if path in self.files else 201
        self._set(path, bytes(request["body"]))
        return {"status": status}

    def _MKCOL(self, request):
        path = request["path"]
        if path in self.files:
            return {"status": 405}
        if self.files.get(posixpath.dirname(path), b"") is not None:
            return {"status": 409}
        self._set(path, None)
        return {"status": 201}

    def _DELETE(self, request):
        if request["path"] not in self.files:
            return {"status": 404}
        self.remove(request["path"])
        return {"status": 204}

    def _MOVE(self, request):
        path = request["path"]
        target = self.destination(request)
        if path not in self.files:
            return {"status": 404}
        if target in self.files:
            return {"status": 412}
        if self.files.get(posixpath.dirname(target), b"") is not None:
            return {"status": 409}
        for one in self._within(path):
            moved = target + one[len(path):]
            for values in (self.files, self.marks, self.dates):
                values[moved] = values.pop(one)
            self.admitted.add(moved)
        return {"status": 201}
