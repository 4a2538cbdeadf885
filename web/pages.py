#!/usr/bin/env python3
"""Prints the single-byte code pages of this system's C library as a C++ header: pages.py > pages.h"""

import ctypes
import errno
import re
import string
import subprocess

NEEDED = ("CP437", "CP737", "CP866", "CP1252", "KOI8-U", "MAC-CYRILLIC")
# What texts of tables cannot do without; pages in which they stand elsewhere are none of tables.
KEPT = (string.ascii_letters + string.digits + " _").encode()

libc = ctypes.CDLL(None, use_errno=True)
libc.iconv_open.restype = ctypes.c_void_p
libc.iconv.argtypes = [ctypes.c_void_p] + 4 * [ctypes.c_void_p]
libc.iconv.restype = ctypes.c_size_t
libc.iconv_close.argtypes = [ctypes.c_void_p]


class SeveralBytes(Exception):
    """A byte that only begins a character."""


def names():
    listed = subprocess.run(["iconv", "-l"], capture_output=True, text=True, check=True).stdout
    found = {name.rstrip("/").upper() for name in listed.replace(",", " ").split()}
    return sorted(name for name in found if re.fullmatch(r"[A-Z0-9_.:+()-]+", name))


def letter(converter, byte):
    """The character of a byte as UTF-16, 0 when there is none or more than one."""
    source, target = ctypes.create_string_buffer(bytes([byte])), ctypes.create_string_buffer(16)
    start, left = ctypes.c_void_p(ctypes.addressof(source)), ctypes.c_size_t(1)
    to, room = ctypes.c_void_p(ctypes.addressof(target)), ctypes.c_size_t(16)
    given = ctypes.byref(to), ctypes.byref(room)
    libc.iconv(converter, None, None, None, None)
    failed = libc.iconv(converter, ctypes.byref(start), ctypes.byref(left), *given) == ctypes.c_size_t(-1).value
    if failed and ctypes.get_errno() == errno.EINVAL:
        raise SeveralBytes
    libc.iconv(converter, None, None, *given)  # some letters are held back
    written = target.raw[: 16 - room.value]
    return 0 if failed or len(written) != 2 else int.from_bytes(written, "little")


def letters(name):
    """The characters of all bytes; None for what is no single-byte page."""
    converter = libc.iconv_open(b"UTF-16LE", name.encode())
    if ctypes.c_ssize_t(converter).value == -1:
        return None
    try:
        return tuple(letter(converter, byte) for byte in range(256))
    except SeveralBytes:
        return None
    finally:
        libc.iconv_close(converter)


tables, pages = {}, {}
for page in names():
    found = letters(page)
    if found is not None and all(found[byte] == byte for byte in KEPT):
        pages[page] = tables.setdefault(found, len(tables))
lacking = [page for page in NEEDED if page not in pages]
if lacking:
    raise SystemExit(f"the C library lacks {', '.join(lacking)}; libc-bin and libc6 have them (on newer systems libc-gconv-modules-extra)")
print("// Made by pages.py: bytes as UTF-16, 0 where a byte stands for nothing; names in order.")
print("struct PageName {\n    const char* name;\n    unsigned char table;\n};")
print(f"constexpr unsigned short kLetters[{len(tables)}][256] = {{")
for values in tables:
    print("    {" + ", ".join(map(str, values)) + "},")
print("};\nconstexpr PageName kPages[] = {")
for page, number in pages.items():
    print(f'    {{"{page}", {number}}},')
print("};")
