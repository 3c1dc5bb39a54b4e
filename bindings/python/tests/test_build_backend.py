"""The build backend reads pyproject.toml on Pythons without tomllib, and builds a wheel."""

import importlib.util
import zipfile
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parent.parent
_spec = importlib.util.spec_from_file_location("build_backend", ROOT / "build_backend.py")
backend = importlib.util.module_from_spec(_spec)
_spec.loader.exec_module(backend)

READABLE = [(ROOT / "pyproject.toml").read_text(), 'a = "tab\\tquote\\" \\u00e9 \\\\"\n',
            "[t.u]\nk = 'C:\\\\literal'  # comment\n'quoted key' = -12\n",
            'list = [\n  "a",  # one\n  "b",\n]\nempty = []\nyes = true\n',
            'inline = { x = 1, "q k" = "v", dotted.key = false }\n[other]\nnested = [[1], []]\n']
UNREADABLE = ['a = """x"""\n', 'a = "no end\n', "a = 1 b = 2\n", "[[t]]\n", "a = 1\na = 2\n",
              'a = "\\q"\n', "a = [1 2]\n", "= 1\n"]


@pytest.mark.parametrize("text", READABLE)
def test_toml_reads_as_tomllib_does(text):
    tomllib = pytest.importorskip("tomllib")
    assert backend.parse_toml(text) == tomllib.loads(text)


@pytest.mark.parametrize("text", UNREADABLE)
def test_toml_it_cannot_read_is_refused(text):
    with pytest.raises(ValueError, match=r"^pyproject.toml, line \d: "):
        backend.parse_toml(text)


def test_the_wheel_holds_the_package_and_its_metadata(tmp_path):
    project = backend.parse_toml(READABLE[0])["project"]
    with zipfile.ZipFile(tmp_path / backend.build_wheel(str(tmp_path))) as wheel:
        names = wheel.namelist()
        metadata = wheel.read(next(n for n in names if n.endswith("/METADATA"))).decode()
    assert {"korvane_logging/logfile.py", "korvane_logging/_columns.py"} <= set(names)
    assert {f"Name: {project['name']}", f"Version: {project['version']}",
            f"Requires-Python: {project['requires-python']}"} <= set(metadata.splitlines())
