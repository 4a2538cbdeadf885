// Tables made of literal bytes, and CSV taken apart.
import fs from 'node:fs';

function header(fields, count, version = 0x03) {
    const length = 1 + fields.reduce((sum, field) => sum + field[2], 0);
    const bytes = Buffer.alloc(32 + 32 * fields.length + 1);
    bytes.set([version, 124, 1, 31]);
    bytes.writeUInt32LE(count, 4);
    bytes.writeUInt16LE(bytes.length, 8);
    bytes.writeUInt16LE(length, 10);
    fields.forEach(([name, type, size, decimals = 0], i) => {
        bytes.write(name.slice(0, 10), 32 + 32 * i);
        bytes.write(type, 43 + 32 * i);
        bytes.set([size, decimals], 48 + 32 * i);
    });
    bytes[bytes.length - 1] = 0x0d;
    return {bytes, length};
}

// Records of one text each; with a count of more, the rest of the file is a hole.
export function plainTable(file, fields, texts, count = texts.length) {
    const {bytes, length} = header(fields, count);
    const records = texts.map((text) => {
        const record = Buffer.alloc(length, 0x20);
        Buffer.from(text).copy(record, 1);
        return record;
    });
    fs.writeFileSync(file, Buffer.concat([bytes, ...records]));
    if (count > texts.length) fs.truncateSync(file, bytes.length + count * length);
}

// A dBase III table of three texts and a memo beside it, in UTF-8.
export function memoTable(file, name, texts, memo) {
    const fields = [[name, 'C', 100], ['=X()', 'C', 60], ['NOTE', 'M', 10]];
    const {bytes, length} = header(fields, texts.length, 0x83);
    bytes[29] = 0xf0;
    const records = texts.map((text) => {
        const record = Buffer.alloc(length, 0x20);
        record.write(text, 1);
        record.write(text, 101);
        record.write('1'.padStart(10), 161);
        return record;
    });
    fs.writeFileSync(file, Buffer.concat([bytes, ...records]));
    const memos = Buffer.alloc(512);
    memos.writeUInt32LE(9, 0);
    memos[16] = 3;
    fs.writeFileSync(file.replace('.dbf', '.dbt'), Buffer.concat([memos, Buffer.from(`${memo}\x1a\x1a`)]));
}

// A FoxPro table of two pictures, a GIF of one pixel and a damaged BMP, in blocks of 64 bytes.
export function pictureTable(file) {
    const {bytes} = header([['PHOTO', 'G', 10]], 2, 0xf5);
    fs.writeFileSync(file, Buffer.concat([bytes, Buffer.from(' ' + '8'.padStart(10) + ' ' + '9'.padStart(10))]));
    const memos = Buffer.alloc(704);
    memos.writeUInt32BE(11, 0);
    memos.writeUInt16BE(64, 6);
    const pixel = Buffer.from('R0lGODlhAQABAIAAAAAAAP///yH5BAEAAAAALAAAAAABAAEAAAIBRAA7', 'base64');
    [pixel, Buffer.from('BM'.padEnd(60, '?'))].forEach((picture, i) => {
        memos.writeUInt32BE(picture.length, 512 + 64 * i + 4);
        picture.copy(memos, 512 + 64 * i + 8);
    });
    fs.writeFileSync(file.replace('.dbf', '.fpt'), memos);
}

export function parseCsv(text) {
    const rows = [];
    let row = [], cell = '', quoted = false;
    for (let i = 0; i < text.length; i++) {
        const c = text[i];
        if (quoted) {
            if (c === '"' && text[i + 1] === '"') cell += text[++i];
            else if (c === '"') quoted = false;
            else cell += c;
        } else if (c === '"') {
            quoted = true;
        } else if (c === ',' || c === '\n') {
            row.push(cell);
            cell = '';
            if (c === '\n') {
                rows.push(row);
                row = [];
            }
        } else {
            cell += c;
        }
    }
    return rows;
}
