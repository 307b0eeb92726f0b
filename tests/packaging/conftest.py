"""What the tests of the package share: the package itself, made once."""

import os
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "support"))

import driver  # noqa: E402

MINUTES = 60


def pytest_configure():
    driver.executable()


@pytest.fixture(scope="session")
def build():
    """The build directory."""
    return Path(os.environ["KFP_BUILD"])


@pytest.fixture(scope="session")
def package(build, tmp_path_factory):
    for tool in ("dpkg-deb", "dpkg-shlibdeps"):
        if not shutil.which(tool):
            pytest.skip(f"{tool} is not installed")
    directory = tmp_path_factory.mktemp("package")
    done = subprocess.run(["cpack", "-G", "DEB", "--config", build / "CPackConfig.cmake",
                           "-B", directory], capture_output=True, text=True, check=False,
                          timeout=10 * MINUTES, cwd=directory)
    assert done.returncode == 0, done.stdout + done.stderr
    [made] = directory.glob("*.deb")
    return made


@pytest.fixture(scope="session")
def unpacked(package, tmp_path_factory):
    """The files of the package."""
    directory = tmp_path_factory.mktemp("unpacked")
    subprocess.run(["dpkg-deb", "-x", package, directory], check=True)
    return directory
