#!/usr/bin/env node
// Times of the page on a table, best of three runs: bench/page.mjs TABLE FILTER WORD COLUMN 'SELECT ...'
// scripts/page --test has to have run before.
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

async function run(browser) {
    const tab = await browser.newPage();
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
    await timed('ready', async () => {
        await tab.goto(file);
        await tab.waitForSelector('html[data-ready]');
    });
    await timed('first screen', async () => {
        await tab.setInputFiles('input[type=file]', table);
        await tab.waitForSelector('[role=gridcell]');
    });
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
    await tab.close();
}

const browser = await chromium.launch({executablePath: '/usr/bin/chromium', args: ['--no-sandbox']});
for (let i = 0; i < 3; i++) await run(browser);
await browser.close();
for (const [name, time] of Object.entries(best)) console.log(`${name.padEnd(16)}${String(time).padStart(6)} ms`);
