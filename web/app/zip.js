// Files of a .zip archive, unpacked by the browser.
const kMostUnpacked = 2 * 1024 ** 3; // a file
const kMostRatio = 1000; // times its size in all

const kEnd = 0x06054b50;
const kEntry = 0x02014b50;
const kLocal = 0x04034b50;
const kElsewhere = 0xffffffff; // a number that stands in a field of archives over 4 GB

async function viewAt(file, from, to) {
    return new DataView(await file.slice(Math.max(from, 0), to).arrayBuffer());
}

async function entriesOf(file) {
    const tail = await viewAt(file, file.size - 65557, file.size);
    let at = tail.byteLength - 22;
    while (at >= 0 && tail.getUint32(at, true) !== kEnd) at--;
    if (at < 0) throw new Error(`${file.name}: no .zip archive, or it is damaged`);
    const size = tail.getUint32(at + 12, true);
    const start = tail.getUint32(at + 16, true);
    const list = await viewAt(file, start, start + size);
    const entries = [];
    for (let p = 0; p + 46 <= list.byteLength && list.getUint32(p, true) === kEntry;) {
        const names = [28, 30, 32].map((place) => list.getUint16(p + place, true));
        entries.push({
            encrypted: list.getUint16(p + 8, true) & 1,
            method: list.getUint16(p + 10, true),
            crc: list.getUint32(p + 16, true),
            packed: list.getUint32(p + 20, true),
            size: list.getUint32(p + 24, true),
            offset: list.getUint32(p + 42, true),
            name: new TextDecoder().decode(new Uint8Array(list.buffer, p + 46, names[0])),
        });
        p += 46 + names[0] + names[1] + names[2];
    }
    return entries;
}

const kCrc = new Int32Array(256).map((_, byte) => {
    let crc = byte;
    for (let bit = 0; bit < 8; bit++) crc = crc & 1 ? (crc >>> 1) ^ 0xedb88320 : crc >>> 1;
    return crc;
});

function crcOn(crc, bytes) {
    for (let i = 0; i < bytes.length; i++) crc = kCrc[(crc ^ bytes[i]) & 255] ^ (crc >>> 8);
    return crc;
}

async function inflate(packed, entry, room) {
    const reader = packed.stream().pipeThrough(new DecompressionStream('deflate-raw')).getReader();
    const damaged = new Error(`${entry.name} is damaged in its archive`);
    const parts = [];
    let size = 0;
    let crc = -1;
    for (;;) {
        const {done, value} = await reader.read().catch(() => Promise.reject(damaged));
        if (done) break;
        size += value.length;
        if (size > Math.min(kMostUnpacked, room)) throw new Error(`${entry.name}: too large to unpack`);
        crc = crcOn(crc, value);
        parts.push(new Blob([value]));
    }
    if (~crc >>> 0 !== entry.crc) throw damaged;
    return new Blob(parts);
}

// [{name, data}] of the entries that wanted(name) takes.
async function unzip(file, wanted) {
    const files = [];
    let room = kMostRatio * file.size;
    for (const entry of await entriesOf(file)) {
        if (entry.name.endsWith('/') || !wanted(entry.name)) continue;
        if (entry.encrypted || ![0, 8].includes(entry.method)) {
            throw new Error(`${file.name}: ${entry.name} is ${entry.encrypted ? 'encrypted' : 'packed in an unknown way'}`);
        }
        if ([entry.packed, entry.size, entry.offset].includes(kElsewhere)) throw new Error(`${entry.name}: too large to unpack`);
        const local = await viewAt(file, entry.offset, entry.offset + 30);
        if (local.byteLength < 30 || local.getUint32(0, true) !== kLocal) {
            throw new Error(`${file.name}: no .zip archive, or it is damaged`);
        }
        const start = entry.offset + 30 + local.getUint16(26, true) + local.getUint16(28, true);
        const packed = file.slice(start, start + entry.packed);
        const data = entry.method === 0 ? packed : await inflate(packed, entry, room);
        room -= data.size;
        files.push({name: entry.name, data});
    }
    return files;
}
