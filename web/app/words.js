// How counts, sizes and types are told.
const grouped = (n) => Number(n).toLocaleString('en');
const counted = (n, noun) => `${grouped(n)} ${noun}${n === 1 ? '' : 's'}`;

function sized(bytes) {
    const units = ['bytes', 'KB', 'MB', 'GB'];
    let unit = 0;
    let size = bytes;
    while (size >= 1000 && unit < 3) {
        size /= 1024;
        unit++;
    }
    return `${unit && size < 10 ? size.toFixed(1) : grouped(Math.round(size))} ${units[unit]}`;
}

// "PNG picture, 2.3 KB" for a binary cell.
function describe(cell) {
    if (!cell.n) return 'binary, empty';
    return cell.b ? `${cell.b.toUpperCase()} picture, ${sized(cell.n)}` : `binary, ${sized(cell.n)}`;
}

// "Numeric 8.2, may be null"
function typeLine(column) {
    const size = column.as === 'memo' || !column.length ? '' : ` ${column.length}${column.decimals ? `.${column.decimals}` : ''}`;
    return `${column.what}${size}${column.nulls ? ', may be null' : ''}`;
}
