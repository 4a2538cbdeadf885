#!/usr/bin/env python3
"""Writes the sample tables beside this file, byte for byte and without the library."""

import datetime
import pathlib
import struct

UPDATED = (124, 3, 5)  # years since 1900, month, day of the last update


def table(version, columns, records, level7=False, code_page=0, backlink=None, flags=0):
    """columns: (name, type, length, decimals[, flags[, next value]]); records: (deleted, field
    bytes...). backlink: path of the database container, 263 bytes behind the descriptors."""
    header_size, descriptor_size = (68, 48) if level7 else (32, 32)
    link = b"" if backlink is None else backlink.encode().ljust(263, b"\0")
    header_length = header_size + descriptor_size * len(columns) + 1 + len(link)
    record_length = 1 + sum(column[2] for column in columns)

    out = struct.pack("<4BIHH", version, *UPDATED, len(records), header_length, record_length)
    out = bytearray(out.ljust(header_size, b"\0"))
    out[28:30] = flags, code_page
    offset = 1
    for name, kind, length, decimals, *counting in columns:
        if level7:
            entry = struct.pack("<32ssxBBH", name.encode(), kind.encode(), length, decimals, offset)
        else:
            entry = struct.pack("<11ssHxxBB", name.encode(), kind.encode(), offset, length, decimals)
            if counting:
                entry += struct.pack("<BIB", counting[0], *(counting[1:] or [0]), 1)
        out += entry.ljust(descriptor_size, b"\0")
        offset += length
    out += b"\x0d" + link

    for deleted, *fields in records:
        record = (b"*" if deleted else b" ") + b"".join(fields)
        assert len(record) == record_length, fields
        out += record
    return bytes(out) + b"\x1a"


def text(value, width, page="ascii"):
    return value.encode(page).ljust(width)


def variable(value, width):
    """Shorter than its field: the last byte is the length, and a bit of the null flags says so."""
    return value if len(value) == width else value.ljust(width - 1, b"\0") + bytes([len(value)])


def number(value, width, decimals=0):
    return (b"" if value is None else f"{value:.{decimals}f}".encode()).rjust(width)


def date(value):
    return value.encode() if value else b" " * 8


def date_time(value):
    """Julian day number and milliseconds since midnight; zeros when blank."""
    if value is None:
        return bytes(8)
    moment = datetime.datetime.fromisoformat(value)
    seconds = moment.hour * 3600 + moment.minute * 60 + moment.second
    return struct.pack("<ii", moment.toordinal() + 1721425,
                       seconds * 1000 + moment.microsecond // 1000)


def ordered_double(value):
    """Big-endian; the sign bit set for values from 0 up, all bits inverted for those below."""
    bits = struct.unpack(">Q", struct.pack(">d", abs(value)))[0] | 1 << 63
    return struct.pack(">Q", bits if value >= 0 else bits ^ (1 << 64) - 1)


def stock():
    columns = [("CODE", "C", 6, 0), ("ITEM", "C", 20, 0), ("PRICE", "N", 8, 2),
               ("STOCK", "N", 5, 0), ("REORDER", "L", 1, 0), ("COUNTED", "D", 8, 0)]
    rows = [
        (False, "BLT040", "Bolt M8 x 40", 0.35, 1200, "F", "20240105"),
        (False, "BLT060", "Bolt M8 x 60", 0.42, 860, "F", "20240105"),
        (False, "NUT008", "Hex nut M8", 0.08, 2400, "F", "20240105"),
        (False, "WSH008", "Washer 8 mm", 0.03, 95, "T", "20240108"),
        (True, "WSH010", "Washer 10 mm", 0.04, 0, "F", "20231120"),
        (False, "HNG100", "Hinge 100 mm", 4.9, 36, "F", "20240229"),
        (False, "LCK002", "Cabinet lock", 12.5, -3, "T", "20240301"),
        (False, "GLU500", "Wood glue 500 g", 7.25, 18, "T", None),
        (False, "SND120", "Sandpaper 120|180", 0.6, 340, "F", "20240301"),
        (False, "DRL006", "Drill bit 6 mm", 3.1, None, "?", None),
        (False, "SAW300", "Panel saw 300 mm", 24.0, 7, "F", "20240304"),
        (False, "RET001", "Returned deposit", -15.0, 1, "N", "20240305"),
    ]
    return table(0x03, columns, [
        (deleted, text(code, 6), text(item, 20), number(price, 8, 2), number(count, 5),
         text(reorder, 1), date(counted))
        for deleted, code, item, price, count, reorder, counted in rows])


def ledger():
    columns = [("ENTRY", "I", 4, 0), ("ACCOUNT", "C", 16, 0), ("AMOUNT", "Y", 8, 4),
               ("RATE", "B", 8, 4), ("POSTED", "T", 8, 0)]
    rows = [
        (1, "Opening balance", 25000000, 1.0, "2024-01-01T00:00:00"),
        (2, "Rent", -8500000, 1.0, "2024-01-02T09:30:00"),
        (3, "Sales EUR", 12345678, 1.0875, "2024-01-15T16:45:12"),
        (4, "Bank charges", -125000, 0.9195, "2024-01-31T23:59:59"),
        (-5, "Reversal", 125000, 0.9195, None),
    ]
    return table(0x30, columns, [
        (False, struct.pack("<i", entry), text(account, 16), struct.pack("<q", amount),
         struct.pack("<d", rate), date_time(posted))
        for entry, account, amount, rate, posted in rows], code_page=3, backlink="")


def parcels():
    columns = [("DestinationDepot", "C", 12, 0), ("Parcel", "I", 4, 0), ("Fee", "N", 7, 2),
               ("TemperatureLimit", "O", 8, 0), ("Shipped", "D", 8, 0)]
    rows = [
        ("Aberdeen", 100001, 12.4, 4.0, "20240301"),
        ("Bergen", 100002, 30.0, -18.5, "20240302"),
        ("Cork", 2147483647, 8.75, 0.0, None),
        ("Dresden", 7, None, 1234.0625, "20240305"),
    ]
    return table(0x04, columns, [
        (False, text(depot, 12), struct.pack(">I", parcel & 0x7FFFFFFF), number(fee, 7, 2),
         ordered_double(limit), date(shipped))
        for depot, parcel, fee, limit, shipped in rows], level7=True)


def customers():
    columns = [("ID", "N", 4, 0), ("NAME", "C", 20, 0), ("CITY", "C", 16, 0), ("CREDIT", "N", 8, 2)]
    rows = [
        (1001, "СтройДвор", "Омск", 500.0),
        (1002, "Мебельщик", "Казань", 1500.0),
        (1003, "Joiner & Sons", "Leeds", None),
        (1004, "Плотник", "Омск", 80.0),
    ]
    return table(0x03, columns, [
        (False, number(id, 4), text(name, 20, "cp866"), text(city, 16, "cp866"),
         number(credit, 8, 2))
        for id, name, city, credit in rows], code_page=0x26)


def orders():
    columns = [("NUMBER", "N", 5, 0), ("CUSTOMER", "N", 4, 0), ("CODE", "C", 6, 0),
               ("QTY", "N", 5, 0), ("ORDERED", "D", 8, 0)]
    rows = [
        (1, 1001, "BLT040", 200, "20240306"),
        (2, 1001, "NUT008", 200, "20240306"),
        (3, 1002, "LCK002", 12, "20240307"),
        (4, 1003, "SAW300", 2, "20240311"),
        (5, 1002, "HNG100", 24, "20240311"),
        (6, 1004, "GLU500", 30, None),
        (7, 1003, "OLD777", 1, "20240312"),
    ]
    return table(0x03, columns, [
        (False, number(entry, 5), number(customer, 4), text(code, 6), number(count, 5),
         date(ordered))
        for entry, customer, code, count, ordered in rows])


NULLABLE, COUNTING, SYSTEM, BINARY = 2, 12, 1, 4
MEMO_UNIT = 64


def memo_file(memos):
    """A FoxPro memo file, and the block of each memo; 0 for None."""
    blocks, data = [], bytearray(512)
    for kind, memo in memos:
        if memo is None:
            blocks.append(0)
            continue
        blocks.append(len(data) // MEMO_UNIT)
        data += struct.pack(">II", kind, len(memo)) + memo
        data += bytes(-len(data) % MEMO_UNIT)
    data[0:8] = struct.pack(">IHH", len(data) // MEMO_UNIT, 0, MEMO_UNIT)
    return bytes(data), blocks


def members():
    """Visual FoxPro with everything that its descriptor flags say, and a memo file."""
    columns = [("MEMBER", "I", 4, 0, COUNTING, 6), ("NAME", "C", 16, 0), ("NICKNAME", "V", 10, 0, NULLABLE),
               ("JOINED", "D", 8, 0, NULLABLE), ("FEE", "Y", 8, 4), ("LASTVISIT", "T", 8, 0, NULLABLE),
               ("CARD", "Q", 6, 0), ("NOTES", "M", 4, 0, NULLABLE), ("PHOTO", "W", 4, 0),
               ("_NullFlags", "0", 1, 0, SYSTEM | BINARY)]
    rows = [  # deleted, member, name, nickname, joined, fee, last visit, card, notes, photo
        (False, 1, "Jürgen Müller", b"Juri", "20190401", 1205000, "2024-02-29T18:30:00.250",
         b"\x00\x12\xff", "Pays in cash.\r\nHas a locker.", b"\x89PNG\r\n\x1a\n"),
        (False, 2, "Zoë Smith", None, "20200115", 990000, "2024-01-31T23:59:59.999", b"ABCDEF", None, None),
        (True, 3, "Left Member", b"", None, 0, None, b"", "", None),
        (False, 4, "=Formula Ltd", b"ten chars.", None, -5, None, b"\x01", "Café", None),
        (False, 5, "", b"x ", "20231224", 1, "2024-03-01T00:00:00", b"\x02\x03", None, None)]
    memos, blocks = memo_file([pair for row in rows for pair in (
        (1, row[8].encode("cp1252") if row[8] else None), (0, row[9]))])
    records = []
    for i, (deleted, member, name, nickname, joined, fee, visit, card, notes, _) in enumerate(rows):
        # Bits in field order: length and null of NICKNAME, JOINED, LASTVISIT, length of CARD, NOTES.
        bits = [len(nickname or b"") < 10, nickname is None, joined is None, visit is None,
                len(card) < 6, notes is None]
        records.append((deleted, struct.pack("<i", member), name.encode("cp1252").ljust(16),
                        variable(nickname or b"", 10), date(joined), struct.pack("<q", fee),
                        date_time(visit), variable(card, 6), struct.pack("<i", blocks[2 * i]),
                        struct.pack("<i", blocks[2 * i + 1]),
                        bytes([sum(bit << place for place, bit in enumerate(bits))])))
    return table(0x32, columns, records, code_page=3, backlink="club.dbc", flags=2), memos


def club():
    """The database container of members, with the long names of its fields."""
    columns = [("OBJECTID", "I", 4, 0), ("PARENTID", "I", 4, 0), ("OBJECTTYPE", "C", 10, 0),
               ("OBJECTNAME", "C", 128, 0)]
    objects = [(1, "Database", "Database"), (1, "Table", "members")] + [
        (2, "Field", name) for name in ("member_number", "full_name", "nickname", "date_joined",
                                        "membership_fee", "last_visit", "card_number", "notes", "photo")]
    return table(0x30, columns, [
        (False, struct.pack("<i", i + 1), struct.pack("<i", parent), text(kind, 10), text(name, 128))
        for i, (parent, kind, name) in enumerate(objects)], code_page=3, backlink="", flags=4)


if __name__ == "__main__":
    folder = pathlib.Path(__file__).resolve().parent
    for make in (stock, customers, orders, ledger, parcels):
        (folder / f"{make.__name__}.dbf").write_bytes(make())
    for extension, data in zip(("dbf", "fpt"), members()):
        (folder / f"members.{extension}").write_bytes(data)
    (folder / "club.dbc").write_bytes(club())
