// What is dropped or chosen, as a list of files: {name, data}, with the folders in the name.
const kTable = /\.dbf$/i;
// Tables by other names, and what belongs to tables.
const kOtherTable = /\.(dbc|scx|vcx|frx|lbx|mnx|pjx)$/i;
const kBeside = /\.(dbt|fpt|smt|dct|cpg|sct|vct|frt|lbt|mnt|pjt|cdx|idx|mdx|ndx|ntx|dbf-mira)$/i;
const kMostFiles = 20000;

const isArchive = (name) => /\.zip$/i.test(name);
const isTable = (name) => kTable.test(name) || kOtherTable.test(name);
// What some systems add to archives and folders has the names of files, but is none of them.
const isShadow = (name) => /(^|\/)(__MACOSX\/|\._)/.test(name);
const belongs = (name) => !isShadow(name) && (isTable(name) || kBeside.test(name));

// Names of files never lead out of the drop, and are a line.
const safeName = (name) =>
    name.replace(/[\0-\x1f\x7f]/g, '_').split(/[/\\]/).filter((part) => part && part !== '.' && part !== '..').join('/') || 'table';

// Of a folder there are two ways to its files. A page from the disk is let in by handles alone,
// which not every browser has.
async function* insideOf(folder) {
    if (folder.kind) {
        for await (const inner of folder.values()) yield inner;
        return;
    }
    const reader = folder.createReader();
    for (;;) {
        const some = await new Promise((resolve, reject) => reader.readEntries(resolve, reject));
        if (!some.length) return;
        yield* some;
    }
}
const isFolder = (entry) => (entry.kind ? entry.kind === 'directory' : entry.isDirectory);
const fileOf = (entry) => (entry.kind ? entry.getFile() : new Promise((resolve, reject) => entry.file(resolve, reject)));

async function walk(folder, path, files) {
    for await (const entry of insideOf(folder)) {
        if (files.length >= kMostFiles) return;
        const name = path + entry.name;
        if (isFolder(entry)) await walk(entry, `${name}/`, files);
        else if (belongs(name) || isArchive(name)) files.push({name, data: await fileOf(entry)});
    }
}

async function walkDropped(folder, files) {
    try {
        await walk(folder, `${folder.name}/`, files);
    } catch {
        throw new Error(`${folder.name}: the browser does not let the page into this folder; drop its files, or a .zip`);
    }
}

async function filesOfDrop(transfer) {
    // The list is gone after the first wait.
    const items = Array.from(transfer.items || []).filter((item) => item.kind === 'file');
    const dropped = items.map((item) => ({
        entry: item.webkitGetAsEntry && item.webkitGetAsEntry(),
        handle: item.getAsFileSystemHandle && item.getAsFileSystemHandle(),
        file: item.getAsFile(),
    }));
    const files = [];
    for (const {entry, handle, file} of dropped) {
        if (!entry || !entry.isDirectory) files.push({name: file.name, data: file});
        else await walkDropped((handle && (await handle.catch(() => null))) || entry, files);
    }
    return unpacked(files);
}

const filesOfInput = (input) =>
    unpacked(Array.from(input.files, (file) => ({name: file.webkitRelativePath || file.name, data: file})));

// Of several archives each is a folder. Of files of one name the last counts.
async function unpacked(files) {
    const all = new Map();
    const add = ({name, data}) => all.set(safeName(name), {name: safeName(name), data});
    for (const file of files) {
        if (!isArchive(file.name)) {
            add(file);
            continue;
        }
        const folder = files.length > 1 ? `${file.name.replace(/\.zip$/i, '')}/` : '';
        for (const {name, data} of await unzip(file.data, belongs)) add({name: folder + name, data});
    }
    return [...all.values()];
}

const stemOf = (path) => path.split('/').pop().replace(/\.[^.]*$/, '');
const isBeside = (files) => files.every(({name}) => kBeside.test(name));

// Memo files and their like, dropped later, go into the folders of the tables they belong to.
function placedBeside(files, tables) {
    return files.map(({name, data}) => {
        const table = tables.find((path) => stemOf(path).toLowerCase() === stemOf(name).toLowerCase());
        const folder = table ? table.slice(0, table.lastIndexOf('/') + 1) : '';
        return {name: name.includes('/') ? name : folder + name, data};
    });
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
