// Files of the drop as the engine reads them: in blocks that are kept, the latest used ones, since a
// read of a slice costs the same for one byte as for a block.
const kBlock = 256 * 1024;
const kKept = 48; // 12 MiB
const kUnfreed = 8; // 2 MiB
const kEio = 29; // as emscripten numbers them

const blocks = new Map(); // "node:block" -> bytes, the longest unused first

// What a reader has given is freed when the browser collects garbage, which may wait until a hundred
// MiB have come together. An array of many, whose memory nobody touches, is a reason to collect.
let unfreed = 0;
function collect() {
    if (++unfreed < kUnfreed) return;
    unfreed = 0;
    new ArrayBuffer(64 * 1024 * 1024);
}

function blockOf(node, number, reader) {
    const key = node.id + ':' + number;
    let bytes = blocks.get(key);
    if (bytes) {
        blocks.delete(key);
    } else {
        const start = number * kBlock;
        try {
            bytes = new Uint8Array(reader.readAsArrayBuffer(node.contents.slice(start, start + kBlock)));
        } catch {
            throw new engine.FS.ErrnoError(kEio); // the file has been changed or is gone
        }
        if (blocks.size >= kKept) blocks.delete(blocks.keys().next().value);
        collect();
    }
    blocks.set(key, bytes);
    return bytes;
}

// Takes the place of emscripten's own reading.
function readInBlocks(engine) {
    const reader = new FileReaderSync();
    engine.WORKERFS.stream_ops.read = (stream, buffer, offset, length, position) => {
        let done = 0;
        const end = Math.min(position + length, stream.node.size);
        while (position + done < end) {
            const at = position + done;
            const bytes = blockOf(stream.node, Math.floor(at / kBlock), reader);
            const from = at % kBlock;
            const part = bytes.subarray(from, from + end - at);
            if (!part.length) break; // the file has become shorter
            buffer.set(part, offset + done);
            done += part.length;
        }
        return done;
    };
}
