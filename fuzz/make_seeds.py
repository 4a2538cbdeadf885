#!/usr/bin/env python3
"""Writes the starting inputs of the fuzz targets below corpus/, byte for byte."""

import pathlib
import struct
from random import Random

CORPUS = pathlib.Path(__file__).parent / "corpus"
READ_WRITE = 1 << 10


def table(version, columns, records, level7=False, foreign=False, header_length=None):
    """columns: (name, type, length, decimals); records: bytes, deletion flag included."""
    header_size, size = (68, 48) if level7 else (32, 32)
    length = header_size + size * len(columns) + 1
    record_length = 1 + sum(n + (256 * d if t == "C" else 0) for _, t, n, d in columns)
    out = struct.pack("<4BIHH", version, 24, 3, 5, len(records), header_length or length,
                      record_length).ljust(header_size, b"\0")
    for name, kind, n, d in columns:
        entry = name.encode().ljust(32 if level7 else 11, b"\0") + kind.encode()
        entry = entry.ljust(33 if foreign else 34 if level7 else 16, b"\0") + bytes((n, d))
        out += entry.ljust(size, b"\0")
    return out + b"\r" + b"".join(records) + b"\x1a"


def memo_file(family, unit, block, data):
    """A header, then one memo at its block."""
    n = len(data)
    if family == 3:
        header, unit, body = struct.pack("<I", block + 1), 512, data + b"\x1a"
    elif family == 4:
        header = struct.pack("<I14xBBH", block + 1, 2, 1, unit)
        body = struct.pack("<II", 0x0008FFFF, n + 8) + data
    elif family == 1:
        header, body = struct.pack(">IHH", block + 1, 0, unit), struct.pack(">II", 1, n) + data
    else:
        header, body = struct.pack("<IH", block + 1, unit) + b"SIxMemo\0", data
    return header.ljust(unit * block, b"\0") + body


def table_input(options, memo, body):
    return struct.pack("<IH", options, len(memo)) + memo + body


ALL_TYPES = [("TEXT", "C", 6, 0), ("NUMBER", "N", 7, 2), ("FLOATING", "F", 3, 2), ("DAY", "D", 8, 0),
             ("LOGIC", "L", 1, 0), ("MOMENT", "T", 8, 0), ("DIGITS", "T", 14, 0), ("STAMP", "@", 8, 0),
             ("COUNT", "I", 4, 0), ("AUTO", "+", 4, 0), ("MONEY", "Y", 8, 0), ("DOUBLE", "B", 8, 3),
             ("ORDERED", "O", 8, 0), ("RAW", "Q", 3, 0), ("ANY", "V", 3, 0), ("SYSTEM", "0", 1, 0)]
VALUES = (b"Ann   " b"  -1.50" b".50" b"20240229" b"T" + struct.pack("<ii", 2460370, 50829000) +
          b"20240229140709" + struct.pack("<ii", 2460370, 50829000) + struct.pack("<i", -7) +
          struct.pack("<i", 42) + struct.pack("<q", 123456) + struct.pack("<d", -2.5) +
          bytes.fromhex("bff0000000000000") + b"\1\2\3" b"any" b"\1")
MEMO = [("NAME", "C", 4, 0), ("NOTE", "M", 10, 0)]
TALL = b" " + VALUES


def tables():
    digits = [b" one " + b"1".rjust(10), b"*two " + b" " * 10]
    reference = b" smt " + struct.pack("<HII", 0, 5, 16)
    foreign = [(n, t, s, d) for n, t, s, d in ALL_TYPES if t in "CI@L"]
    row = b" Ann   T" + struct.pack(">d", 63844934829000.0) + struct.pack(">I", 0x80000005)
    wide = [("WIDE", "C", 44, 1)]
    yield "all", table_input(0, b"", table(3, ALL_TYPES, [TALL, b"*" + VALUES]))
    yield "all-dates", table_input(2 | 1 << 3 | 0x2F << 24, b"", table(3, ALL_TYPES, [TALL]))
    yield "all-edited", table_input(READ_WRITE | 5, b"", table(0x30, ALL_TYPES, [TALL] * 3))
    yield "level7", table_input(READ_WRITE, b"", table(0x8C, ALL_TYPES, [TALL], level7=True))
    yield "foreign", table_input(3, b"", table(4, foreign, [row], level7=True, foreign=True))
    for name, version, family, unit in (("dbase3", 0x83, 3, 512), ("dbase4", 0x8B, 4, 32),
                                        ("foxpro", 0xF5, 1, 16)):
        memo = memo_file(family, unit, 1 if unit == 512 else 2, b"hello")
        rows = [r.replace(b" 1", b" 2") for r in digits] if unit != 512 else digits
        yield name, table_input(READ_WRITE | 1 << 6, memo, table(version, MEMO, rows))
    small = [("NAME", "C", 4, 0), ("NOTE", "M", 4, 0)]
    yield "visual", table_input(READ_WRITE, memo_file(1, 64, 1, b"hello"),
                                table(0x30, small, [b" one \1\0\0\0"]))
    yield "smt", table_input(READ_WRITE | 1 << 6, memo_file(0, 32, 16, b"hello"),
                             table(0xE5, MEMO, [reference]))
    # References and lengths that lead nowhere.
    huge = [b" one " + b"2147483648", b" two " + b"4294967295", b" neg " + b"        -1"]
    yield "huge-blocks", table_input(READ_WRITE, memo_file(1, 65535, 1, b"x")[:64],
                                     table(0xF5, MEMO, huge))
    endless = memo_file(1, 16, 2, b"hello")[:36] + b"\xff\xff\xff\xff" + b"tail"
    yield "huge-length", table_input(0, endless, table(0xF5, MEMO, [b" one " + b"2".rjust(10)]))
    short = memo_file(4, 32, 2, b"hello")[:68] + struct.pack("<I", 7) + b"tail"
    yield "short-length", table_input(0, short, table(0x8B, MEMO, [b" one " + b"2".rjust(10)]))
    yield "unit-0", table_input(READ_WRITE, memo_file(4, 0, 1, b"zero"), table(0x8B, MEMO, digits))
    yield "smt-all-ones", table_input(READ_WRITE, memo_file(0, 1, 1, b"x"),
                                      table(0xE5, MEMO, [b" smt " + b"\xff" * 10]))
    yield "smt-short", table_input(0, b"", table(0xE5, [("NAME", "C", 4, 0), ("NOTE", "M", 0, 0)],
                                                 [b" smt "]))
    # Headers that promise more, or less, than there is.
    yield "wide", table_input(READ_WRITE, b"", table(3, wide, [b" " + b"w" * 300]))
    yield "reversed", table_input(READ_WRITE | 1 << 7, b"", table(3, wide, [b" " * 301] * 2))
    yield "long-header", table_input(READ_WRITE, b"", table(3, ALL_TYPES, [], header_length=65535))
    yield "no-fields", table_input(READ_WRITE, b"", b"\x03".ljust(8, b"\0") +
                                   struct.pack("<HH", 70, 0) + bytes(20) + b"\r" + b"x" * 120)


def sessions():
    """Programs of a few hundred bytes that begin with records and memos in them."""
    for kind in range(6):
        for wide in (0, 1):
            random = Random(2 * kind + wide)
            start = b"".join(bytes((0, 0, 8)) + b"name%d  " % i + bytes((0, i)) + bytes((2, i, 40)) +
                             b"memo %d " % i * 5 + bytes((i, 0, 8)) for i in range(6))
            yield f"{kind}-{'wide' if wide else 'small'}", (
                bytes((kind, 0 if wide else 1)) + start + random.randbytes(300))


def values():
    """Three flavours; every column gets raw bytes, a moment, a text and a number."""
    step = [b"12.345", b"20240229140709", b"29.02.2024 14:07:09", b"02.29.2024", b"2024.02.29"]
    numbers = [0.5, -1.5, 1e300, 2147483648.0, 12.34565, float("nan"), 922337203685477.5]
    for flavour in range(3):
        random = Random(flavour)
        out = bytes((flavour, 10, 2, 3, 2, 4, 9))
        for column in range(18):
            text = step[column % len(step)]
            out += bytes((column, random.randrange(64))) + random.randbytes(14 if column == 11 else 8)
            out += bytes((column, 64 + random.randrange(6))) + struct.pack("<hbbbbb", 2024, 2, 29, 14, 7, 9)
            out += bytes((column, 128 + random.randrange(6), len(text))) + text
            out += b"\3" + struct.pack("<d", numbers[column % len(numbers)])
        yield f"flavour-{flavour}", out
    # Digits beyond what a double keeps, and the last day of four hundred years from March on.
    out = bytes((0, 20, 2, 20, 17, 4, 9))
    for digits in (b"12345678901234567.89", b"  -900719925474099.3", b" 1234567890123.4500",
                   b"0.12345678901234567", b"-0.0000000000000001"):
        out += b"".join(bytes((column, 0)) + digits.rjust(20) for column in (1, 2))
    for year in (0, 400, 2000, 9600):
        out += bytes((10, 65)) + struct.pack("<hbbbbb", year, 2, 29, 23, 59, 59)
    yield "edges", out


ARITHMETIC = """1+2*3-4/5
(1.5e3-.5)*-2^3
2^-1^2
ROUND(2.5)+TRUNC(-2.5)
sqrt(sqr(3)+SQR(4))
LOG(10)*LOG10(100)/EXP(1)
sin(1)+cos(1)+tan(1)+asin(1)+acos(1)+atan(1)
SINH(1)-COSH(1)*TANH(ABS(-1))
POW10(2)
PI*2
1/0
-0/0
((((((((((1))))))))))
1+(2+(3+(4+(5+(6+(7+(8+(9
99999999999999999999999999999999999999999999999999999999999999999999999999999999
12345678901234567890*0.000000001+1e308*10
1=2
 1 + + 2 
0x1F"""

STRINGS = """TRIM(  a  )
LTRIM(  a  )RTRIM(  b  )
SUBSTR(abcdef,2,3)
substr(abcdef,-1,99999999999)
LEFT(abc,2) RIGHT(abc,2)
DTOS(05.03.2024 14:07:09)
DTOS(2024)
UPPER(TRIM( a ))
CAP(two words)LOWER(ABC)
SPACE(5)REPLICATE(x,3)
TRIM((a)
UPPER(LEFT(SUBSTR(  nested text,2,8),5)
trim()left(,)"""

FILTERS = """PRICE>10
NAME=An
NAME==Ann
NAME~nn&QTY<3|FLAG=T
PRICE>QTY*2
PRICE>10&(QTY=1|(QTY=2&CNT<>0))
NAME="Andrew (x"
NAME=UPPER(ann)
(PRICE>10)
PRICE>10|(QTY=1
DBL>=ORD
CASH>=0.0001&FINE<1e9
BORN=20240305
SEEN>01.01.2024
MEMO~Full
FRAC=.50&WIDE=1.5
NAME=
NOTE^longer
QTY=<5&QTY=>1&QTY><3
CNT=-1&CNT~<5"""


def texts(lines, prefix):
    """Every flavour of the options in turn."""
    for i, line in enumerate(lines.split("\n")):
        options = bytes((i * 37 % 128, i * 5 % 20, i % 2))[:prefix]
        yield f"{i:02}", options + line.encode()


def write(target, seeds):
    folder = CORPUS / target
    folder.mkdir(parents=True, exist_ok=True)
    for name, content in seeds:
        (folder / name).write_bytes(content)


write("table", tables())
write("session", sessions())
write("values", values())
write("arithmetic", texts(ARITHMETIC, 0))
write("strings", texts(STRINGS, 2))
write("filter", texts(FILTERS, 3))
