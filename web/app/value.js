// The whole value of the chosen cell: memos and long texts, pictures, bytes.
const kHexBytes = 512;
let pictureUrl = null;

function hexOf(bytes) {
    const lines = [];
    for (let at = 0; at < Math.min(bytes.length, kHexBytes); at += 8) {
        const part = Array.from(bytes.subarray(at, at + 8));
        const hex = part.map((b) => b.toString(16).padStart(2, '0')).join(' ');
        const letters = part.map((b) => (b > 31 && b < 127 ? String.fromCharCode(b) : '·')).join('');
        lines.push(`${at.toString(16).padStart(4, '0')}  ${hex.padEnd(23)}  ${letters}`);
    }
    if (bytes.length > kHexBytes) lines.push('…');
    return lines.join('\n');
}

function save(data, name) {
    const link = element('a');
    link.href = URL.createObjectURL(data);
    link.download = name;
    link.click();
    setTimeout(() => URL.revokeObjectURL(link.href), 60000);
}

function bodyOf(cell) {
    if (cell.kind === 'null') return element('p', 'none', 'null');
    if (cell.kind === 'text') {
        const text = new TextDecoder().decode(cell.bytes);
        return text ? element('pre', 'text', text) : element('p', 'none', 'empty');
    }
    if (cell.kind === 'bytes') return element('pre', 'hex', hexOf(cell.bytes));
    const picture = element('img');
    pictureUrl = URL.createObjectURL(new Blob([cell.bytes], {type: `image/${cell.kind}`}));
    picture.src = pictureUrl;
    picture.alt = `${cell.kind.toUpperCase()} picture`;
    return picture;
}

function drawValue(place, record, column, cell) {
    if (pictureUrl) URL.revokeObjectURL(pictureUrl);
    pictureUrl = null;
    const title = element('h2', '', column.name);
    const line = element('p', 'type', record ? `record ${grouped(record)}` : '');
    const body = bodyOf(cell);
    place.replaceChildren(title, line, body);
    if (cell.fault) place.append(element('p', 'fault', cell.fault));
    if (cell.kind === 'null' || (cell.kind === 'text' && cell.size < 400)) return;
    const button = element('button', 'quiet', `Save, ${sized(cell.size)}`);
    const extension = cell.kind === 'text' ? 'txt' : cell.kind === 'bytes' ? 'bin' : cell.kind;
    button.addEventListener('click', () => save(new Blob([cell.bytes]), `${column.name}-${record}.${extension}`));
    place.append(button);
}
