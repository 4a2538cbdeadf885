// The engine behind promises. It works on one call at a time; whoever cannot wait for it to end
// starts it anew, with the same files.
const textOf = (id) => document.getElementById(id).textContent;

class Engine {
    constructor(onProgress) {
        this.onProgress = onProgress;
        this.files = [];
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
        const id = this.next++;
        const result = await new Promise((resolve) => {
            this.calls.set(id, resolve);
            worker.postMessage({id, name, values});
        });
        if (result.stopped) throw new Stopped();
        if (result.broken) await this.restart();
        if (result.error) throw new Error(result.error);
        return result;
    }

    mount(files) {
        this.files = files;
        return this.call('mount', files);
    }

    // Ends what runs.
    async restart() {
        this.worker.terminate();
        for (const done of this.calls.values()) done({stopped: true});
        this.start();
        if (this.files.length) await this.call('mount', this.files);
    }
}

class Stopped extends Error {}
