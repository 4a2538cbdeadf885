// The page in a real browser, beside what mira prints of the same tables.
import assert from 'node:assert/strict';
import {execFileSync, spawnSync} from 'node:child_process';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import {after, before, test} from 'node:test';
import {pathToFileURL} from 'node:url';

import {memoTable, parseCsv, pictureTable, plainTable} from './tables.mjs';

const {chromium} = await import(process.env.PLAYWRIGHT);
const pageFile = process.env.MIRA_PAGE;
const samples = process.env.MIRA_SAMPLES;
const work = fs.mkdtempSync(path.join(os.tmpdir(), 'mira-page-'));
let browser, page, requests;

before(async () => {
    browser = await chromium.launch({executablePath: '/usr/bin/chromium', args: ['--no-sandbox']});
});
after(async () => {
    await browser?.close();
    fs.rmSync(work, {recursive: true});
});

// A fresh page; what it asks of the network, or does wrong, fails the test.
async function fresh(file = pageFile, options = {}) {
    await page?.close();
    page = await browser.newPage({viewport: {width: 1200, height: 700}, ...options});
    requests = [];
    page.on('pageerror', (e) => requests.push(e.message));
    page.on('dialog', (d) => requests.push(`dialog ${d.message()}`));
    await page.goto(pathToFileURL(file).href);
    await page.waitForSelector('html[data-ready]');
    page.on('request', (r) => r.url().startsWith('blob:') || requests.push(r.url()));
    return page;
}
const settled = () => page.waitForFunction(() => !document.body.hasAttribute('aria-busy'));
// Rows come from the engine after their number.
const drawn = (count) =>
    page.waitForFunction((n) => document.querySelector('[role=grid]').getAttribute('aria-rowcount') === String(n + 1) &&
        (n === 0 || document.querySelector('[role=gridcell]')), count);
const said = () => page.innerText('[role=status]');
const rowCount = async () => Number(await page.getAttribute('[role=grid]', 'aria-rowcount')) - 1;
const rows = (most = 15) =>
    page.$$eval('[role=row]:has([role=gridcell])', (all, n) =>
        all.slice(0, n).map((row) => [...row.querySelectorAll('[role=gridcell]')].map((cell) => cell.textContent)), most);

// Opens files as if chosen; waits for rows, an empty table or a refusal.
async function choose(...files) {
    await page.evaluate(() => document.getElementById('status').replaceChildren());
    await page.setInputFiles('input[type=file]', files);
    await page.waitForFunction(() => document.getElementById('status').textContent !== '');
    await settled();
}
async function fill(selector, text) {
    const before = await said();
    await page.evaluate(() => document.getElementById('status').replaceChildren());
    await page.fill(selector, text);
    await page.press(selector, 'Enter');
    await page.waitForFunction(() => document.getElementById('status').textContent !== '');
    await settled();
    return before;
}
async function exported() {
    const [download] = await Promise.all([page.waitForEvent('download'), page.click('text=Export CSV')]);
    return fs.readFileSync(await download.path(), 'utf8');
}
// Files and folders, as a hand drops them.
async function drop(...files) {
    const session = await page.context().newCDPSession(page);
    const data = {items: [], files, dragOperationsMask: 1};
    await page.evaluate(() => document.getElementById('status').replaceChildren());
    for (const type of ['dragEnter', 'dragOver', 'drop']) await session.send('Input.dispatchDragEvent', {type, x: 9, y: 9, data});
    await page.waitForFunction(() => document.getElementById('status').textContent !== '');
    await settled();
}
const chosenTables = () => page.$$eval('[aria-label=Table] option', (all) => all.map((one) => one.value));
const active = () => page.getAttribute('[role=grid]', 'aria-activedescendant');
const inSight = (id) =>
    page.evaluate((name) => {
        const [cell, grid] = [document.getElementById(name), document.getElementById('grid')].map((one) => one.getBoundingClientRect());
        return cell.top >= grid.top + 30 && cell.bottom <= grid.bottom;
    }, id);
async function press(...keys) {
    for (const key of keys) await page.keyboard.press(key);
    await settled();
}

const mira = (table, ...options) =>
    spawnSync(process.env.MIRA_PROGRAM, [...options.slice(0, 1), path.basename(table), ...options.slice(1)], {cwd: path.dirname(table), encoding: 'utf8', maxBuffer: 1 << 28});

function tablesBelow(folder) {
    if (!folder) return [];
    return fs.readdirSync(folder, {recursive: true}).filter((name) => /\.(dbf|dbc)$/i.test(name)).sort().map((name) => path.join(folder, name));
}

function withMemo(table) {
    const stem = path.basename(table, path.extname(table)).toLowerCase();
    return fs.readdirSync(path.dirname(table))
        .filter((name) => path.basename(name, path.extname(name)).toLowerCase() === stem && /\.(dbt|fpt|smt|dct|cpg)$/i.test(name))
        .map((name) => path.join(path.dirname(table), name));
}

test('every table: cells, CSV, filter, sort and sentences are those of mira', async () => {
    await fresh();
    for (const table of [...tablesBelow(samples), ...tablesBelow(process.env.MIRA_CORPUS)]) {
        const plain = mira(table, 'export');
        await choose(table, ...withMemo(table));
        if (plain.status === 2) {
            const refused = plain.stderr.trim().split('\n').pop().replace(/^mira: /, '');
            assert.ok((await said()).includes(refused) || refused.includes('--record'), `${table}: ${refused}`);
            continue;
        }
        assert.equal(await exported(), plain.stdout, table);
        await page.selectOption('[aria-label="Deleted records"]', '0');
        await settled();
        const lines = parseCsv(plain.stdout);
        await drawn(lines.length - 1);
        const cells = await rows();
        // Long texts are cut, and of very many columns those in sight are drawn.
        const start = (row) => row.map((cell) => cell.slice(0, 500));
        const columns = cells.length && lines[0].length > 64 ? cells[0].length : lines[0].length;
        assert.deepEqual(cells.map(start), lines.slice(1, 16).map((row) => start(row.slice(0, columns))), table);
        assert.equal(await rowCount(), lines.length - 1, table);
        for (const sentence of plain.stderr.split('\n').filter((line) => /memo file .* missing|interrupted/.test(line))) {
            assert.ok((await said()).includes(sentence.replace(/^mira: [^:]*: /, '')), `${table}: ${sentence}`);
        }
        if (lines.length < 3) continue;
        await page.click('[role=columnheader]');
        await fill('[aria-label=Filter]', '_record>2');
        const chosen = mira(table, 'export', '-w', '_record>2', '-s', lines[0][0]);
        assert.equal(await exported(), chosen.stdout, `${table}, filtered and sorted`);
        for (const sentence of chosen.stderr.split('\n').filter((line) => /first in record/.test(line))) {
            assert.ok((await said()).includes(sentence.replace(/^mira: [^:]*: /, '')), `${table}, sorted: ${sentence}`);
        }
        await page.selectOption('[aria-label="Deleted records"]', '1');
        await settled();
    }
    assert.deepEqual(requests, []);
});

test('a drop, a search, keys, copied cells, a chart, SQL', async () => {
    await fresh();
    const folder = path.join(work, 'folder');
    fs.mkdirSync(path.join(folder, 'sub'), {recursive: true});
    for (const [name, to] of [['stock.dbf', ''], ['members.dbf', 'sub'], ['members.fpt', ''], ['orders.dbf', '']]) {
        fs.copyFileSync(path.join(samples, name), path.join(folder, to, name));
    }
    await drop(folder);
    assert.deepEqual(await chosenTables(), ['folder/orders.dbf', 'folder/stock.dbf', 'folder/sub/members.dbf']);
    await page.selectOption('[aria-label=Table]', 'folder/sub/members.dbf');
    await page.waitForFunction(() => /memo file/.test(document.getElementById('status').textContent));
    await drop(path.join(folder, 'members.fpt'));
    assert.doesNotMatch(await said(), /missing/);
    await page.selectOption('[aria-label="Deleted records"]', '2');
    await settled();
    await drop(path.join(samples, 'stock.dbf'), path.join(samples, 'members.dbf'), path.join(samples, 'members.fpt'));
    assert.equal(await page.inputValue('[aria-label="Deleted records"]'), '1');
    assert.deepEqual(await chosenTables(), ['members.dbf', 'stock.dbf']);
    await page.selectOption('[aria-label=Table]', 'stock.dbf');
    await page.waitForFunction(() => document.querySelector('[role=grid]').getAttribute('aria-rowcount') === '13');
    assert.equal(await page.$eval('.deleted [role=gridcell]', (cell) => getComputedStyle(cell).textDecorationLine), 'line-through');

    await page.click('[role=columnheader]:has-text("PRICE")');
    await page.waitForSelector('#chart svg[role=img] .bar');
    assert.equal(await page.getAttribute('[role=columnheader]:has-text("PRICE")', 'aria-sort'), 'ascending');
    assert.match(await page.innerText('#chart'), /Least\s*-15\.00\s*Most\s*24\.00/);
    assert.equal((await rows())[0][0], 'RET001');
    await fill('[type=search]', 'WASHER');
    assert.equal(await rowCount(), 2);
    assert.deepEqual(await page.evaluate(() => Array.from(CSS.highlights.get('found'), String)), ['Washer', 'Washer']);
    await fill('[type=search]', '7.2');
    assert.deepEqual((await rows()).map((row) => row[0]), ['GLU500']);
    await fill('[type=search]', '');
    await fill('[aria-label=Filter]', 'PRCE>5');
    assert.match(await said(), /stock\.dbf: .*PRICE/);
    await fill('[aria-label=Filter]', '');

    await page.focus('[role=grid]');
    for (const key of ['Control+Home', 'ArrowDown', 'ArrowRight', 'Shift+ArrowRight', 'Shift+ArrowDown']) await page.keyboard.press(key);
    await page.evaluate(() => (navigator.clipboard.writeText = async (text) => (document.body.dataset.copied = text)));
    await page.keyboard.press('Control+c');
    await page.waitForFunction(() => document.body.dataset.copied);
    assert.equal(await page.evaluate(() => document.body.dataset.copied), 'Washer 8 mm\t0.03\nWasher 10 mm\t0.04');
    await press('Control+End');
    assert.equal(await active(), 'c11-5');
    await press('Control+Home', 'ArrowUp', 'ArrowRight', 'Enter');
    assert.equal(await active(), 'c-1-1');
    assert.equal(await page.getAttribute('#c-1-1', 'aria-sort'), 'ascending');
    assert.equal(await page.$eval('#c0-1', (cell) => cell.textContent), 'Bolt M8 x 40');
    await press('ArrowDown', 'Enter');
    await page.waitForFunction(() => document.activeElement.textContent === 'Bolt M8 x 40');
    await press('Escape');
    assert.deepEqual(await page.$$eval('#grid:focus, #value:not([hidden])', (all) => all.map((one) => one.id)), ['grid']);
    await page.click('.record');
    assert.equal((await page.$$('[role=gridcell][aria-selected=true]')).length, 6);
    const handle = await page.locator('#c-1-1 .handle').boundingBox();
    await page.mouse.move(handle.x + 4, handle.y + 9);
    await page.mouse.down();
    await page.mouse.move(handle.x + 54, handle.y + 9);
    await page.mouse.up();
    assert.equal((await page.locator('#c-1-1 .handle').boundingBox()).x, handle.x + 50);
    assert.equal(await page.getAttribute('#c-1-1', 'aria-sort'), 'ascending');
    await press('Control+f');
    assert.equal(await page.evaluate(() => document.activeElement.type), 'search');

    await page.click('text="SQL"');
    let answer;
    for (const [sql, heading] of [
        ['SELECT s.*, s.PRICE * 2, t.REORDER, t.COUNTED FROM stock s LEFT JOIN stock t ON t.CODE = s.CODE AND t.REORDER ORDER BY s.CODE', 'REORDER'],
        ['SELECT STOCK > 100 AS MANY, count(*) AS N, sum(PRICE*STOCK), NULL FROM stock GROUP BY 1 ORDER BY 2', 'MANY'],
    ]) {
        await page.fill('#statement', sql);
        await page.press('#statement', 'Control+Enter');
        await page.waitForSelector(`[aria-label=Answer] [role=columnheader]:has-text("${heading}")`);
        await settled();
        answer = execFileSync(process.env.MIRA_PROGRAM, ['query', '-q', '-F', 'csv', sql, samples], {encoding: 'utf8'});
        assert.equal(await exported(), answer);
        assert.deepEqual(await rows(), parseCsv(answer).slice(1, 16));
    }
    await page.click('#c1-2');
    await page.waitForFunction((text) => document.querySelector('#value pre')?.textContent === text, parseCsv(answer)[2][2]);
    // A filter that is refused leaves the answer there.
    await page.fill('[aria-label=Filter]', 'NOSUCH=1');
    await page.press('[aria-label=Filter]', 'Enter');
    await page.waitForSelector('[aria-label=Filter][aria-invalid]');
    assert.equal(await exported(), answer);
    await page.fill('[aria-label=Filter]', '');
    await page.press('[aria-label=Filter]', 'Enter');
    await page.click('text="SQL"');
    await drawn(12);
    assert.deepEqual(requests, []);
});

test('code pages by a .cpg file, of one byte and of several, are those of mira', async () => {
    const table = path.join(work, 'bytes.dbf');
    const all = Buffer.from(Array.from({length: 223}, (_, i) => i + 0x21));
    const pages = ['CP437', 'CP864', 'CP1125', 'KOI8-T', 'MAC-UK', 'VISCII'].map((name) => [name, all]);
    // The last character of each is cut.
    pages.push(['GB18030', Buffer.from('b0a1208130813081308130813981308439ef309032823641e3329a3541813081203081308130', 'hex')]);
    pages.push(['EUC-JP', Buffer.from('a5a1b0a1208fb0a1418eb120a541ff8fb0', 'hex')]);
    await fresh();
    for (const [name, bytes] of pages) {
        const cpg = table.replace('.dbf', '.cpg');
        plainTable(table, [['TEXT', 'C', 230]], [bytes]);
        fs.writeFileSync(cpg, name);
        await choose(table, cpg);
        assert.equal(await exported(), mira(table, 'export').stdout, name);
    }
});

test('a hostile table runs nothing', async () => {
    const attack = '<img src=x onerror=alert(1)><script>alert(2)</script>';
    const table = path.join(work, 'hostile.dbf');
    memoTable(table, '<b>X</b>', [attack, '=1+1', '\u202Ex'], attack.repeat(40));
    await fresh();
    await choose(table, table.replace('.dbf', '.dbt'));
    assert.equal((await rows())[0][0], attack);
    await page.click('[role=columnheader]');
    await page.waitForSelector('#chart svg[role=img]');
    await page.click('[role=gridcell]:nth-child(3)');
    await page.waitForSelector('#value pre');
    assert.equal(await page.$('#grid img, #grid script, #side script, #side img, #status img'), null);
    await page.evaluate(() => (navigator.clipboard.writeText = async (text) => (document.body.dataset.copied = text)));
    await page.focus('[role=grid]');
    await press('Home', 'Shift+End', 'Control+c');
    await page.waitForFunction((text) => document.body.dataset.copied?.split('\t')[2] === text, attack.repeat(40));
    const archive = path.join(work, 'hostile.zip');
    const pack = 'import sys, zipfile\nwith zipfile.ZipFile(sys.argv[1], "w", 8) as z:\n for n in sys.argv[3:]: z.write(sys.argv[2], n)';
    const names = ['../../up.dbf', '/root.dbf', 'a\nb.dbf', `${attack.replaceAll('/', '')}.dbf`, 'x.dbf/y.dbf', 'up.cpg', '__MACOSX/._up.dbf'];
    execFileSync('python3', ['-c', pack, archive, table, ...names]);
    await drop(archive);
    assert.deepEqual((await chosenTables()).sort(), [names[3], 'a_b.dbf', 'root.dbf', 'up.dbf', 'x.dbf/y.dbf'].sort());
    for (const name of await chosenTables()) {
        await page.selectOption('[aria-label=Table]', name);
        await settled();
        assert.match(await said(), /^3 records/);
        assert.equal((await rows())[0][0], attack, name);
    }
    const harmed = fs.readFileSync(archive);
    harmed[80] ^= 1; // among what the first entry holds
    fs.writeFileSync(archive, harmed);
    await drop(archive);
    assert.match(await said(), /up\.dbf is damaged/);
    const sent = await page.evaluate(() => fetch('http://127.0.0.1:9/').then(() => 'sent', (e) => e.name));
    assert.equal(sent, 'TypeError');
    assert.deepEqual(requests, []);
});

test('three gigabytes open at once, and their last record is reached', async () => {
    const table = path.join(work, 'large.dbf');
    const count = 30_000_000;
    plainTable(table, [['NAME', 'C', 99]], [], count);
    const file = fs.openSync(table, 'r+');
    fs.writeSync(file, ' last'.padEnd(100), 65 + (count - 1) * 100);
    fs.closeSync(file);
    await fresh();
    await choose(table);
    assert.equal(await rowCount(), count);
    await page.focus('[role=grid]');
    await page.keyboard.press('Control+End');
    await page.waitForFunction((row) => document.getElementById(`c${row}-0`)?.textContent === 'last', count - 1);
    assert.ok(await inSight(`c${count - 1}-0`));
    // A pixel of the bar is 150 rows.
    await press(...Array(30).fill('ArrowUp'));
    assert.equal(await active(), `c${count - 31}-0`);
    assert.ok(await inSight(`c${count - 31}-0`));
    await page.mouse.move(300, 400);
    await page.mouse.wheel(0, -60);
    await page.waitForFunction((id) => document.getElementById(id), `c${count - 33}-0`);
    await page.$eval('#grid', (grid) => (grid.scrollTop = (grid.scrollHeight - grid.clientHeight) / 2));
    await page.waitForFunction((row) => Math.abs(document.querySelector('[data-row]').dataset.row - row) < 300, count / 2);

    await page.click('[role=columnheader]');
    await page.click('#stop');
    await page.waitForFunction(() => /^Stopped/.test(document.getElementById('status').textContent));
    assert.equal(await page.getAttribute('[role=columnheader]', 'aria-sort'), 'none');
    fs.truncateSync(table, 65 + 100);
    await page.focus('[role=grid]');
    await press('Control+End');
    await page.waitForFunction(() => /cannot be read/.test(document.getElementById('status').textContent));
    fs.unlinkSync(table);
});

test('code pages, a missing memo file, null, dark, narrow, an empty table, a table in the page', async () => {
    const table = path.join(work, 'page.dbf');
    plainTable(table, [['CITY', 'C', 10]], [Buffer.from([0x8e, 0xac, 0xe1, 0xaa])]);
    await fresh(pageFile, {colorScheme: 'dark', viewport: {width: 390, height: 800}});
    await choose(table);
    assert.ok(await page.evaluate(() => getComputedStyle(document.body).backgroundColor.match(/\d+/g).every((c) => c < 60)));
    for (const [name, text] of [['CP866', 'Омск'], ['CP936', '幀岐'], ['', 'Ä¼ß¬']]) {
        await page.selectOption('[aria-label="Code page"]', name);
        await page.waitForFunction((wanted) => document.querySelector('[role=gridcell]').textContent === wanted, text);
    }
    assert.match(await said(), /page\.dbf: code page CP437 is only a default/);
    await page.click('[role=columnheader]');
    const places = await page.$$eval('#grid, #side', (all) => all.map((one) => one.getBoundingClientRect().top));
    assert.ok(places[1] > places[0]);

    await choose(path.join(samples, 'members.dbf'));
    assert.match(await said(), /members\.dbf: its memo file members\.fpt is missing/);
    plainTable(table, [['CITY', 'C', 10]], []);
    await choose(table);
    assert.equal(await rowCount(), 0);
    fs.writeFileSync(table, 'no table');
    await choose(table);
    assert.match(await said(), /page\.dbf: no table/);
    assert.ok(await page.isVisible('text=Drop a table here'));
    assert.deepEqual(await page.$$eval('#status p', (all) => all.map((one) => one.className)), ['error']);

    // Twice the size: the page scrolls, the rows keep their room.
    await page.setViewportSize({width: 640, height: 400});
    const wide = Array.from({length: 255}, (_, i) => [`F${i}`, 'C', 4]);
    plainTable(table, wide, Array.from({length: 99}, () => 'text'.repeat(255)));
    await choose(table);
    await page.click('text="SQL"');
    assert.ok((await page.locator('#grid').boundingBox()).height >= 300);
    await page.focus('[role=grid]');
    await press('Control+End');
    assert.equal(await page.$eval('#c98-254', (cell) => cell.textContent), 'text');
    assert.ok((await page.$$('[role=gridcell]')).length < 2000);
    pictureTable(table);
    await choose(table, table.replace('.dbf', '.fpt'));
    for (const [row, shown] of [[0, '#value figcaption:text-is("1 × 1")'], [1, '#value :text("cannot be shown") + pre.hex']]) {
        await page.click(`#c${row}-0`);
        await page.waitForSelector(shown);
    }

    const out = path.join(work, 'members.html');
    execFileSync(process.env.MIRA_PROGRAM, ['page', path.join(samples, 'members.dbf'), '-o', out], {env: {...process.env}});
    await fresh(out);
    await page.waitForSelector('[role=gridcell]');
    await settled();
    assert.equal(await exported(), mira(path.join(samples, 'members.dbf'), 'export').stdout);
    assert.deepEqual(requests, []);
});
