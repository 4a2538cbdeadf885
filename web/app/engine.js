// The engine behind promises. It works on one call at a time; whoever cannot wait for it to end
// starts it anew, with the same files.
const textOf = (id) => document.getElementById(id).textContent;

const kOfView = ['rows', 'cell', 'chart', 'csv'];

class Engine {
    constructor(onProgress) {
        this.onProgress = onProgress;
        this.files = [];
        this.opened = null; // [path, code page]
        this.viewed = null; // what the last view() wanted
        this.lost = false; // that the engine does not know of it
        this.start();
    }

    start() {
        const source = new Blob([textOf('engine')], {type: 'text/javascript'});
        const url = URL.createObjectURL(source);
        this.worker = new Worker(url);
        this.calls = new Map();
        this.next = 1;
        this.ready = new Promise((resolve, reject) => {
            this.worker.onerror = (e) => reject(new Error(e.message || 'the engine does not start'));
            this.worker.onmessage = ({data}) => {
                if (data.progress) return this.onProgress(...data.progress);
                if (data.ready) return resolve();
                if (data.failed) return reject(new Error(data.failed));
                const done = this.calls.get(data.id);
                this.calls.delete(data.id);
                if (done) done(data.result);
            };
        });
        this.ready.then(() => URL.revokeObjectURL(url), () => {});
        this.worker.postMessage(textOf('engine-bytes').trim());
    }

    // Throws an Error with the engine's sentence.
    async call(name, ...values) {
        const worker = this.worker;
        await this.ready;
        if (worker !== this.worker) throw new Stopped();
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
        this.worker.terminate();
        for (const done of this.calls.values()) done({stopped: true});
        this.start();
        const worker = this.worker;
        this.ready = this.ready.then(async () => {
            if (worker === this.worker && this.files.length) await this.post('mount', [this.files]);
            if (worker === this.worker && this.opened) await this.post('open', this.opened);
        });
    }
}

class Stopped extends Error {}
