// The engine behind promises. It works on one call at a time; whoever cannot wait for it to end
// starts it anew, with the same files.
const textOf = (id) => document.getElementById(id).textContent;

// The engine stands behind this script, so that files can be dropped before it is there.
const parsed = new Promise((resolve) => document.addEventListener('DOMContentLoaded', resolve));

// Compiled once, while its thread starts.
const compiled = parsed.then(() => {
    const holder = document.getElementById('engine-bytes');
    const packed = new Blob([bytesOf(holder.textContent.trim())]);
    holder.remove();
    const plain = packed.stream().pipeThrough(new DecompressionStream('gzip'));
    return WebAssembly.compileStreaming(new Response(plain, {headers: {'Content-Type': 'application/wasm'}}));
});
compiled.catch(() => {}); // told by whoever waits for the engine

const kOfView = ['rows', 'cell', 'chart', 'csv'];

class Engine {
    constructor(onProgress) {
        this.onProgress = onProgress;
        this.files = [];
        this.opened = null; // [path, code page]
        this.viewed = null; // what the last view() wanted
        this.lost = false; // that the engine does not know of it
        this.starts = 0;
        this.start();
    }

    start() {
        const start = ++this.starts;
        this.calls = new Map();
        this.next = 1;
        this.ready = parsed.then(() => this.launch(start));
        this.ready.catch(() => {});
    }

    launch(start) {
        if (start !== this.starts) throw new Stopped();
        const url = URL.createObjectURL(new Blob([textOf('engine')], {type: 'text/javascript'}));
        const worker = new Worker(url);
        this.worker = worker;
        return new Promise((resolve, reject) => {
            worker.onerror = (e) => reject(new Error(e.message || 'the engine does not start'));
            worker.onmessage = ({data}) => {
                if (data.progress) return this.onProgress(...data.progress);
                if (data.ready) return resolve();
                if (data.failed) return reject(new Error(data.failed));
                const done = this.calls.get(data.id);
                this.calls.delete(data.id);
                if (done) done(data.result);
            };
            compiled.then((module) => worker.postMessage(module)).catch(reject);
        }).finally(() => URL.revokeObjectURL(url));
    }

    // Throws an Error with the engine's sentence.
    async call(name, ...values) {
        const start = this.starts;
        await this.ready;
        if (start !== this.starts) throw new Stopped();
        if (this.lost && kOfView.includes(name)) this.post('view', this.viewed);
        if (kOfView.includes(name)) this.lost = false;
        const result = await this.post(name, values);
        if (result.stopped) throw new Stopped();
        if (name === 'open') Object.assign(this, {opened: result.error ? null : values, viewed: null, lost: false});
        if (name === 'view' && !result.error) Object.assign(this, {viewed: values, lost: false});
        if (result.broken) this.restart();
        if (result.error) throw new Error(result.error);
        return result;
    }

    post(name, values) {
        const id = this.next++;
        return new Promise((resolve) => {
            this.calls.set(id, resolve);
            this.worker.postMessage({id, name, values});
        });
    }

    mount(files) {
        this.files = files;
        this.opened = this.viewed = null;
        return this.call('mount', files);
    }

    // Ends what runs. The table is open again before other calls come; how its rows had been chosen is
    // given back with the first call that asks for them.
    restart() {
        this.lost = this.viewed !== null;
        this.worker?.terminate();
        for (const done of this.calls.values()) done({stopped: true});
        this.start();
        const start = this.starts;
        this.ready = this.ready.then(async () => {
            if (start === this.starts && this.files.length) await this.post('mount', [this.files]);
            if (start === this.starts && this.opened) await this.post('open', this.opened);
        });
        this.ready.catch(() => {});
    }
}

class Stopped extends Error {}
