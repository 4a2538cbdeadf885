#!/usr/bin/env python3
"""Prints the single-byte code pages of this system's C library as a C++ header: pages.py > pages.h"""

import ctypes

NAMES = (
    [f"CP{n}" for n in (437, 737, 775, 850, 852, 855, 857, 858, 860, 861, 862, 863, 864, 865, 866, 869, 874)]
    + [f"CP{n}" for n in range(1250, 1259)]
    + [f"ISO-8859-{n}" for n in (1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 13, 14, 15, 16)]
    + ["KOI8-R", "KOI8-U", "TIS-620", "MACINTOSH", "MAC-CYRILLIC", "MAC-CENTRALEUROPE"]
)
ALIASES = {"IBM": "CP", "WINDOWS-": "CP"}

libc = ctypes.CDLL(None, use_errno=True)
libc.iconv_open.restype = ctypes.c_void_p
libc.iconv.argtypes = [ctypes.c_void_p] + 4 * [ctypes.c_void_p]
libc.iconv.restype = ctypes.c_size_t


def letter(converter, byte):
    """The character of a byte as UTF-16, 0 when there is none or more than one."""
    source, target = ctypes.create_string_buffer(bytes([byte])), ctypes.create_string_buffer(16)
    start, left = ctypes.c_void_p(ctypes.addressof(source)), ctypes.c_size_t(1)
    to, room = ctypes.c_void_p(ctypes.addressof(target)), ctypes.c_size_t(16)
    given = ctypes.byref(to), ctypes.byref(room)
    libc.iconv(converter, None, None, None, None)
    failed = libc.iconv(converter, ctypes.byref(start), ctypes.byref(left), *given) == ctypes.c_size_t(-1).value
    libc.iconv(converter, None, None, *given)  # some letters are held back
    written = target.raw[: 16 - room.value]
    return 0 if failed or len(written) != 2 else int.from_bytes(written, "little")


def table(name):
    converter = libc.iconv_open(b"UTF-16LE", name.encode())
    if ctypes.c_ssize_t(converter).value == -1:
        raise SystemExit(f"the C library lacks {name}; libc-bin and libc6 have it (on newer systems libc-gconv-modules-extra)")
    return [letter(converter, byte) for byte in range(0x80, 0x100)]


tables = [table(name) for name in NAMES]
print("// Made by pages.py: bytes 80 to FF as UTF-16, 0 where a byte stands for nothing.")
print("struct PageName {\n    const char* name;\n    int table;\n};")
print(f"constexpr unsigned short kLetters[{len(tables)}][128] = {{")
for values in tables:
    print("    {" + ", ".join(map(str, values)) + "},")
print("};\nconstexpr PageName kPages[] = {")
for number, name in enumerate(NAMES):
    print(f'    {{"{name}", {number}}},')
    for alias, start in ALIASES.items():
        if name.startswith(start):
            print(f'    {{"{alias}{name[len(start):]}", {number}}},')
print("};")
