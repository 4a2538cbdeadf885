// Files of the drop as the engine reads them: in blocks that are kept, the latest used ones, since a
// read of a slice costs the same for one byte as for a block.
const kBlock = 256 * 1024;
const kKept = 96; // 24 MiB
const kEio = 29; // as emscripten numbers them

const blocks = new Map(); // "node:block" -> bytes, the longest unused first

// Memory is given back at once, not when some collector has time.
function release(key) {
    blocks.get(key).buffer.transfer?.(0);
    blocks.delete(key);
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
        if (blocks.size >= kKept) release(blocks.keys().next().value);
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
