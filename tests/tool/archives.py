"""Tables in archives read as they do beside them, and hostile archives do no harm:

    archives.py MIRA_PROGRAM SAMPLES_FOLDER
"""

import os
import pathlib
import signal
import struct
import subprocess
import sys
import tempfile
import time
import warnings
import zipfile

warnings.simplefilter("ignore")  # of duplicate names

MIRA, SAMPLES = os.path.abspath(sys.argv[1]), pathlib.Path(sys.argv[2]).resolve()
STOCK = (SAMPLES / "stock.dbf").read_bytes()
FILES = {path.name: path.read_bytes() for path in SAMPLES.iterdir() if path.is_file()}


def run(*words, fine=0):
    done = subprocess.run([MIRA, *words], capture_output=True, text=True, check=False)
    assert done.returncode == fine, (words, done.returncode, done.stdout, done.stderr)
    return done.stdout, done.stderr


def pack(name, files, method=zipfile.ZIP_DEFLATED, patch=None):
    """files: names, texts or raw bytes, with what they hold. patch: bytes of the whole archive."""
    with zipfile.ZipFile(name, "w", method) as archive:
        for path, data in files:
            raw = "x" * len(path) if isinstance(path, bytes) else path
            info = raw if isinstance(raw, zipfile.ZipInfo) else zipfile.ZipInfo(raw)
            info.compress_type = method
            archive.writestr(info, data)
    whole = pathlib.Path(name).read_bytes()
    for path, _ in files:
        if isinstance(path, bytes):
            whole = whole.replace(b"x" * len(path), path)
    pathlib.Path(name).write_bytes(patch(whole) if patch else whole)


def same_as_beside():
    pack("all.zip", FILES.items())
    tables = sorted(str(path) for path in SAMPLES.glob("*.dbf"))
    for table in tables:
        inside = "all.zip/" + os.path.basename(table)
        for command in (["show"], ["export"], ["export", "-F", "jsonl"], ["check"], ["info", "--json"]):
            out, err = run(*command, inside, fine=None or run_status(command, table))
            plain = subprocess.run([MIRA, *command, table], capture_output=True, text=True, check=False)
            assert out.replace("all.zip", str(SAMPLES)) == plain.stdout, (command, table, out)
            assert err.replace("all.zip", str(SAMPLES)) == plain.stderr, (command, table, err)
    for line in ("SELECT count(*) FROM stock", "SELECT * FROM orders JOIN stock USING (CODE)"):
        assert run("query", line, "all.zip") == run("query", line, str(SAMPLES))
    assert run("query", "SELECT mira_attach('all.zip')", "-F", "csv")[0].endswith(f"{len(tables)} tables\n")
    assert len(run("tables", "all.zip")[0].splitlines()) == 1 + len(tables)
    run("export", "all.zip", "-o", "out")
    assert len(os.listdir("out")) == len(tables)
    pathlib.Path("empty.html").write_text("<!-- tables -->")
    os.environ["MIRA_PAGE"] = "empty.html"
    for place in ("all.zip", SAMPLES):
        run("page", f"{place}/members", "-o", f"{pathlib.Path(place).stem}.html")
    assert pathlib.Path("all.html").read_text() == pathlib.Path("samples.html").read_text()
    assert "only read" in run("set", "all.zip/stock", "PRICE=1", "--all", fine=2)[1]
    assert "which one" in run("show", "all.zip", fine=2)[1]
    assert "did you mean all.zip/stock" in run("show", "all.zip/stok", fine=2)[1]


def run_status(command, table):
    return subprocess.run([MIRA, *command, table], capture_output=True, check=False).returncode


def names():
    pack("names.zip", [("Склад/STOCK.DBF", STOCK), ("a\\b.dbf", STOCK),
                       ("прайс.dbf".encode("cp866"), STOCK)])
    found = run("tables", "names.zip")[0]
    for name in ("Склад/STOCK.DBF", "a/b.dbf", "прайс.dbf"):
        assert name in found, found
    pack("west.zip", [("Grün.dbf".encode("cp437"), STOCK)])
    assert run("show", "west.zip/GRÜN") == run("show", str(SAMPLES / "stock.dbf"))
    members = {"UP/MEMBERS.DBF": "members.dbf", "UP/Members.FPT": "members.fpt", "UP/MEMBERS.CPG": None}
    pack("upper.zip", [(name, FILES[of] if of else b"1251") for name, of in members.items()])
    there = run("export", "upper.zip")[0]
    assert there == run("export", "--code-page", "1251", str(SAMPLES / "members.dbf"))[0]
    run("export", "names.zip", "-o", "named")
    assert pathlib.Path("named/Склад/STOCK.csv").exists()


def hostile():
    link = zipfile.ZipInfo("link.dbf")
    link.create_system, link.external_attr = 3, 0o120777 << 16
    flag = lambda whole: whole.replace(b"PK\1\2\x14\x03\x14\0\0\0", b"PK\1\2\x14\x03\x14\0\1\0").replace(
        b"PK\3\4\x14\0\0\0", b"PK\3\4\x14\0\1\0")
    # The size of the second name's entry, by the central directory, in 64 bits.
    zip64 = struct.pack("<HHQ", 1, 8, (1 << 31) + 1)
    giant = lambda whole: whole.replace(b"\xfe\xca\x08\0" + b"\0" * 8, zip64)
    huge = zipfile.ZipInfo("huge.dbf")
    huge.extra = b"\xfe\xca\x08\0" + b"\0" * 8

    def claim(whole):  # the central directory says that the size stands in the extra field
        at = whole.index(b"PK\1\2")
        return giant(whole[:at + 24] + b"\xff\xff\xff\xff" + whole[at + 28:])

    cases = [
        ("climbs", [("../../evil.dbf", STOCK), ("/abs.dbf", STOCK)], None, "leads out of the archive"),
        ("link", [(link, b"/etc/passwd")], None, "is a link"),
        ("twice", [("twin.dbf", STOCK), ("twin.dbf", STOCK)], None, "more than once"),
        ("locked", [("stock.dbf", STOCK)], flag, "is encrypted"),
        ("crc", [("stock.dbf", STOCK)], lambda w: w[:14] + bytes([w[14] ^ 1]) + w[15:].replace(
            w[14:18], bytes([w[14] ^ 1]) + w[15:18]), "is damaged in the archive"),
        ("cut", [("stock.dbf", STOCK)], lambda w: w[:-30], "cannot be read as an archive"),
        ("none", [("stock.dbf", STOCK)], lambda w: b"no archive" * 30, "cannot be read as an archive"),
        ("giant", [(huge, STOCK)], claim, "more than 2 GiB"),
        ("bomb", [("bomb.dbf", STOCK + bytes(40_000_000))], None, "1000 times its size"),
    ]
    for name, files, patch, sentence in cases:
        pack(name + ".zip", files, patch=patch)
        for command in (["export", name + ".zip", "-o", "hostile.csv"], ["info", name + ".zip"],
                        ["check", name + ".zip"]):
            err = run(*command, fine=2)[1]
            assert sentence in err, (name, command, err)
        run("query", "SELECT 1", name + ".zip", fine=2 if name in ("cut", "none") else 0)
    # What is sound beside it goes on.
    pack("mixed.zip", [("../evil.dbf", STOCK), ("stock.dbf", STOCK)])
    out, err = run("export", "mixed.zip", "-o", "mixed", fine=1)
    assert os.listdir("mixed") == ["stock.csv"] and "leads out" in err, (out, err)
    # Many files may be as much as one.
    pack("many.zip", [(f"t{i}.dbf", bytes(8_000_000)) for i in range(4)] + [("stock.dbf", STOCK)])
    run("check", "many.zip", fine=1)


def leaves_nothing(folder):
    pack("large.zip", [("large.dbf", STOCK[:len(STOCK)] + os.urandom(60_000_000))], zipfile.ZIP_STORED)
    for stop in (signal.SIGINT, signal.SIGKILL):
        for wait in (0.02, 0.1):
            with subprocess.Popen([MIRA, "check", "large.zip"], stdout=subprocess.DEVNULL,
                                  stderr=subprocess.DEVNULL) as process:
                time.sleep(wait)
                process.send_signal(stop)
    assert not os.listdir(folder), os.listdir(folder)


def main():
    with tempfile.TemporaryDirectory() as name:
        os.chdir(name)
        scratch = pathlib.Path(name, "scratch")
        scratch.mkdir()
        os.environ["TMPDIR"] = str(scratch)
        before = subprocess.run([MIRA, "show", "nothing.zip"], capture_output=True, text=True, check=False)
        pack("probe.zip", [("stock.dbf", STOCK)])
        if "without libzip" in subprocess.run([MIRA, "show", "probe.zip"], capture_output=True, text=True, check=False).stderr:
            print("skipped: this mira was built without libzip")
            sys.exit(77)
        assert before.returncode == 2
        same_as_beside()
        names()
        hostile()
        leaves_nothing(scratch)


if __name__ == "__main__":
    main()
