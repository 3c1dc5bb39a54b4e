"""The build backend of korvane-logging: wheels and a source archive, made with the standard
library alone, on every Python from 3.9.

pip calls these hooks (PEP 517, and PEP 660 for `pip install -e`). They need nothing beyond
Python itself, so the package installs into any fresh virtual environment without network,
with or without build isolation. The metadata comes from the [project] table of
pyproject.toml.
"""

from __future__ import annotations

import base64
import hashlib
import io
import tarfile
import zipfile
from pathlib import Path

ROOT = Path(__file__).resolve().parent
PACKAGE = "korvane_logging"
# Fixed file times, so that a build of the same sources gives the same bytes.
EPOCH = 315532800  # 1980-01-01, the earliest time a zip file can hold


def _project() -> dict:
    text = (ROOT / "pyproject.toml").read_text(encoding="utf-8")
    try:
        import tomllib
    except ModuleNotFoundError:  # Python before 3.11
        return parse_toml(text)["project"]
    return tomllib.loads(text)["project"]


class _Toml:
    """A reader of the part of TOML that pyproject.toml files use: tables, keys (bare, dotted
    or quoted), basic and literal strings, integers, booleans, arrays and inline tables, and
    comments. What it cannot read raises ValueError."""

    def __init__(self, text: str) -> None:
        self.text, self.at = text, 0

    def fail(self, what: str) -> ValueError:
        line = self.text.count("\n", 0, self.at) + 1
        return ValueError(f"pyproject.toml, line {line}: {what}")

    def skip(self, newlines: bool) -> None:
        """Steps over blanks and comments, and over line ends when `newlines`."""
        while self.at < len(self.text):
            char = self.text[self.at]
            if char == "#":
                end = self.text.find("\n", self.at)
                self.at = len(self.text) if end < 0 else end
            elif char in " \t\r" or (newlines and char == "\n"):
                self.at += 1
            else:
                return

    def key(self) -> list[str]:
        parts = []
        while True:
            self.skip(False)
            char = self.text[self.at:self.at + 1]
            if char in ('"', "'"):
                parts.append(self.string())
            else:
                start = self.at
                while self.at < len(self.text) and (self.text[self.at].isalnum()
                                                    or self.text[self.at] in "-_"):
                    self.at += 1
                if start == self.at:
                    raise self.fail("a key is missing")
                parts.append(self.text[start:self.at])
            self.skip(False)
            if self.text[self.at:self.at + 1] != ".":
                return parts
            self.at += 1

    def string(self) -> str:
        quote = self.text[self.at]
        self.at += 1
        out = []
        while self.at < len(self.text):
            char = self.text[self.at]
            self.at += 1
            if char == quote:
                return "".join(out)
            if char == "\n":
                break
            if char == "\\" and quote == '"':
                escape = self.text[self.at:self.at + 1]
                self.at += 1
                if escape in "uU":
                    digits = 4 if escape == "u" else 8
                    out.append(chr(int(self.text[self.at:self.at + digits], 16)))
                    self.at += digits
                    continue
                simple = {"n": "\n", "t": "\t", "r": "\r", "b": "\b", "f": "\f",
                          '"': '"', "\\": "\\"}
                if escape not in simple:
                    raise self.fail(f"unknown escape \\{escape}")
                out.append(simple[escape])
            else:
                out.append(char)
        raise self.fail("a string is not closed on its line")

    def value(self) -> object:
        self.skip(False)
        char = self.text[self.at:self.at + 1]
        if char in ('"', "'"):
            if self.text.startswith(char * 3, self.at):
                raise self.fail("multi-line strings are not supported")
            return self.string()
        if char == "[":
            self.at += 1
            items = []
            while True:
                self.skip(True)
                if self.text[self.at:self.at + 1] == "]":
                    self.at += 1
                    return items
                items.append(self.value())
                self.skip(True)
                if self.text[self.at:self.at + 1] == ",":
                    self.at += 1
                elif self.text[self.at:self.at + 1] != "]":
                    raise self.fail("an array needs a comma or ]")
        if char == "{":
            self.at += 1
            table: dict = {}
            self.skip(False)
            if self.text[self.at:self.at + 1] == "}":
                self.at += 1
                return table
            while True:
                self.assign(table)
                self.skip(False)
                char = self.text[self.at:self.at + 1]
                self.at += 1
                if char == "}":
                    return table
                if char != ",":
                    raise self.fail("an inline table needs a comma or }")
        end = self.at
        while end < len(self.text) and self.text[end] not in ",]}#\n \t\r":
            end += 1
        word, self.at = self.text[self.at:end], end
        if word in ("true", "false"):
            return word == "true"
        try:
            return int(word.replace("_", ""), 0)
        except ValueError:
            raise self.fail(f"cannot read the value {word!r}") from None

    def assign(self, table: dict) -> None:
        *path, last = self.key()
        if self.text[self.at:self.at + 1] != "=":
            raise self.fail("a key needs =")
        self.at += 1
        for part in path:
            table = table.setdefault(part, {})
        if last in table:
            raise self.fail(f"the key {last!r} is given twice")
        table[last] = self.value()

    def document(self) -> dict:
        root: dict = {}
        table = root
        while True:
            self.skip(True)
            if self.at >= len(self.text):
                return root
            if self.text[self.at] == "[":
                if self.text.startswith("[[", self.at):
                    raise self.fail("arrays of tables are not supported")
                self.at += 1
                table = root
                for part in self.key():
                    table = table.setdefault(part, {})
                if self.text[self.at:self.at + 1] != "]":
                    raise self.fail("a table header needs ]")
                self.at += 1
            else:
                self.assign(table)
            self.skip(False)
            if self.at < len(self.text) and self.text[self.at] != "\n":
                raise self.fail("a line holds more than one value")


def parse_toml(text: str) -> dict:
    """`text` read as TOML, for Pythons without tomllib: the subset that pyproject.toml uses."""
    return _Toml(text).document()


def _names(project: dict) -> tuple[str, str]:
    """The distribution's name as file names spell it, and its version."""
    return project["name"].replace("-", "_"), project["version"]


def _metadata(project: dict) -> str:
    fields = [("Metadata-Version", "2.1"), ("Name", project["name"]),
              ("Version", project["version"]), ("Summary", project.get("description", "")),
              ("Requires-Python", project.get("requires-python", ""))]
    fields += [("Classifier", classifier) for classifier in project.get("classifiers", [])]
    fields += [("Requires-Dist", requirement) for requirement in project.get("dependencies", [])]
    for extra, requirements in project.get("optional-dependencies", {}).items():
        fields.append(("Provides-Extra", extra))
        fields += [("Requires-Dist", f'{requirement}; extra == "{extra}"')
                   for requirement in requirements]
    readme = project.get("readme", {})
    if isinstance(readme, dict) and "text" in readme:
        fields.append(("Description-Content-Type", readme.get("content-type", "text/plain")))
    text = "".join(f"{key}: {value}\n" for key, value in fields if value)
    return text + ("\n" + readme["text"] + "\n" if isinstance(readme, dict) and "text" in readme
                   else "")


def _dist_info(project: dict) -> dict[str, bytes]:
    """The files of the .dist-info folder but RECORD, by name."""
    wheel = "Wheel-Version: 1.0\nGenerator: korvane build_backend\nRoot-Is-Purelib: true\n" \
            "Tag: py3-none-any\n"
    return {"METADATA": _metadata(project).encode(), "WHEEL": wheel.encode(),
            "top_level.txt": f"{PACKAGE}\n".encode()}


def _package_files() -> list[Path]:
    """The package's modules; what an installation writes beside them is not part of it."""
    return sorted(path for path in (ROOT / PACKAGE).rglob("*.py")
                  if "__pycache__" not in path.parts and path.name != "_installed.py")


def _digest(data: bytes) -> str:
    return "sha256=" + base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(
        b"=").decode()


def _write_wheel(directory: str, contents: dict[str, bytes]) -> str:
    """A wheel of `contents` (archive name to bytes) and its dist-info, in `directory`."""
    project = _project()
    name, version = _names(project)
    info = f"{name}-{version}.dist-info"
    files = dict(contents)
    files.update({f"{info}/{key}": data for key, data in _dist_info(project).items()})
    record = "".join(f"{path},{_digest(data)},{len(data)}\n" for path, data in files.items())
    files[f"{info}/RECORD"] = (record + f"{info}/RECORD,,\n").encode()
    wheel_name = f"{name}-{version}-py3-none-any.whl"
    with zipfile.ZipFile(Path(directory) / wheel_name, "w", zipfile.ZIP_DEFLATED) as wheel:
        for path, data in files.items():
            entry = zipfile.ZipInfo(path, date_time=(1980, 1, 1, 0, 0, 0))
            entry.external_attr = 0o644 << 16
            entry.compress_type = zipfile.ZIP_DEFLATED
            wheel.writestr(entry, data)
    return wheel_name


def get_requires_for_build_wheel(config_settings: dict | None = None) -> list[str]:
    return []


def get_requires_for_build_editable(config_settings: dict | None = None) -> list[str]:
    return []


def get_requires_for_build_sdist(config_settings: dict | None = None) -> list[str]:
    return []


def prepare_metadata_for_build_wheel(metadata_directory: str,
                                     config_settings: dict | None = None) -> str:
    project = _project()
    name, version = _names(project)
    info = Path(metadata_directory) / f"{name}-{version}.dist-info"
    info.mkdir(parents=True, exist_ok=True)
    for key, data in _dist_info(project).items():
        (info / key).write_bytes(data)
    return info.name


prepare_metadata_for_build_editable = prepare_metadata_for_build_wheel


def build_wheel(wheel_directory: str, config_settings: dict | None = None,
                metadata_directory: str | None = None) -> str:
    return _write_wheel(wheel_directory, {path.relative_to(ROOT).as_posix(): path.read_bytes()
                                          for path in _package_files()})


def build_editable(wheel_directory: str, config_settings: dict | None = None,
                   metadata_directory: str | None = None) -> str:
    """A wheel whose .pth file puts this source folder on the path: edits take effect."""
    return _write_wheel(wheel_directory, {f"_{PACKAGE}_editable.pth": f"{ROOT}\n".encode()})


def build_sdist(sdist_directory: str, config_settings: dict | None = None) -> str:
    project = _project()
    name, version = _names(project)
    base = f"{name}-{version}"
    members = [ROOT / "pyproject.toml", Path(__file__).resolve(), *_package_files(),
               *sorted((ROOT / "tests").glob("*.py"))]
    archive_name = f"{base}.tar.gz"
    with tarfile.open(Path(sdist_directory) / archive_name, "w:gz", format=tarfile.PAX_FORMAT) \
            as archive:
        files = {f"{base}/{path.relative_to(ROOT).as_posix()}": path.read_bytes()
                 for path in members}
        files[f"{base}/PKG-INFO"] = _metadata(project).encode()
        for path, data in files.items():
            member = tarfile.TarInfo(path)
            member.size, member.mtime, member.mode = len(data), EPOCH, 0o644
            archive.addfile(member, io.BytesIO(data))
    return archive_name
