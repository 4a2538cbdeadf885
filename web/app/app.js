// The page: which table is open, what is shown of it, what is said.
const at = (id) => document.getElementById(id);
const kPause = 350; // ms after the last key
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

let working = 0;
const engine = new Engine((done, all) => {
    at('bar').value = all ? done / all : 0;
    if (working && performance.now() - working > 300) at('progress').hidden = false;
});

// Runs what may take long: a bar and "Stop" appear when it does.
async function work(action) {
    working = performance.now();
    document.body.setAttribute('aria-busy', 'true');
    try {
        return await action();
    } finally {
        working = 0;
        at('progress').hidden = true;
        document.body.removeAttribute('aria-busy');
    }
}

// ---------------------------------------------------------------------------------------------
// Opening
// ---------------------------------------------------------------------------------------------

async function take(files) {
    if (!files.length) return say('There is no table among what was dropped.', 'error');
    const alone = files.every(({name}) => /\.(dbt|fpt|smt|dct|cpg)$/i.test(name));
    // A memo file dropped later belongs to the table that is open.
    const added = alone && state.files.length > 0;
    const names = new Set(files.map((file) => file.name));
    state.files = added ? [...state.files.filter((file) => !names.has(file.name)), ...files] : files;
    state.tables = tablesAmong(state.files);
    if (!state.tables.length) return say('There is no table among what was dropped.', 'error');
    if (!added) state.pages = Object.fromEntries(files.map(({name, page}) => [name, page || '']));
    await engine.mount(state.files.map(({name, data}) => ({name, data})));
    listTables();
    await open(added && state.tables.includes(state.path) ? state.path : state.tables[0]);
}

function listTables() {
    const several = state.tables.length > 1;
    at('which').hidden = !several;
    at('name').hidden = several;
    at('which').replaceChildren(...state.tables.map((name) => new Option(name, name)));
}

function factsLine({facts, records, page, memoFile, memoMissing}) {
    const deleted = facts.deleted ? ` (${grouped(facts.deleted)} deleted)` : '';
    const parts = [facts.flavour, counted(records, 'record') + deleted, counted(facts.fields.length, 'field'), `${page} (${facts.code_page_from})`];
    if (memoFile) parts.push(memoMissing ? 'memo file missing' : `memos ${sized(facts.memo_bytes)}`);
    if (facts.updated) parts.push(`changed ${facts.updated}`);
    return parts.join(' · ');
}

async function open(path) {
    const turn = ++state.turn;
    state.path = path;
    Object.assign(state, {sort: null, filter: '', search: '', column: -1, answer: null, opened: null});
    for (const id of ['search', 'filter']) at(id).value = '';
    at('filter').removeAttribute('aria-invalid');
    at('which').value = at('name').textContent = path;
    document.title = `${path} · MIRA`;
    closeSide();
    showBack();
    try {
        const opened = await work(() => engine.call('open', path, state.pages[path] || ''));
        if (turn !== state.turn) return;
        state.opened = opened;
        await showTable(turn, opened.records);
        countDeleted().catch(() => {});
    } catch (e) {
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
    at('facts').textContent = at('facts').title = factsLine(opened);
}

function showNothing() {
    at('start').hidden = false;
    for (const id of ['grid', 'side', 'tools', 'query']) at(id).hidden = true;
    at('facts').textContent = '';
    at('export').disabled = at('sql').disabled = true;
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
}

// The fields, until there is a chart or a value to show.
function listFields() {
    const list = element('dl', 'fields');
    for (const column of state.opened.columns.slice(0, 300)) {
        const pair = element('div');
        pair.append(element('dt', '', column.name), element('dd', '', typeLine(column)));
        list.append(pair);
    }
    at('fields').replaceChildren(element('h2', '', 'Fields'), element('p', 'type', 'Click a heading to sort by it and draw its chart; choose a cell to see all of its value.'), list);
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
    open: (row, column) => showValue(row, column),
    copied: (text) => say(`Copied ${counted(text.length, 'character')}`, '', tableNotes()),
    fail: complain,
});

function tableSource(rows) {
    return {
        columns: state.opened.columns,
        count: rows,
        records: state.opened.records,
        sortable: true,
        rows: (first, n) => engine.call('rows', first, n),
        whole: async (row, column) => {
            const cell = await engine.call('cell', row, column);
            return cell.kind === 'text' ? new TextDecoder().decode(cell.bytes) : describe({b: cell.kind === 'bytes' ? '' : cell.kind, n: cell.size});
        },
    };
}

async function showTable(turn, rows, notes = []) {
    at('start').hidden = true;
    for (const id of ['grid', 'side', 'tools']) at(id).hidden = false;
    at('export').disabled = at('sql').disabled = false;
    at('facts').textContent = at('facts').title = factsLine(state.opened);
    listPages();
    listFields();
    const all = state.opened.records;
    const empty = !state.opened.columns.length ? 'This table has no fields to show.' : all ? 'No record passes.' : 'This table has no records.';
    at('grid').classList.toggle('empty', !rows || !state.opened.columns.length);
    at('grid').dataset.empty = empty;
    await grid.show(tableSource(rows), state.sort);
    if (turn !== state.turn) return;
    const selected = state.filter || state.search || state.deleted !== 1;
    say(selected ? `${grouped(rows)} of ${counted(all, 'record')}` : counted(all, 'record'), '', [...notes, ...tableNotes()]);
}

// Filter, search and sort anew.
async function view() {
    if (!state.opened) return;
    const turn = ++state.turn;
    if (working) await engine.restart().then(() => engine.call('open', state.path, state.pages[state.path] || ''));
    const wanted = {
        filter: state.filter,
        search: state.search,
        sort: state.sort ? state.sort.column : -1,
        descending: Boolean(state.sort && state.sort.descending),
        deleted: state.deleted,
    };
    leaveAnswer();
    try {
        const {rows, notes} = await work(() => engine.call('view', wanted));
        if (turn !== state.turn) return;
        at('filter').removeAttribute('aria-invalid');
        at('value').hidden = true;
        await showTable(turn, rows, notes);
        if (state.column >= 0) await showChart(state.column);
    } catch (e) {
        if (turn !== state.turn || e instanceof Stopped) return;
        if (state.filter) at('filter').setAttribute('aria-invalid', 'true');
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
    } catch (e) {
        complain(e);
    }
}

async function showValue(row, column) {
    if (state.answer) return;
    const turn = state.turn;
    try {
        const cell = await engine.call('cell', row, column);
        const data = grid.rowData(row);
        if (turn !== state.turn || grid.row !== row || grid.column !== column) return;
        at('value').hidden = false;
        drawValue(at('value'), data ? data.r : 0, state.opened.columns[column], cell);
    } catch (e) {
        complain(e);
    }
}

function closeSide() {
    at('chart').hidden = at('value').hidden = true;
}

// ---------------------------------------------------------------------------------------------
// SQL
// ---------------------------------------------------------------------------------------------

const stem = (path) => path.split('/').pop().replace(/\.[^.]*$/, '');
const quoted = (name) => (/^[A-Za-z_][A-Za-z_0-9]*$/.test(name) ? name : `"${name.replace(/"/g, '""')}"`);

function toggleSql() {
    const show = at('query').hidden;
    at('query').hidden = !show;
    at('sql').setAttribute('aria-pressed', String(show));
    if (!show) return leaveAnswer() && view();
    const shown = state.tables.slice(0, 12);
    at('names').replaceChildren(...shown.map((path) => element('code', '', quoted(stem(path)))));
    if (state.tables.length > shown.length) at('names').append(` and ${state.tables.length - shown.length} more`);
    if (!at('statement').value) at('statement').value = `SELECT * FROM ${quoted(stem(state.path))} LIMIT 100`;
    at('statement').focus();
}

async function runQuery() {
    const turn = ++state.turn;
    const tables = state.tables.map((path) => `${path}\t${state.pages[path] || ''}`).join('\n');
    try {
        const answer = await work(() => engine.call('query', at('statement').value, tables));
        if (turn !== state.turn) return;
        state.answer = answer;
        closeSide();
        showBack();
        at('grid').classList.toggle('empty', !answer.rows);
        at('grid').dataset.empty = 'The answer has no rows.';
        await grid.show({columns: answer.columns, count: answer.rows, sortable: false, rows: (first, n) => engine.call('answerRows', first, n)}, null);
        say(`${answer.cut ? 'The first ' : ''}${counted(answer.rows, 'row')}${answer.cut ? '; there are more' : ''}`, '', answer.notes);
    } catch (e) {
        complain(e);
    }
}

// True when an answer was shown.
function leaveAnswer() {
    const was = state.answer !== null;
    state.answer = null;
    showBack();
    return was;
}

function showBack() {
    at('back').hidden = state.answer === null;
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
        save(csv, `${stem(state.path)}.csv`);
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
        filesOfInput(at('file')).then(take).catch(complain);
        at('file').value = '';
    });
    at('open').addEventListener('keydown', (e) => {
        if (e.key === 'Enter' || e.key === ' ') at('file').click();
    });
    at('export').addEventListener('click', exportCsv);
    at('sql').addEventListener('click', toggleSql);
    at('run').addEventListener('click', runQuery);
    at('back').addEventListener('click', () => view());
    at('statement').addEventListener('keydown', (e) => {
        if (e.key === 'Enter' && (e.ctrlKey || e.metaKey)) runQuery();
    });
    at('stop').addEventListener('click', stop);
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
    const kept = {filter: state.filter, search: state.search, sort: state.sort, column: state.column};
    await open(state.path);
    if (!state.opened) return;
    Object.assign(state, kept);
    at('filter').value = kept.filter;
    at('search').value = kept.search;
    if (kept.filter || kept.search || kept.sort || state.deleted !== 1) await view();
    else if (kept.column >= 0) await showChart(kept.column);
}

async function stop() {
    state.turn++;
    await engine.restart();
    if (state.path) await open(state.path);
    say('Stopped', '', tableNotes());
}

function listenToDrops() {
    let inside = 0;
    const over = (shown) => (at('over').hidden = !shown);
    addEventListener('dragenter', (e) => {
        e.preventDefault();
        over(++inside > 0);
    });
    addEventListener('dragleave', () => over(--inside > 0));
    addEventListener('dragover', (e) => e.preventDefault());
    addEventListener('drop', (e) => {
        e.preventDefault();
        inside = 0;
        over(false);
        filesOfDrop(e.dataTransfer).then(take).catch(complain);
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
parsed
    .then(() => {
        const inPage = filesInPage();
        return inPage.length ? take(inPage) : null;
    })
    .catch(complain);
