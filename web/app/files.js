// What is dropped or chosen, as a list of files: {name, data}, with the folders in the name.
const kTable = /\.dbf$/i;
// Tables by other names, and what belongs to tables.
const kOtherTable = /\.(dbc|scx|vcx|frx|lbx|mnx|pjx)$/i;
const kBeside = /\.(dbt|fpt|smt|dct|cpg|sct|vct|frt|lbt|mnt|pjt|cdx|idx|mdx|ndx|ntx|dbf-mira)$/i;
const kMostFiles = 20000;

const isTable = (name) => kTable.test(name) || kOtherTable.test(name);
const belongs = (name) => isTable(name) || kBeside.test(name);

// Names of files never lead out of the drop.
const safeName = (name) =>
    name.split(/[/\\]/).filter((part) => part && part !== '.' && part !== '..').join('/') || 'table';

function entriesIn(folder) {
    const reader = folder.createReader();
    const all = [];
    return new Promise((resolve) => {
        const more = () =>
            reader.readEntries(
                (entries) => (entries.length ? (all.push(...entries), more()) : resolve(all)),
                () => resolve(all),
            );
        more();
    });
}

async function walk(entry, path, files) {
    if (files.length >= kMostFiles) return;
    if (entry.isDirectory) {
        for (const inner of await entriesIn(entry)) await walk(inner, `${path}${entry.name}/`, files);
        return;
    }
    const file = await new Promise((resolve) => entry.file(resolve, () => resolve(null)));
    if (file && (path === '' || belongs(file.name) || /\.zip$/i.test(file.name))) {
        files.push({name: path + file.name, data: file});
    }
}

async function filesOfDrop(transfer) {
    // The list is gone after the first wait.
    const entries = Array.from(transfer.items || [], (item) => item.webkitGetAsEntry && item.webkitGetAsEntry());
    const plain = Array.from(transfer.files, (file) => ({name: file.name, data: file}));
    if (!entries.some((entry) => entry && entry.isDirectory)) return unpacked(plain);
    const files = [];
    for (const entry of entries) if (entry) await walk(entry, '', files);
    return unpacked(files);
}

const filesOfInput = (input) =>
    unpacked(Array.from(input.files, (file) => ({name: file.webkitRelativePath || file.name, data: file})));

async function unpacked(files) {
    const all = [];
    for (const file of files) {
        if (/\.zip$/i.test(file.name)) {
            all.push(...(await unzip(file.data, belongs)));
        } else {
            all.push(file);
        }
    }
    return all.map(({name, data}) => ({name: safeName(name), data}));
}

// Which of the files are tables; where none has the name of one, each may be.
function tablesAmong(files) {
    const names = files.map((file) => file.name);
    const named = names.filter((name) => kTable.test(name));
    const others = named.length ? named : names.filter(isTable);
    const tables = others.length ? others : names.filter((name) => !kBeside.test(name));
    return tables.sort((a, b) => a.localeCompare(b, 'en'));
}

function bytesOf(base64) {
    if (Uint8Array.fromBase64) return Uint8Array.fromBase64(base64);
    const letters = atob(base64);
    const bytes = new Uint8Array(letters.length);
    for (let i = 0; i < letters.length; i++) bytes[i] = letters.charCodeAt(i);
    return bytes;
}

// The tables that `mira page` has put into the page.
function filesInPage() {
    const holder = document.getElementById('tables');
    if (!holder) return [];
    return JSON.parse(holder.textContent).map(({name, page, base64}) => ({
        name: safeName(name),
        page,
        data: new Blob([bytesOf(base64)]),
    }));
}
