"""Scripts of `mira export` for database servers, run by their own clients on servers of our own:

    servers.py MIRA_PROGRAM SOURCE_FOLDER postgres|mysql

Every cell of every table has to come back from the server as `mira export -F jsonl` gives it: samples,
real tables in MIRA_CORPUS, and tables of all that could be mistaken. Ends with 77 where the server is
not installed.
"""

import base64
import decimal
import glob
import json
import math
import os
import pathlib
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import time

MIRA, SOURCE = pathlib.Path(sys.argv[1]).resolve(), pathlib.Path(sys.argv[2]).resolve()
sys.path.insert(0, str(SOURCE / "samples"))
sys.dont_write_bytecode = True
from make_samples import ordered_double, table  # noqa: E402

NOBODY = 65534


def run(*command, input=None, status=0):
    """Standard output and standard error; bytes."""
    done = subprocess.run([str(part) for part in command], input=input, capture_output=True)
    assert status is None or done.returncode == status, (command, done.returncode, done.stderr[-2000:])
    return done.stdout, done.stderr.decode(errors="replace")


class Server:
    """One that runs in a folder, as nobody where we are root: some refuse to run as root."""

    def start(self, folder):
        self.folder = folder
        as_nobody = {"user": NOBODY, "group": NOBODY, "extra_groups": []} if os.getuid() == 0 else {}
        log = (folder / "log").open("wb")
        own = dict(as_nobody, stdin=subprocess.DEVNULL, stdout=log, stderr=log, cwd=folder,
                   env=dict(os.environ, HOME=str(folder), LC_ALL="C"))
        if as_nobody:
            os.chown(folder, NOBODY, NOBODY)
        subprocess.run(self.prepare(), check=True, **own)
        self.process = subprocess.Popen(self.command(), **own)
        while not run(*self.client[:-1], *self.ask, status=None)[0]:
            if self.process.poll() is not None:
                sys.exit((folder / "log").read_text(errors="replace")[-2000:])
            time.sleep(0.1)

    def name(self, name):
        return name

    def load(self, script, status=0):
        return run(*self.client, input=script, status=status)

    def renew(self):
        """Without any table."""
        run(*self.client[:-1], *self.ask[:-1], self.fresh)

    def answers(self, queries):
        """The rows of each query; cells are bytes in hex, or None."""
        marked = "".join(f"SELECT '==';\n{query};\n" for query in queries)
        parts = self.load(marked.encode())[0].decode().split("==\n")[1:]
        return [[[None if cell == "-" else bytes.fromhex(cell) for cell in line.split("\t")]
                 for line in part.splitlines()] for part in parts]


class Postgres(Server):
    error, ask = 3, ["postgres", "-c", "SELECT 1"]
    programs = sorted(glob.glob("/usr/lib/postgresql/*/bin/postgres"))
    reserved = {"XMIN": "xmin_2"}
    fresh = "DROP SCHEMA public CASCADE; CREATE SCHEMA public"

    def prepare(self):
        self.client = ["psql", "-XqAt", "-F", "\t", "-h", self.folder, "-U", "mira", "postgres"]
        return [pathlib.Path(self.programs[-1]).with_name("initdb"), "-D", "data", "-U", "mira", "-A",
                "trust", "-E", "UTF8", "--locale=C", "-N"]

    def command(self):
        return [self.programs[-1], "-D", "data", "-c", "listen_addresses=", "-c", "fsync=off", "-c",
                f"unix_socket_directories={self.folder}"]

    def name(self, name):
        return re.sub("[A-Z]", lambda letter: letter[0].lower(), name)

    def cell(self, column, kind):
        name = '"' + column.replace('"', '""') + '"'
        given = name if is_binary(kind) else f"convert_to({name}::text, 'UTF8')"
        return f"coalesce(encode({given}, 'hex'), '-')"

    def query(self, name, columns):
        cells = " || E'\\t' || ".join(self.cell(*column) for column in columns)
        name = name.replace('"', '""')
        return f'SELECT {cells} FROM "{name}" ORDER BY _record'

    schema = ("SELECT encode(convert_to(table_name, 'UTF8'), 'hex'), "
              "encode(convert_to(column_name, 'UTF8'), 'hex'), encode(data_type::bytea, 'hex') "
              "FROM information_schema.columns WHERE table_schema = 'public' "
              "ORDER BY table_name, ordinal_position")

    def kept(self, value):
        return value.replace("\0", "\ufffd") if isinstance(value, str) else value


class Mysql(Server):
    error, ask = 1, ["-e", "SELECT 1"]
    programs = [path for path in map(shutil.which, ("mariadbd", "/usr/sbin/mariadbd")) if path]
    reserved = {"E": "E_2"}
    fresh = "DROP DATABASE IF EXISTS mira; CREATE DATABASE mira CHARACTER SET utf8mb4"

    def prepare(self):
        self.client = ["mariadb", "--no-defaults", "-NBr", "-S", self.folder / "socket", "mira"]
        return ["mariadb-install-db", "--no-defaults", f"--datadir={self.folder}/data",
                "--auth-root-authentication-method=normal", "--skip-test-db", "--skip-name-resolve"]

    def command(self):
        return [self.programs[0], "--no-defaults", f"--datadir={self.folder}/data",
                f"--socket={self.folder}/socket", "--skip-networking", "--skip-grant-tables",
                "--innodb-flush-log-at-trx-commit=0", "--innodb-flush-method=nosync",
                "--innodb-doublewrite=0", "--innodb-fast-shutdown=3"]

    def cell(self, column, kind):
        name = "`" + column.replace("`", "``") + "`"
        given = name if is_binary(kind) else f"convert({name} using utf8mb4)"
        return f"ifnull(hex({given}), '-')"

    def query(self, name, columns):
        cells = ", ".join(self.cell(*column) for column in columns)
        name = name.replace("`", "``")
        return f"SET NAMES utf8mb4; SELECT {cells} FROM `{name}` ORDER BY _record"

    schema = ("SELECT hex(convert(table_name using utf8mb4)), hex(convert(column_name using utf8mb4)), "
              "hex(data_type) FROM information_schema.columns WHERE table_schema = 'mira' "
              "ORDER BY table_name, ordinal_position")

    def kept(self, value):
        """Its year 0 is no leap year."""
        return None if isinstance(value, str) and value.startswith("0000-02-29") else value


TEXTS = [text.encode() for text in (
    "", "NULL", "\\N", "\\.", "\\", "'", "\"", "`", "');DROP TABLE x;--", "a\tb\nc\rd\r\ne", "\x01\x1a\x1b\x7f\b",
    "--", "/* */", "$$ %s ${x} :x", "\\x41", " before", "Привет, Ёлка", "中文字", "😀𝄞", "é\u2028ö\u202e", "\\'", "\\\\n",
    "delimiter ;", "x" * 60)]
NUMBERS = [b"12345678", b"1.234567", b"5.08e-7", b"+5", b".5", b"5.", b"1e30", b"-0.00", b"00012.50",
           b"", b".", b"9" * 24, b"-" + b"9" * 24, b"1e-40", b"1e999999", b"0e99999999"]
REALS = [0.0, -0.0, 0.1, 1 / 3, 5e-324, sys.float_info.max, -sys.float_info.max, 1e22, 123456789012345680.0,
         math.nan, math.inf, -math.inf]
DATES = [b"00010101", b"99991231", b"00000101", b"00000229", b"20240229", b"20230229", b"        "]
FIRST_DAY, LAST_DAY = 1721060, 5373484  # 0000-01-01, 9999-12-31


def wide(columns, width, texts):
    names = [(f"F{i}", "C", width, 0) for i in range(columns)]
    return table(0x03, names, [(False, *[text.ljust(width) for _ in names]) for text in texts])


def visual():
    """Texts that are exactly as long as they are, memos, nulls, moments and doubles."""
    columns = [("SELECT", "C", 60, 0), ("VAR", "V", 60, 0, 2), ("BIN", "Q", 60, 0), ("XMIN", "B", 8, 0),
               ("ORDER", "T", 8, 0), ("É", "N", 3, 0, 2), ("E", "Y", 8, 4), ("NOTES", "M", 4, 0, 2),
               ("PICTURE", "G", 4, 0), ("RAW", "C", 9, 0, 4), ("_NullFlags", "0", 1, 0, 5)]
    rows = []
    for i in range(len(TEXTS) + 3):
        text = TEXTS[i] if i < len(TEXTS) else [b"blanks  ", b"zero\0byte", b"\xff"][i - len(TEXTS)]
        moment = [(FIRST_DAY, 0), (LAST_DAY, 86399999), (FIRST_DAY + 59, 1), (2460000, 1), (0, 0)][i % 5]
        short = len(text) < 60
        varying = text.ljust(59, b"\0") + bytes([len(text)]) if short else text
        # Length bits of VAR and BIN, null bits of VAR, of the number and of the memos.
        null = (short * 0b101) | (i % 7 == 3) * 0b010 | (i % 2) * 0b1000
        rows.append((i % 5 == 4, text.replace(b"\0", b" ").ljust(60), varying, varying,
                     struct.pack("<d", REALS[i % len(REALS)]), struct.pack("<ii", *moment),
                     b"%3d" % (i % 100), struct.pack("<q", [2**63 - 1, -2**63, 0, -1][i % 4]), bytes(4),
                     bytes(4), (b"ab\0\xff" if i % 2 else b"plain").ljust(9), bytes([null])))
    return columns, rows


def make_tables(folder):
    (folder / "numbers.dbf").write_bytes(table(
        0x03, [("FITS", "N", 8, 2), ("WHOLE", "N", 9, 0), ("BIG", "N", 25, 0), ("ODD", "N", 25, 2), ("WORSE", "F", 25, 24),
               ("DAY", "D", 8, 0), ("YES", "L", 1, 0)],
        [(False, b"%8.2f" % i, b"%9d" % -i, ([b"9" * 25, b"-" + b"8" * 24] * 9)[i].rjust(25),
          (number if i < 12 else b"1").rjust(25), number.rjust(25), DATES[i % len(DATES)], b"TfyN? x"[i % 7:][:1])
         for i, number in enumerate(NUMBERS)]))
    (folder / "level7.dbf").write_bytes(table(
        0x04, [("E" * 31, "O", 8, 0), ("a\"b`c\\d", "C", 5, 0)],
        [(False, ordered_double(real), b"'\\`\" ") for real in REALS if math.isfinite(real)], level7=True))
    columns, rows = visual()
    name = "we\"ird`na'me;\\ " + "Ж" * 50 + ".dbf"
    (folder / name).write_bytes(table(0x32, columns, rows, code_page=3, backlink=""))
    (folder / name.replace(".dbf", ".fpt")).write_bytes(struct.pack(">IHH", 8, 0, 64).ljust(512, b"\0"))
    for record, (field, memo) in enumerate([("NOTES", b"\n".join(TEXTS[1:])), ("NOTES", b"x" * 3000000),
                                            ("NOTES", b"zero\0byte"), ("PICTURE", bytes(range(256)))], 1):
        run(MIRA, "memo", folder / name, field, record, "--set", "-", "--code-page", "UTF-8", "--no-backup", input=memo)
    (folder / "wide.dbf").write_bytes(wide(250, 250, [b"y" * 250, b"", b"z" * 20]))
    (folder / "many.dbf").write_bytes(wide(1000, 10, [b"", b"u"]))
    (folder / "toomany.dbf").write_bytes(wide(2000, 1, [b"1"]))


SHOWN = ["--record", "--deleted", "include"]
# Two names that are the same as far as the servers take them.
HOSTILE = ["--code-page", "UTF-8", "--calc", "A" * 70 + "=1+1", "--calc", "A" * 70 + "B=2.5"]


def same(value, got, kind):
    """Whether a server's answer is a value of JSON."""
    if value is None or got is None:
        return value is None and got is None
    if isinstance(value, dict):
        bytes_of = base64.b64decode(value["base64"])
        return got == (bytes_of if is_binary(kind) else b"base64:" + base64.b64encode(bytes_of))
    if is_binary(kind):
        return got == value.encode()
    text = got.decode()
    if isinstance(value, bool):
        return text in (("true", "1") if value else ("false", "0"))
    if isinstance(value, decimal.Decimal):
        number = decimal.Decimal(text)
        return number == value or "double" in kind and float(number) == float(value)
    if re.match("date|timestamp", kind):
        text, value = (re.sub(r"\.?0*$", "", part) if "." in part else part
                       for part in (re.sub("^0001(.*) BC$", r"0000\1", text), value.replace("T", " ")))
    return text == value


def is_binary(kind):
    return "bytea" in kind or "blob" in kind or "binary" in kind


def rows_of(path, options):
    """None where there is no table to export."""
    lines, told = run(MIRA, "export", path, "-F", "jsonl", *SHOWN, *options, status=None)
    if not lines and "0 of 0 records" not in told:
        return None
    return [json.loads(line, parse_float=decimal.Decimal, parse_int=decimal.Decimal)
            for line in lines.splitlines()]


def export(server, *arguments, status=None):
    return run(MIRA, "export", "-F", server.format, *SHOWN, *arguments, status=status)


def compare(server, tables, told, options=()):
    """Every cell of the tables, given by their paths. Returns how many there are."""
    renamed = {path: name for name, path in re.findall(r"^mira: (.+) is (.+)$", told, re.M)}
    wanted = {path: rows_of(path, options) for path in tables}
    wanted = {renamed.get(str(path), server.name(path.stem)): rows for path, rows in wanted.items()
              if rows is not None}
    columns = {}
    for table_name, column, kind in server.answers([server.schema])[0]:
        columns.setdefault(table_name.decode(), []).append((column.decode(), kind.decode()))
    assert set(columns) == set(wanted), set(columns) ^ set(wanted)
    answers = server.answers([server.query(name, columns[name]) for name in wanted])
    cells = 0
    for (name, rows), answer in zip(wanted.items(), answers):
        assert len(rows) == len(answer), (name, len(rows), len(answer))
        for row, got in zip(rows, answer):
            assert len(row) == len(got) == len(columns[name]), (name, len(row), len(got))
            for (field, value), cell, (column, kind) in zip(row.items(), got, columns[name]):
                label = server.reserved.get(field, server.name(field))
                assert column == label or len(label) > 60 or "\\" in label, (name, field, column)
                assert same(server.kept(value), cell, kind), (name, row["_record"], field, kind, value, cell)
                cells += 1
    return cells


def prove_real(server):
    corpus = pathlib.Path(os.environ.get("MIRA_CORPUS") or SOURCE / "samples")
    tables = sorted({path for folder in (corpus, SOURCE / "samples") for path in folder.rglob("*")
                     if path.suffix.lower() == ".dbf"})
    server.renew()
    script, told = export(server, *tables)
    server.load(script)
    cells = compare(server, tables, told)
    # Again: a table that is there is left alone, and replaced only when that is wanted.
    server.load(script, status=server.error)
    server.load(export(server, *tables, "--replace")[0])
    assert compare(server, tables, told) == cells
    print(f"{len(tables)} tables, {cells} cells")


def prove_hostile(server, folder):
    make_tables(folder)
    server.renew()
    script, told = export(server, folder, *HOSTILE, status=1)
    assert "toomany.dbf: has 2004 columns, a table of" in told and "that the server cannot keep" in told, told
    # What stops before its end leaves no row.
    server.load(script[:script.rindex(b"COMMIT")])
    names = {row[0].decode() for row in server.answers([server.schema])[0]}
    assert not any(server.answers([server.query(name, [("_record", "")]) for name in names]))
    server.load(export(server, folder, *HOSTILE, "--replace", status=1)[0])
    tables = [path for path in folder.glob("*.dbf") if path.name != "toomany.dbf"]
    print(f"{compare(server, tables, told, HOSTILE)} cells that could be mistaken")


def main():
    server = {"postgres": Postgres, "mysql": Mysql}[sys.argv[3]]()
    server.format = sys.argv[3]
    if not server.programs:
        print(f"skipped: no server for {server.format} is installed")
        return 77
    with tempfile.TemporaryDirectory(prefix="mira-") as name:
        folder = pathlib.Path(name)
        folder.chmod(0o755)
        for part in ("server", "tables"):
            (folder / part).mkdir()
        server.start(folder / "server")
        try:
            prove_real(server)
            prove_hostile(server, folder / "tables")
        finally:
            server.process.terminate()
            server.process.wait()
    return 0


if __name__ == "__main__":
    sys.exit(main())
