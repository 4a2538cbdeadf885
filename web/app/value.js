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

// What scrolls is within reach of the keyboard.
function box(className, text) {
    const made = element('pre', className, text);
    made.tabIndex = 0;
    return made;
}
const hexBox = (bytes) => box('hex', hexOf(bytes));

function bodyOf(cell) {
    if (cell.kind === 'null') return element('p', 'none', 'null');
    if (cell.kind === 'text') {
        const text = new TextDecoder().decode(cell.bytes);
        return text ? box('text', text) : element('p', 'none', cell.fault ? '' : 'empty');
    }
    if (cell.kind === 'bytes') return hexBox(cell.bytes);
    return pictureOf(cell);
}

// With its size below, or the bytes where it is damaged.
function pictureOf(cell) {
    const figure = element('figure');
    const picture = element('img');
    pictureUrl = URL.createObjectURL(new Blob([cell.bytes], {type: `image/${cell.kind}`}));
    picture.alt = `${cell.kind.toUpperCase()} picture`;
    picture.onload = () => figure.append(element('figcaption', '', `${picture.naturalWidth} × ${picture.naturalHeight}`));
    picture.onerror = () => figure.replaceWith(element('p', 'fault', 'This picture cannot be shown.'), hexBox(cell.bytes));
    picture.src = pictureUrl;
    figure.append(picture);
    return figure;
}

// where: the record or row.
function drawValue(place, where, name, cell) {
    if (pictureUrl) URL.revokeObjectURL(pictureUrl);
    pictureUrl = null;
    place.replaceChildren(heading(name), element('p', 'type', where), bodyOf(cell));
    if (cell.fault) place.append(element('p', 'fault', cell.fault));
    if (cell.kind === 'null' || (cell.kind === 'text' && cell.size < 400)) return;
    const button = element('button', 'quiet', `Save (${sized(cell.size)})`);
    const extension = cell.kind === 'text' ? 'txt' : cell.kind === 'bytes' ? 'bin' : cell.kind;
    button.addEventListener('click', () => save(new Blob([cell.bytes]), `${name}-${where.replace(/\D/g, '')}.${extension}`));
    place.append(button);
}
