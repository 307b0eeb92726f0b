"""Writing multistatus bodies as servers send them."""

from urllib.parse import quote
from xml.sax.saxutils import escape

HEAD = '<?xml version="1.0" encoding="utf-8"?>\n<D:multistatus xmlns:D="DAV:">'
TAIL = "</D:multistatus>"
# What an answer of this status has besides its body.
ANSWER = {"status": 207, "headers": [["Content-Type", "application/xml; charset=utf-8"]]}


def response(path, folder=False, size=None, etag=None, modified=None, raw=False):
    """One response element. `path` is escaped for a URL unless `raw`."""
    href = path if raw else quote(path)
    properties = "<D:resourcetype>" + ("<D:collection/>" if folder else "") + "</D:resourcetype>"
    if size is not None:
        properties += f"<D:getcontentlength>{size}</D:getcontentlength>"
    if etag is not None:
        properties += f"<D:getetag>{escape(etag)}</D:getetag>"
    if modified is not None:
        properties += f"<D:getlastmodified>{modified}</D:getlastmodified>"
    return (f"<D:response><D:href>{escape(href)}</D:href><D:propstat><D:prop>{properties}</D:prop>"
            "<D:status>HTTP/1.1 200 OK</D:status></D:propstat></D:response>")


def multistatus(*responses):
    """An answer for the scripted server."""
    return dict(ANSWER, body=HEAD + "".join(responses) + TAIL)


def status(code, **members):
    return dict(members, status=code)
