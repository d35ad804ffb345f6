"""A build backend for this pure-Python package: the wheel is the `tarn` folder plus its metadata,
written with the standard library only (no setuptools, nothing to download)."""

import base64
import hashlib
import io
import os
import tarfile
import zipfile

NAME = "tarn"
VERSION = "0.0.1"
HERE = os.path.dirname(os.path.abspath(__file__))
SUMMARY = ("TarniOSCommonKit from Python: customer-engagement events and in-app communications, "
           "over libtarn.so.1")


def _metadata() -> str:
    with open(os.path.join(HERE, "README.md"), encoding="utf-8") as readme:
        description = readme.read()
    return (f"Metadata-Version: 2.1\nName: {NAME}\nVersion: {VERSION}\nSummary: {SUMMARY}\n"
            "License: MIT\nRequires-Python: >=3.9\n"
            f"Description-Content-Type: text/markdown\n\n{description}")


def _package_files():
    folder = os.path.join(HERE, NAME)
    for name in sorted(os.listdir(folder)):
        path = os.path.join(folder, name)
        if os.path.isfile(path) and (name.endswith(".py") or name == "py.typed"):
            yield f"{NAME}/{name}", path


def get_requires_for_build_wheel(config_settings=None):
    return []


def get_requires_for_build_sdist(config_settings=None):
    return []


def build_wheel(wheel_directory, config_settings=None, metadata_directory=None):
    dist_info = f"{NAME}-{VERSION}.dist-info"
    wheel_name = f"{NAME}-{VERSION}-py3-none-any.whl"
    records = []

    def add(archive, name, data):
        archive.writestr(name, data)
        digest = base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=").decode()
        records.append(f"{name},sha256={digest},{len(data)}")

    with zipfile.ZipFile(os.path.join(wheel_directory, wheel_name), "w",
                         zipfile.ZIP_DEFLATED) as archive:
        for name, path in _package_files():
            with open(path, "rb") as source:
                add(archive, name, source.read())
        add(archive, f"{dist_info}/METADATA", _metadata().encode("utf-8"))
        add(archive, f"{dist_info}/WHEEL",
            b"Wheel-Version: 1.0\nGenerator: wheel_backend\nRoot-Is-Purelib: true\n"
            b"Tag: py3-none-any\n")
        records.append(f"{dist_info}/RECORD,,")
        archive.writestr(f"{dist_info}/RECORD", "\n".join(records) + "\n")
    return wheel_name


def build_sdist(sdist_directory, config_settings=None):
    base = f"{NAME}-{VERSION}"
    name = f"{base}.tar.gz"
    with tarfile.open(os.path.join(sdist_directory, name), "w:gz") as archive:
        for relative in ["pyproject.toml", "wheel_backend.py", "README.md"]:
            archive.add(os.path.join(HERE, relative), f"{base}/{relative}")
        for relative, path in _package_files():
            archive.add(path, f"{base}/{relative}")
        info = _metadata().encode("utf-8")
        entry = tarfile.TarInfo(f"{base}/PKG-INFO")
        entry.size = len(info)
        archive.addfile(entry, io.BytesIO(info))
    return name
