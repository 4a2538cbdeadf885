#!/usr/bin/env node
// Times of the page on a table, best of three runs, and the memory it takes:
// bench/page.mjs TABLE FILTER WORD COLUMN 'SELECT ...'
// scripts/page --test has to have run before. Ready is when files can be dropped, by the browser's
// own clock; the first screen is that of a table dropped at that moment, while the engine starts.
import fs from 'node:fs';
import path from 'node:path';
import {fileURLToPath, pathToFileURL} from 'node:url';

const root = path.dirname(path.dirname(fileURLToPath(import.meta.url)));
const page = path.join(root, 'build/page');
const {chromium} = await import(process.env.PLAYWRIGHT || path.join(page, 'node/node_modules/playwright-core/index.mjs'));
const file = pathToFileURL(process.env.MIRA_PAGE || path.join(page, 'mira.html')).href;
const [table, filter, word, column, sql] = process.argv.slice(2);

const best = {};
async function timed(name, action) {
    const start = performance.now();
    await action();
    const time = Math.round(performance.now() - start);
    best[name] = Math.min(best[name] ?? Infinity, time);
}

// Memory that is a tab's process's own, in MiB.
async function memoryOf(tab) {
    const system = await tab.context().browser().newBrowserCDPSession();
    const {processInfo} = await system.send('SystemInfo.getProcessInfo');
    const sizes = processInfo.filter(({type}) => type === 'renderer').map(({id}) => {
        const status = fs.readFileSync(`/proc/${id}/status`, 'utf8');
        const part = (name) => Number(status.match(new RegExp(`${name}:\\s*(\\d+)`))?.[1] ?? 0);
        return (part('RssAnon') + part('RssShmem')) / 1024;
    });
    await system.detach();
    return Math.max(...sizes);
}

let most = 0;
async function run(browser) {
    const tab = await browser.newPage();
    await tab.waitForTimeout(500);
    const empty = await memoryOf(tab);
    const silent = () => tab.evaluate(() => document.getElementById('status').replaceChildren());
    const said = () => tab.waitForFunction(() => document.getElementById('status').textContent && !document.body.hasAttribute('aria-busy'));
    const after = async (action) => {
        await silent();
        await action();
        await said();
    };
    const typed = (selector, text) => after(async () => {
        await tab.fill(selector, text);
        await tab.press(selector, 'Enter');
    });
    await tab.goto(file, {waitUntil: 'commit'});
    await tab.waitForSelector('html[data-ready]');
    await timed('first screen', async () => {
        await tab.setInputFiles('input[type=file]', table);
        await tab.waitForSelector('[role=gridcell]');
    });
    for (const name of ['ready', 'engine']) {
        const time = await tab.evaluate((mark) => performance.getEntriesByName(mark)[0].startTime, name);
        best[name] = Math.min(best[name] ?? Infinity, Math.round(time));
    }
    const watch = setInterval(() => memoryOf(tab).then((size) => (most = Math.max(most, size - empty)), () => {}), 100);
    await tab.waitForTimeout(1500);
    await timed('search', () => typed('[type=search]', word));
    await typed('[type=search]', '');
    await timed('filter', () => typed('[aria-label=Filter]', filter));
    await typed('[aria-label=Filter]', '');
    const heading = `[role=columnheader]:has-text("${column}")`;
    await timed('sort and chart', () => after(async () => {
        await tab.click(heading);
        await tab.waitForSelector('#chart svg[role=img] .bar');
    }));
    await tab.focus('[role=grid]');
    await timed('jump', async () => {
        await tab.keyboard.press('Control+End');
        await tab.waitForFunction(() => document.querySelector('.active')?.textContent);
    });
    await tab.click('text="SQL"');
    await tab.fill('#statement', sql);
    await timed('SQL', () => after(() => tab.click('#run')));
    clearInterval(watch);
    await tab.close();
}

const browser = await chromium.launch({executablePath: '/usr/bin/chromium', args: ['--no-sandbox']});
for (let i = 0; i < 3; i++) await run(browser);
await browser.close();
for (const [name, time] of Object.entries(best)) console.log(`${name.padEnd(16)}${String(time).padStart(6)} ms`);
console.log(`memory          ${String(Math.round(most)).padStart(6)} MiB at most, beyond an empty tab`);
