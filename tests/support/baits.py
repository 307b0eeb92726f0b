"""Environment variables that lead libraries astray, and a watch that sees who follows them."""

import ctypes
import os
import struct
from pathlib import Path

IN_OPEN, IN_CREATE, IN_ISDIR = 0x20, 0x100, 0x40000000

_libc = ctypes.CDLL(None, use_errno=True)


class Watch:
    """Sees which files below a directory are opened or made, from its making on."""

    def __init__(self, directory):
        self.descriptor = _libc.inotify_init1(os.O_NONBLOCK | os.O_CLOEXEC)
        assert self.descriptor >= 0
        self.directories = {}
        for folder, _, _ in os.walk(directory):
            number = _libc.inotify_add_watch(self.descriptor, os.fsencode(folder),
                                             IN_OPEN | IN_CREATE)
            assert number >= 0, os.strerror(ctypes.get_errno())
            self.directories[number] = folder
        # Walking opens directories, which is no news.
        self.seen()

    def seen(self):
        """The paths since the last call; directories that were only opened do not count."""
        try:
            data = os.read(self.descriptor, 1 << 20)
        except BlockingIOError:
            return set()
        found = set()
        while data:
            number, mask, _, length = struct.unpack_from("iIII", data)
            name = data[16:16 + length].rstrip(b"\0").decode()
            data = data[16 + length:]
            if not mask & IN_ISDIR or mask & IN_CREATE:
                found.add(os.path.join(self.directories[number], name))
        return found

    def close(self):
        os.close(self.descriptor)


def _icu_name():
    library = next(Path("/usr/lib").glob("*/libicuuc.so.[0-9][0-9]"))
    return f"icudt{library.suffix[1:]}l"


def lay(directory):
    """Makes the files, and gives the variables that name them. Those that libraries read while the
    system loads them, before the program begins, are not among them."""
    names = ["openssl.cnf", "engines/bait.so", "modules/legacy.so", "certificates.pem",
             "certificates/bait.0", "gconv/gconv-modules", "gconv/gconv-modules.cache",
             "zones/Europe/Paris", "krb5.conf", "ldap.conf", "ldaprc",
             "home/.netrc", "home/.curlrc", "home/.sqliterc", "home/.ldaprc", "hosts", "messages",
             "sqlite/bait", "ctlog.cnf", "catalog.xml"]
    icu = _icu_name()
    names.append(f"icu/{icu}.dat")
    names += [f"icu/{icu}/{name}" for name in (
        "root.res", "en.res", "en_US.res", "en_US_POSIX.res", "pool.res", "res_index.res",
        "cnvalias.icu", "zoneinfo64.res", "timezoneTypes.res", "numberingSystems.res",
        "supplementalData.res", "nfkc.nrm", "metaZones.res", "zone/tzdbNames.res")]
    for name in names:
        path = directory / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(b"bait\n")
        path.chmod(0o600)
    (directory / "openssl.cnf").write_text(
        "openssl_conf = all\n[all]\nproviders = providers\nengines = engines\n"
        f"[providers]\nlegacy = legacy\n[legacy]\nactivate = 1\nmodule = {directory}/modules/legacy.so\n"
        f"[engines]\nbait = bait\n[bait]\ndynamic_path = {directory}/engines/bait.so\ninit = 1\n")
    return {name: str(directory / value) for name, value in {
        "OPENSSL_CONF": "openssl.cnf", "OPENSSL_MODULES": "modules", "OPENSSL_ENGINES": "engines",
        "SSL_CERT_FILE": "certificates.pem", "SSL_CERT_DIR": "certificates",
        "CTLOG_FILE": "ctlog.cnf", "SSLKEYLOGFILE": "keys",
        "CURL_CA_BUNDLE": "certificates.pem", "CURL_HOME": "home", "NETRC": "home/.netrc",
        "HOME": "home", "ICU_DATA": "icu", "ICU_TIMEZONE_FILES_DIR": f"icu/{icu}",
        "GCONV_PATH": "gconv", "NLSPATH": "messages", "TZDIR": "zones",
        "KRB5_CONFIG": "krb5.conf", "LDAPCONF": "ldap.conf", "LDAPRC": "ldaprc",
        "HOSTALIASES": "hosts", "XML_CATALOG_FILES": "catalog.xml", "SQLITE_TMPDIR": "sqlite",
    }.items()} | {"LC_ALL": "en_US.UTF-8", "LANG": "en_US.UTF-8", "TZ": "Europe/Paris"}
