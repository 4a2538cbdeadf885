// The page: which table is open, what is shown of it, what is said.
const at = (id) => document.getElementById(id);
const kPause = 350; // ms after the last key
const kPatience = 300; // ms
const kMostCounted = 512 * 1024 * 1024; // bytes

const state = {
    files: [],
    tables: [],
    path: '',
    opened: null, // what the engine says of the open table
    pages: {}, // code pages chosen by hand, by path
    sort: null,
    filter: '',
    search: '',
    deleted: 1,
    column: -1, // of the chart
    shown: null, // sort, filter, search and deleted of the rows that are there
    answer: null, // of a query, while it is shown
    turn: 0, // goes on with whatever replaces the rows
};

// ---------------------------------------------------------------------------------------------
// What is said
// ---------------------------------------------------------------------------------------------

function say(sentence, kind = '', notes = []) {
    const lines = [element('p', kind, sentence)];
    for (const note of notes) lines.push(element('p', 'note', note));
    at('status').replaceChildren(...lines);
}
const complain = (e) => {
    if (!(e instanceof Stopped)) say(e.message, 'error', tableNotes());
};

// What stays true of the open table whatever is shown of it.
function tableNotes() {
    if (!state.opened || state.answer) return [];
    const {facts, doubt} = state.opened;
    const named = (sentence) => `${state.path}: ${sentence}`;
    return [...facts.repairs, ...facts.notes].map(named).concat(doubt ? [named(doubt)] : []);
}

const running = new Set(); // what was begun
const engine = new Engine((done, all) => {
    if (all) at('bar').value = done / all;
});

// Runs what may take long: a bar and "Stop" appear when it does.
async function work(action) {
    running.add(action);
    at('bar').removeAttribute('value');
    setTimeout(() => running.has(action) && (at('progress').hidden = false), kPatience);
    document.body.setAttribute('aria-busy', 'true');
    try {
        return await action();
    } finally {
        running.delete(action);
        if (!running.size) {
            at('progress').hidden = true;
            document.body.removeAttribute('aria-busy');
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Opening
// ---------------------------------------------------------------------------------------------

const kNoTable = 'There is no table among what was dropped.';
let drops = 0;

// Takes what a promise brings, unless something else has been dropped until then.
async function receive(files) {
    const mine = ++drops;
    try {
        const taken = await work(() => files);
        if (mine === drops) await take(taken);
    } catch (e) {
        complain(e);
    }
}

async function take(files) {
    // A memo file dropped later belongs to the table that is open.
    const added = state.files.length > 0 && files.length > 0 && isBeside(files);
    const news = added ? placedBeside(files, state.tables) : files;
    const names = new Set(news.map((file) => file.name));
    const all = added ? [...state.files.filter((file) => !names.has(file.name)), ...news] : news;
    const tables = tablesAmong(all);
    if (!tables.length) return say(kNoTable, 'error');
    Object.assign(state, {files: all, tables});
    if (!added) state.pages = Object.fromEntries(files.map(({name, page}) => [name, page || '']));
    const turn = ++state.turn;
    if (running.size) engine.restart();
    await engine.mount(all.map(({name, data}) => ({name, data})));
    if (turn !== state.turn) return;
    listTables();
    await (added && state.opened ? reopen() : open(tables.includes(state.path) && added ? state.path : tables[0]));
}

function listTables() {
    const several = state.tables.length > 1;
    at('which').hidden = !several;
    at('name').hidden = several;
    at('which').replaceChildren(...state.tables.map((name) => new Option(name, name)));
    const shown = state.tables.slice(0, 12);
    at('names').replaceChildren(...shown.map((path) => element('code', '', quoted(stemOf(path)))));
    if (state.tables.length > shown.length) at('names').append(` and ${state.tables.length - shown.length} more`);
}

function factsLine({facts, records, page, memoFile, memoMissing}) {
    const deleted = facts.deleted ? ` (${grouped(facts.deleted)} deleted)` : '';
    const parts = [facts.flavour, counted(records, 'record') + deleted, counted(facts.fields.length, 'field'), `${page} (${facts.code_page_from})`];
    if (memoFile) parts.push(memoMissing ? 'memo file missing' : `memos ${sized(facts.memo_bytes)}`);
    if (facts.updated) parts.push(`changed ${facts.updated}`);
    return parts;
}

function showFacts() {
    const parts = factsLine(state.opened);
    at('facts').replaceChildren(...parts.flatMap((part, i) => [i ? ' · ' : '', element('span', '', part)]));
    at('facts').title = parts.join(' · ');
}

const kAll = {sort: null, filter: '', search: '', deleted: 1};

// How the rows are chosen, as the inputs tell it.
function wish(wanted) {
    Object.assign(state, wanted);
    at('filter').value = state.filter;
    at('search').value = state.search;
    at('deleted').value = String(state.deleted);
    at('filter').removeAttribute('aria-invalid');
}

async function open(path) {
    const turn = ++state.turn;
    const first = `SELECT * FROM ${quoted(stemOf(path))} LIMIT 100`;
    if (['', state.statement].includes(at('statement').value)) at('statement').value = first;
    Object.assign(state, {path, column: -1, answer: null, opened: null, shown: null, statement: first});
    wish(kAll);
    at('which').value = at('name').textContent = at('name').title = path;
    document.title = `${path} · MIRA`;
    closeSide();
    showBack();
    if (running.size) engine.restart();
    try {
        const opened = await work(() => engine.call('open', path, state.pages[path] || ''));
        if (turn !== state.turn) return;
        state.opened = opened;
        await showTable(turn, opened.records);
        countDeleted().catch(() => {});
    } catch (e) {
        if (turn !== state.turn) return;
        showNothing();
        complain(e);
    }
}

// Tells it in the line of facts, once the rows are there. Between its steps other calls have their
// turn; of tables that take long to read it is not told.
async function countDeleted() {
    const {opened} = state;
    const length = opened.facts.record_length;
    if (length * opened.records > kMostCounted) return;
    const step = Math.ceil(2 ** 22 / length);
    let deleted = 0;
    for (let first = 0; first < opened.records; first += step) {
        deleted += (await engine.call('deleted', first, step)).deleted;
        if (state.opened !== opened) return;
    }
    opened.facts.deleted = deleted;
    showFacts();
}

function showNothing() {
    at('start').hidden = false;
    for (const id of ['frame', 'side', 'tools', 'query']) at(id).hidden = true;
    at('facts').textContent = at('facts').title = '';
    at('export').disabled = at('sql').disabled = true;
    at('sql').setAttribute('aria-pressed', 'false');
    document.body.classList.add('start');
}

function listPages() {
    const chosen = state.pages[state.path] || '';
    const automatic = chosen ? 'automatic' : `${state.opened.page}, automatic`;
    const groups = [new Option(automatic, '')];
    for (const [label, pages] of kPages) {
        const group = element('optgroup');
        group.label = label;
        group.append(...pages.map(([name, what]) => new Option(`${name} ${what}`, name)));
        groups.push(group);
    }
    at('page').replaceChildren(...groups);
    at('page').value = chosen;
    if (at('page').selectedIndex >= 0) return;
    at('page').append(new Option(chosen, chosen));
    at('page').value = chosen;
}

// The fields, until there is a chart or a value to show.
function listFields() {
    const list = element('div', 'fields');
    state.opened.columns.slice(0, 300).forEach((column, i) => {
        const pair = element('button');
        pair.type = 'button';
        pair.append(element('b', '', column.name), element('span', '', typeLine(column)));
        pair.addEventListener('click', () => grid.goTo(i));
        list.append(pair);
    });
    const hint = 'A click on a heading sorts by it and draws its chart. Choose a cell to see all of its value.';
    at('fields').replaceChildren(element('h2', '', `Fields of ${stemOf(state.path)}`), element('p', 'type', hint), list);
    const number = state.opened.columns.find(isNumber);
    const column = number || state.opened.columns[0];
    at('filter').placeholder = column ? `Filter, such as ${column.name}${number ? '>10' : '="A"'}` : 'Filter';
}

// ---------------------------------------------------------------------------------------------
// Rows
// ---------------------------------------------------------------------------------------------

const grid = new Grid(at('grid'), {
    sort: (column) => sortBy(column),
    select: (row, column) => showValue(row, column),
    open: (row, column) => showValue(row, column).then(() => at('value').querySelector('[tabindex]')?.focus()),
    leave: leaveSide,
    copied: (text) => say(`Copied ${counted(text.length, 'character')}`, '', tableNotes()),
    fail: complain,
});

function tableSource(rows) {
    return {
        columns: state.opened.columns,
        count: rows,
        records: state.opened.records,
        sortable: true,
        sought: state.search,
        rows: (first, n) => engine.call('rows', first, n),
        whole: async (row, column) => {
            const cell = await engine.call('cell', row, column);
            return cell.kind === 'text' ? new TextDecoder().decode(cell.bytes) : describe({b: cell.kind === 'bytes' ? '' : cell.kind, n: cell.size});
        },
    };
}

async function showTable(turn, rows, notes = []) {
    at('start').hidden = true;
    for (const id of ['frame', 'side', 'tools']) at(id).hidden = false;
    document.body.classList.remove('start');
    at('export').disabled = at('sql').disabled = false;
    showFacts();
    listPages();
    listFields();
    const all = state.opened.records;
    const empty = !state.opened.columns.length ? 'This table has no fields to show.' : all ? 'No record passes.' : 'This table has no records.';
    const selected = Boolean(state.filter || state.search || state.deleted !== 1);
    showNone(!rows || !state.opened.columns.length ? empty : '', all > 0 && selected);
    await grid.show(tableSource(rows), state.sort);
    if (turn !== state.turn) return;
    state.shown = {sort: state.sort, filter: state.filter, search: state.search, deleted: state.deleted};
    say(selected ? `${grouped(rows)} of ${counted(all, 'record')}` : counted(all, 'record'), '', [...notes, ...tableNotes()]);
}

// Why there are no rows, in their place.
function showNone(why, canShowAll) {
    at('grid').classList.toggle('empty', why !== '');
    at('none').hidden = !why;
    at('none').querySelector('p').textContent = why;
    at('all').hidden = !canShowAll;
}

// Filter, search and sort anew.
async function view() {
    if (!state.opened) return;
    const turn = ++state.turn;
    if (running.size) {
        engine.restart();
        leaveAnswer(); // its rows go with what runs
    }
    const wanted = {
        filter: state.filter,
        search: state.search,
        sort: state.sort ? state.sort.column : -1,
        descending: Boolean(state.sort && state.sort.descending),
        deleted: state.deleted,
    };
    try {
        const {rows, notes} = await work(() => engine.call('view', wanted));
        if (turn !== state.turn) return;
        leaveAnswer();
        at('filter').removeAttribute('aria-invalid');
        at('value').hidden = true;
        await showTable(turn, rows, notes);
        if (state.column >= 0) await showChart(state.column);
    } catch (e) {
        if (turn !== state.turn || e instanceof Stopped) return;
        if (state.filter) at('filter').setAttribute('aria-invalid', 'true');
        // A column that cannot be sorted by is not kept for what comes.
        if (state.shown && state.sort !== state.shown.sort) state.sort = state.shown.sort;
        complain(e);
    }
}

async function sortBy(column) {
    const {sort} = state;
    const same = sort && sort.column === column;
    state.sort = !same ? {column, descending: false} : sort.descending ? null : {column, descending: true};
    state.column = column;
    await view();
}

async function showChart(column) {
    const turn = state.turn;
    try {
        const chart = await work(() => engine.call('chart', column));
        if (turn !== state.turn) return;
        at('chart').hidden = false;
        drawChart(at('chart'), state.opened.columns[column], chart);
        at('side').scrollTop = 0;
    } catch (e) {
        complain(e);
    }
}

async function showValue(row, column) {
    const turn = state.turn;
    try {
        const cell = state.answer ? cellOfAnswer(grid.rowData(row), column) : await engine.call('cell', row, column);
        const data = grid.rowData(row);
        if (turn !== state.turn || grid.row !== row || grid.column !== column || !cell) return;
        at('value').hidden = false;
        const where = data ? `${state.answer ? 'row' : 'record'} ${grouped(data.r)}` : '';
        drawValue(at('value'), where, grid.columns[column].name, cell);
        const [side, value] = [at('side'), at('value')];
        const below = value.offsetTop + value.offsetHeight - side.clientHeight;
        side.scrollTop = Math.min(value.offsetTop, Math.max(side.scrollTop, below));
    } catch (e) {
        complain(e);
    }
}

// Of an answer there is what the grid has.
function cellOfAnswer(data, column) {
    if (!data) return null;
    const value = data.c[column];
    const text = value === null ? '' : cellText(value);
    const bytes = new TextEncoder().encode(value && value.b !== undefined ? describe(value) : text);
    const fault = isCut(value) ? `The first ${sized(bytes.length)} of ${sized(value.n)}; the export has all of it.` : '';
    return {kind: value === null ? 'null' : 'text', bytes, size: bytes.length, fault};
}

// One after another: the value, then the chart.
function leaveSide() {
    if (at('value').hidden) closeChart();
    at('value').hidden = true;
}

function closeChart() {
    state.column = -1;
    at('chart').hidden = true;
}

function closeSide() {
    at('chart').hidden = at('value').hidden = true;
}

// ---------------------------------------------------------------------------------------------
// SQL
// ---------------------------------------------------------------------------------------------

const quoted = (name) => (/^[A-Za-z_][A-Za-z_0-9]*$/.test(name) ? name : `"${name.replace(/"/g, '""')}"`);

function toggleSql() {
    const show = at('query').hidden;
    at('query').hidden = !show;
    at('sql').setAttribute('aria-pressed', String(show));
    if (!show) return void (state.answer && view());
    at('statement').focus();
}

async function runQuery() {
    const turn = ++state.turn;
    const lost = running.size && state.answer; // with what runs its rows go, too
    if (running.size) engine.restart();
    const tables = state.tables.map((path) => `${path}\t${state.pages[path] || ''}`).join('\n');
    try {
        const answer = await work(() => engine.call('query', at('statement').value, tables));
        if (turn !== state.turn) return;
        state.answer = answer;
        closeSide();
        showBack();
        showNone(answer.rows ? '' : 'The answer has no rows.', false);
        const read = (first, n) => engine.call('answerRows', first, n);
        await grid.show({columns: answer.columns, count: answer.rows, sortable: false, rows: read}, null);
        say(`${answer.cut ? 'The first ' : ''}${counted(answer.rows, 'row')}${answer.cut ? '; there are more' : ''}`, '', answer.notes);
    } catch (e) {
        if (turn === state.turn && lost) await view();
        complain(e);
    }
}

function leaveAnswer() {
    state.answer = null;
    showBack();
}

function showBack() {
    at('back').hidden = state.answer === null;
    document.body.classList.toggle('answered', state.answer !== null);
    at('grid').setAttribute('aria-label', state.answer ? 'Answer' : 'Records');
}

// ---------------------------------------------------------------------------------------------
// Export
// ---------------------------------------------------------------------------------------------

async function exportCsv() {
    at('export').disabled = true;
    try {
        if (state.answer) {
            const {csv} = await engine.call('answerCsv');
            save(csv, 'answer.csv');
            say(`${counted(state.answer.rows, 'row')} exported`);
            return;
        }
        const {csv, rows, left, notes} = await work(() => engine.call('csv'));
        save(csv, `${stemOf(state.path)}.csv`);
        const without = left ? `, ${grouped(left)} deleted left out` : '';
        say(`${counted(rows, 'record')} exported${without}`, '', [...notes.map((note) => `${state.path}: ${note}`), ...tableNotes()]);
    } catch (e) {
        complain(e);
    } finally {
        at('export').disabled = false;
    }
}

// ---------------------------------------------------------------------------------------------
// What people do
// ---------------------------------------------------------------------------------------------

function listen() {
    const apply = () => {
        const [filter, search] = [at('filter').value.trim(), at('search').value];
        if (filter === state.filter && search === state.search) return;
        Object.assign(state, {filter, search});
        view();
    };
    let pause;
    for (const id of ['search', 'filter']) {
        at(id).addEventListener('input', () => {
            clearTimeout(pause);
            pause = setTimeout(apply, kPause);
        });
        at(id).addEventListener('keydown', (e) => {
            if (e.key !== 'Enter') return;
            e.preventDefault();
            clearTimeout(pause);
            apply();
        });
    }
    at('tools').addEventListener('submit', (e) => e.preventDefault());
    at('deleted').addEventListener('change', () => {
        state.deleted = Number(at('deleted').value);
        view();
    });
    at('page').addEventListener('change', () => {
        state.pages[state.path] = at('page').value;
        reopen();
    });
    at('which').addEventListener('change', () => open(at('which').value));
    at('file').addEventListener('change', () => {
        receive(filesOfInput(at('file')));
        at('file').value = '';
    });
    for (const id of ['open', 'choose']) at(id).addEventListener('click', () => at('file').click());
    at('all').addEventListener('click', () => {
        wish({...kAll, sort: state.sort});
        view();
        at('grid').focus();
    });
    at('export').addEventListener('click', exportCsv);
    at('sql').addEventListener('click', toggleSql);
    at('run').addEventListener('click', runQuery);
    at('back').addEventListener('click', () => view());
    at('statement').addEventListener('keydown', (e) => {
        if (e.key === 'Enter' && (e.ctrlKey || e.metaKey)) runQuery();
    });
    at('stop').addEventListener('click', stop);
    at('side').addEventListener('click', (e) => {
        if (!e.target.closest('.close')) return;
        if (e.target.closest('#chart')) closeChart();
        else at('value').hidden = true;
        at('grid').focus();
    });
    at('side').addEventListener('keydown', (e) => {
        if (e.key !== 'Escape') return;
        leaveSide();
        at('grid').focus();
    });
    addEventListener('keydown', (e) => {
        if (e.key === 'f' && (e.ctrlKey || e.metaKey) && !at('tools').hidden) {
            e.preventDefault();
            at('search').focus();
            at('search').select();
        }
    });
}

// The same table in another code page, with what is searched for.
async function reopen() {
    const {sort, filter, search, deleted, column} = state;
    await open(state.path);
    if (!state.opened) return;
    wish({sort, filter, search, deleted});
    state.column = column;
    if (filter || search || sort || deleted !== 1) await view();
    else if (column >= 0) await showChart(column);
}

// Goes back to the rows that were there before; a second time to all of them.
async function stop() {
    const back = state.shown || kAll;
    state.turn++;
    drops++;
    engine.restart();
    if (!state.opened) {
        showNothing();
        return say('Stopped');
    }
    state.column = -1;
    closeSide();
    wish(back);
    const stopped = view();
    state.shown = null;
    await stopped;
    if (state.shown) say(`Stopped; ${at('status').firstChild.textContent}`, '', tableNotes());
}

function listenToDrops() {
    let gone;
    const over = (shown) => (at('over').hidden = !shown);
    // It goes on while something is held over the page; there is no sure sign of its end.
    addEventListener('dragover', (e) => {
        e.preventDefault();
        clearTimeout(gone);
        over(e.dataTransfer.types.includes('Files'));
        gone = setTimeout(over, 600, false);
    });
    addEventListener('drop', (e) => {
        e.preventDefault();
        clearTimeout(gone);
        over(false);
        receive(filesOfDrop(e.dataTransfer));
    });
}

listen();
listenToDrops();
document.documentElement.dataset.ready = 'true'; // for files; they wait for the engine
performance.mark('ready');
engine.ready.then(
    () => performance.mark('engine'),
    (e) => say(`This browser cannot run the page: ${e.message}`, 'error'),
);
parsed.then(() => {
    const inPage = filesInPage();
    if (!inPage.length) return;
    at('start').hidden = true;
    receive(Promise.resolve(inPage));
});
