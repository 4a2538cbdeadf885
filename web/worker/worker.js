// Runs the engine: one call after another, each answered by its number.
let engine;

const call = (name, types, values) => JSON.parse(engine.ccall(name, 'string', types, values));
const copyOf = (pointer, size) => engine.HEAPU8.slice(pointer, pointer + size);

// Of an export, in a Blob of its own: these need not stay in memory.
const pieceOf = (size) => new Blob([copyOf(engine.ccall('page_piece', 'number', [], []), size)]);

const calls = {
    // files: [{name, data}], names relative to the drop, with "/" between folders.
    mount(files) {
        const fs = engine.FS;
        if (fs.analyzePath('/drop').exists) {
            fs.chdir('/');
            fs.unmount('/drop');
        } else {
            fs.mkdir('/drop');
        }
        blocks.clear();
        fs.mount(engine.WORKERFS, {blobs: files}, '/drop');
        fs.chdir('/drop');
        return {};
    },
    open: (path, page) => call('page_open', ['string', 'string'], [path, page]),
    view: (wanted) =>
        call('page_view', ['string', 'string', 'number', 'number', 'number'],
            [wanted.filter, wanted.search, wanted.sort, wanted.descending ? 1 : 0, wanted.deleted]),
    rows: (first, count) => call('page_rows', ['number', 'number'], [first, count]),
    chart: (column) => call('page_chart', ['number'], [column]),
    deleted: (first, count) => call('page_deleted', ['number', 'number'], [first, count]),
    query: (sql, tables) => call('page_query', ['string', 'string'], [sql, tables]),
    answerRows: (first, count) => call('page_answer_rows', ['number', 'number'], [first, count]),
    answerCsv() {
        const pieces = [];
        for (let row = 0; ; ) {
            const answer = call('page_answer_csv', ['number'], [row]);
            if (!answer.size) return {csv: new Blob(pieces), ...answer};
            pieces.push(pieceOf(answer.size));
            row = answer.row;
        }
    },
    cell(row, column) {
        const cell = call('page_cell', ['number', 'number'], [row, column]);
        if (!cell.error) cell.bytes = copyOf(engine.ccall('page_bytes', 'number', [], []), cell.size);
        return cell;
    },
    csv() {
        engine.ccall('page_export', null, [], []);
        const pieces = [];
        for (;;) {
            const answer = call('page_next', [], []);
            if (!answer.size) return {csv: new Blob(pieces), ...answer};
            pieces.push(pieceOf(answer.size));
        }
    },
};

async function start(module) {
    let failed;
    const failure = new Promise((_, reject) => (failed = reject));
    const created = createEngine({
        instantiateWasm(imports, use) {
            WebAssembly.instantiate(module, imports).then(use, failed);
            return {};
        },
        progress: (done, all) => postMessage({progress: [done, all]}),
        print() {},
        printErr() {},
    });
    engine = await Promise.race([created, failure]);
    readInBlocks(engine);
}

const started = new Promise((resolve) => {
    onmessage = ({data}) => resolve(start(data));
});
started.then(
    () => {
        onmessage = ({data: {id, name, values}}) => {
            let result;
            try {
                result = calls[name](...values);
            } catch (e) {
                // Of the engine nothing can be said after that.
                result = {error: 'the engine has stopped: ' + e, broken: true};
            }
            postMessage({id, result});
        };
        postMessage({ready: true});
    },
    (e) => postMessage({failed: String(e)}),
);
