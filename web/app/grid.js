// A grid that draws the rows in sight alone. Rows come from a source: {columns, count, rows(first,
// n), sortable}; a cell is null, a text, or an object as the engine gives it.
const kRow = 30; // pixels
const kTallest = 6e6; // a browser caps heights; beyond that the scroll bar is scaled
const kChunk = 128; // rows asked for at once
const kAhead = 5; // rows drawn above and below those in sight
const kWidest = 340; // pixels, unless asked for
const kManyColumns = 64; // of more only those in sight are drawn
const kStep = 8; // as many at a time come into sight

const element = (tag, className, text) => {
    const made = document.createElement(tag);
    if (className) made.className = className;
    if (text !== undefined) made.textContent = text;
    return made;
};
const role = (name, className, text) => {
    const made = element('div', className, text);
    made.setAttribute('role', name);
    return made;
};
// A heading beside the rows, with what closes its section.
const heading = (name) => {
    const made = element('h2', '', name);
    const close = element('button', 'close', '×');
    close.type = 'button';
    close.title = 'Close';
    close.setAttribute('aria-label', `Close ${name}`);
    made.append(close);
    return made;
};
const isNumber = (column) => column.as === 'number';
const isCut = (cell) => cell !== null && cell.n > 0 && cell.b === undefined;
const cellText = (cell) => (cell === null ? '' : typeof cell === 'string' ? cell : cell.t);

class Grid {
    constructor(root, on) {
        this.root = root;
        this.on = on; // sort(column), select(row, column), open(row, column), leave(), copied(text), fail(error)
        this.head = role('row', 'head');
        this.head.setAttribute('aria-rowindex', '1');
        this.body = element('div', 'body');
        this.body.setAttribute('role', 'rowgroup');
        this.root.append(this.head, this.body);
        this.columns = [];
        this.count = 0;
        this.row = 0; // -1 is the heading
        this.root.addEventListener('scroll', () => this.draw(), {passive: true});
        this.root.addEventListener('keydown', (e) => this.key(e));
        this.root.addEventListener('wheel', (e) => this.wheel(e), {passive: false});
        this.root.addEventListener('copy', (e) => this.copy(e));
        this.body.addEventListener('mousedown', (e) => this.press(e));
        new ResizeObserver(() => this.draw()).observe(this.root);
    }

    // Shows a source from its first row on; sort is {column, descending} or null.
    async show(source, sort) {
        const other = this.source !== source;
        const columnsChanged = !this.source || this.source.columns !== source.columns;
        this.source = source;
        this.sought = source.sought || '';
        this.columns = source.columns;
        this.count = source.count;
        this.chunks = new Map();
        this.failed = new Set(); // chunks that are not asked for again
        this.drawn = new Map();
        const inHeading = this.row === -1 && source.sortable && !columnsChanged;
        this.row = this.anchorRow = inHeading ? -1 : 0;
        if (columnsChanged) this.column = this.anchorColumn = 0;
        this.sort = sort;
        this.root.setAttribute('aria-rowcount', String(this.count + 1));
        this.root.setAttribute('aria-colcount', String(this.columns.length));
        if (this.count) await this.chunk(0);
        if (this.source !== source) return;
        if (columnsChanged) {
            this.measure();
            if (other) this.root.scrollLeft = 0;
        }
        this.root.scrollTop = 0;
        this.exact = null;
        this.body.replaceChildren();
        this.drawn = new Map(); // a scroll may have drawn some meanwhile
        this.heading();
        this.draw();
    }

    // Widths from the names and the first rows.
    measure() {
        const first = this.chunks.get(0);
        const sample = Array.isArray(first) ? first.slice(0, 60) : [];
        this.widths = this.columns.map((column, i) => {
            // Later rows of a text may be longer.
            const room = column.as === 'text' ? Math.min(column.length || 0, 16) * 7 + 28 : 64;
            return Math.min(Math.max(this.widthOf(i, sample), room, 64), kWidest);
        });
        const last = this.pen().measureText(grouped(this.source.records || this.count));
        this.numberWidth = Math.max(44, Math.round(last.width) + 24);
        this.place();
    }

    pen(weight = '') {
        const pen = document.createElement('canvas').getContext('2d');
        const {fontFamily, fontSize} = getComputedStyle(this.root);
        pen.font = `${weight} ${fontSize} ${fontFamily}`;
        return pen;
    }

    // What the name of a column and its values in some rows take.
    widthOf(column, rows) {
        let width = this.pen('600').measureText(this.columns[column].name).width + 44; // the arrow of a sort
        const pen = this.pen();
        for (const row of rows) {
            const cell = row.c[column];
            const fault = cell && cell.f ? (cell.t ? '⚠ ' : '⚠ not readable') : '';
            const text = cell === null ? 'null' : cell.b !== undefined ? describe(cell) : fault + cellText(cell).slice(0, 200);
            width = Math.max(width, pen.measureText(text).width + 28);
        }
        return Math.round(width);
    }

    // As wide as the rows in sight need.
    fit(column) {
        const rows = [...this.drawn.values()].map((row) => row.data).filter(Boolean);
        this.widths[column] = Math.min(this.widthOf(column, rows), this.root.clientWidth - this.numberWidth);
        this.placeAnew();
    }

    placeAnew() {
        this.place();
        this.heading();
        this.redraw();
    }

    place() {
        this.lefts = [];
        let left = this.numberWidth;
        for (const width of this.widths) {
            this.lefts.push(left);
            left += width;
        }
        this.width = left;
    }

    heading() {
        this.head.replaceChildren(element('div', 'corner'));
        this.head.firstChild.style.width = `${this.numberWidth}px`;
        this.head.firstChild.setAttribute('role', 'presentation');
        this.columns.forEach((column, i) => {
            const cell = role('columnheader', isNumber(column) ? 'number' : '');
            cell.append(element('span', 'name', column.name));
            cell.style.width = `${this.widths[i]}px`;
            cell.setAttribute('aria-colindex', String(i + 1));
            cell.id = `c-1-${i}`;
            cell.title = column.what ? `${column.name}: ${typeLine(column)}` : column.name;
            if (this.source.sortable) {
                const sorted = this.sort && this.sort.column === i;
                cell.setAttribute('aria-sort', !sorted ? 'none' : this.sort.descending ? 'descending' : 'ascending');
                cell.addEventListener('click', () => this.on.sort(i));
            }
            const handle = element('span', 'handle');
            handle.addEventListener('click', (e) => e.stopPropagation());
            handle.addEventListener('pointerdown', (e) => this.resize(e, i));
            handle.addEventListener('dblclick', () => this.fit(i));
            cell.append(handle);
            this.head.append(cell);
        });
        this.head.style.width = this.body.style.width = `${this.width}px`;
    }

    resize(event, column) {
        event.preventDefault();
        const start = event.clientX - this.widths[column];
        const move = (e) => {
            if (e.clientX - start === this.widths[column]) return;
            this.widths[column] = Math.max(40, e.clientX - start);
            this.placeAnew();
        };
        addEventListener('pointermove', move);
        addEventListener('pointerup', () => removeEventListener('pointermove', move), {once: true});
    }

    // -----------------------------------------------------------------------------------------
    // Rows
    // -----------------------------------------------------------------------------------------

    // The rows of a chunk; asked for once. More than a few chunks are not kept.
    chunk(number) {
        const known = this.chunks.get(number);
        if (known) return known;
        const source = this.source;
        const asked = source.rows(number * kChunk, kChunk).then((rows) => {
            if (this.source === source && this.chunks.get(number) === asked) this.chunks.set(number, rows);
            return rows;
        });
        this.chunks.set(number, asked);
        if (this.chunks.size > 24) this.chunks.delete(this.chunks.keys().next().value);
        return asked;
    }

    rowData(row) {
        const chunk = this.chunks.get(Math.floor(row / kChunk));
        return Array.isArray(chunk) ? chunk[row % kChunk] : undefined;
    }

    inSight() {
        return Math.max(1, Math.floor((this.root.clientHeight - kRow) / kRow));
    }

    // Where the rows lie: the height of all of them, and by how much the bar is scaled.
    layout() {
        const height = Math.min(this.count * kRow, kTallest);
        const most = Math.max(height + kRow - this.root.clientHeight, 0);
        const rows = Math.max(this.count * kRow + kRow - this.root.clientHeight, 0);
        return {height, most, rows, scaled: this.count * kRow > kTallest};
    }

    // The pixels of all rows that lie above those in sight. Where the bar is scaled, a pixel of it is
    // many rows: what has been set exactly counts until it is moved.
    top() {
        const {most, rows, scaled} = this.layout();
        const at = this.root.scrollTop;
        if (!scaled) return at;
        if (this.exact && this.exact.bar === at) return this.exact.top;
        return (Math.min(at, most) / (most || 1)) * rows;
    }

    scrollTo(wanted) {
        const {most, rows, scaled} = this.layout();
        const top = Math.min(Math.max(wanted, 0), rows);
        this.root.scrollTop = scaled ? (top / (rows || 1)) * most : top;
        this.exact = {bar: this.root.scrollTop, top};
        this.draw();
    }

    wheel(event) {
        if (!this.layout().scaled || !event.deltaY || event.ctrlKey || event.shiftKey) return;
        event.preventDefault();
        this.scrollTo(this.top() + event.deltaY * (event.deltaMode === 1 ? kRow : 1));
    }

    draw() {
        if (!this.source || !this.lefts) return;
        const {height} = this.layout();
        this.body.style.height = `${height}px`;
        const top = this.top();
        const shift = this.root.scrollTop - top;
        const first = Math.max(0, Math.floor(top / kRow) - kAhead);
        const last = Math.min(this.count, first + this.inSight() + 2 * kAhead + 2);
        const [from, to] = this.columnsInSight();
        for (const [number, row] of this.drawn) {
            if (number < first || number >= last) {
                row.remove();
                this.drawn.delete(number);
            }
        }
        const missing = new Set();
        for (let number = first; number < last; number++) {
            const data = this.rowData(number);
            const chunk = Math.floor(number / kChunk);
            if (!data && !Array.isArray(this.chunks.get(chunk))) missing.add(chunk);
            const old = this.drawn.get(number);
            const row = old && old.data === data ? old : this.drawRow(number, data);
            row.style.transform = `translateY(${number * kRow + shift}px)`;
            this.fill(row, from, to);
            if (row === old) continue;
            old ? old.replaceWith(row) : this.body.append(row);
            this.drawn.set(number, row);
        }
        for (const number of missing) this.fetch(number);
        this.mark();
        this.tint();
    }

    redraw() {
        this.body.replaceChildren();
        this.drawn.clear();
        this.draw();
    }

    // One after another: where somebody scrolls past many rows, those are left out.
    async fetch(number) {
        const source = this.source;
        if (this.fetching === source || this.failed.has(number)) return;
        this.fetching = source;
        try {
            await this.chunk(number);
            this.fetching = null;
            this.draw();
        } catch (e) {
            if (this.fetching === source) this.fetching = null;
            if (this.source !== source) return;
            this.chunks.delete(number);
            if (!(e instanceof Stopped)) this.failed.add(number);
            this.on.fail(e);
        }
    }

    columnsInSight() {
        if (this.columns.length <= kManyColumns) return [0, this.columns.length];
        const left = this.root.scrollLeft;
        const right = left + this.root.clientWidth;
        let from = 0;
        while (from + 1 < this.columns.length && this.lefts[from + 1] < left) from++;
        let to = from;
        while (to < this.columns.length && this.lefts[to] < right) to++;
        const first = Math.floor(Math.max(0, from - 2) / kStep) * kStep;
        return [first, Math.min(this.columns.length, Math.ceil((to + 2) / kStep) * kStep)];
    }

    drawRow(number, data) {
        const row = role('row', data && data.d ? 'row deleted' : 'row');
        row.setAttribute('aria-rowindex', String(number + 2));
        row.style.width = `${this.width}px`;
        const head = role('rowheader', 'record', data ? data.r.toLocaleString('en') : '');
        head.style.width = `${this.numberWidth}px`;
        if (data && data.d) head.title = 'This record is marked deleted';
        row.append(head);
        row.dataset.row = number;
        row.data = data;
        row.from = row.to = 0; // columns that are drawn
        return row;
    }

    // Draws the columns of a row that have come into sight, and drops those that have left it.
    fill(row, from, to) {
        if (row.from === from && row.to === to) return;
        for (const cell of [...row.children].slice(1)) {
            const column = Number(cell.dataset.column);
            if (column < from || column >= to) cell.remove();
        }
        const apart = row.to <= from || row.from >= to;
        const [had, until] = apart ? [to, to] : [row.from, row.to];
        for (let i = Math.min(had, to) - 1; i >= from; i--) row.firstChild.after(this.drawCellOf(row, i));
        for (let i = Math.max(until, from); i < to; i++) row.append(this.drawCellOf(row, i));
        [row.from, row.to] = [from, to];
    }

    drawCellOf(row, column) {
        const cell = this.drawCell(row.data ? row.data.c[column] : '', this.columns[column]);
        cell.id = `c${row.dataset.row}-${column}`;
        cell.setAttribute('aria-colindex', String(column + 1));
        cell.style.width = `${this.widths[column]}px`;
        cell.style.left = `${this.lefts[column]}px`;
        cell.dataset.column = column;
        return cell;
    }

    drawCell(value, column) {
        const cell = role('gridcell', isNumber(column) ? 'number' : column.as || '', cellText(value));
        if (value === null) {
            cell.classList.add('null');
            cell.setAttribute('aria-label', 'null');
        } else if (typeof value === 'object') {
            if (value.b !== undefined) {
                cell.classList.add('bytes');
                cell.dataset.shown = describe(value);
                cell.setAttribute('aria-label', describe(value));
            }
            if (value.f) {
                cell.classList.add('fault');
                cell.title = value.f;
            }
        }
        return cell;
    }

    // -----------------------------------------------------------------------------------------
    // The chosen cells
    // -----------------------------------------------------------------------------------------

    mark() {
        const rows = [this.anchorRow, this.row].sort((a, b) => a - b);
        const columns = [this.anchorColumn, this.column].sort((a, b) => a - b);
        for (const cell of this.root.querySelectorAll('.chosen, .active')) {
            cell.classList.remove('chosen', 'active');
            cell.removeAttribute('aria-selected');
        }
        const several = rows[0] !== rows[1] || columns[0] !== columns[1];
        for (const [number, row] of several ? this.drawn : []) {
            if (number < rows[0] || number > rows[1]) continue;
            for (const cell of row.children) {
                const at = Number(cell.dataset.column);
                if (!(at >= columns[0] && at <= columns[1])) continue;
                cell.classList.add('chosen');
                cell.setAttribute('aria-selected', 'true');
            }
        }
        const active = document.getElementById(`c${this.row}-${this.column}`);
        if (active) active.classList.add('active');
        if (active && this.row >= 0) active.setAttribute('aria-selected', 'true');
        this.root.setAttribute('aria-activedescendant', active ? active.id : '');
    }

    // Colours what is searched for, where the browser can without changing the cells.
    tint() {
        if (!globalThis.Highlight) return;
        const found = new Highlight();
        const wanted = this.sought.toLowerCase();
        const cells = wanted ? this.body.querySelectorAll('[role=gridcell]:not(:empty, .bytes)') : [];
        for (const {firstChild: node} of cells) {
            const text = node.data.toLowerCase();
            if (text.length !== node.length) continue; // letters that change their number
            for (let at = text.indexOf(wanted); at >= 0; at = text.indexOf(wanted, at + wanted.length)) {
                const range = new Range();
                range.setStart(node, at);
                range.setEnd(node, at + wanted.length);
                found.add(range);
            }
        }
        CSS.highlights.set('found', found);
    }

    choose(row, column, extend) {
        if (!this.count || !this.columns.length) return;
        this.row = Math.min(Math.max(row, 0), this.count - 1);
        this.column = Math.min(Math.max(column, 0), this.columns.length - 1);
        if (!extend) [this.anchorRow, this.anchorColumn] = [this.row, this.column];
        this.reveal();
        this.draw();
        this.on.select(this.row, this.column);
    }

    // A heading, where Enter sorts.
    chooseHeading(column) {
        this.row = this.anchorRow = -1;
        this.column = this.anchorColumn = Math.min(Math.max(column, 0), this.columns.length - 1);
        this.revealColumn();
        this.draw();
    }

    // Brings a column into sight.
    goTo(column) {
        this.root.focus({preventScroll: true});
        this.column = this.anchorColumn = column;
        this.anchorRow = this.row;
        this.revealColumn();
        this.draw();
    }

    reveal() {
        const real = this.top();
        const top = this.row * kRow;
        const room = this.root.clientHeight - 2 * kRow;
        const wanted = top < real ? top : top > real + room ? top - room : real;
        if (wanted !== real) this.scrollTo(wanted);
        this.revealColumn();
    }

    revealColumn() {
        const left = this.lefts[this.column];
        const right = left + this.widths[this.column];
        if (left - this.numberWidth < this.root.scrollLeft) {
            this.root.scrollLeft = left - this.numberWidth;
        } else if (right > this.root.scrollLeft + this.root.clientWidth) {
            this.root.scrollLeft = Math.min(right - this.root.clientWidth, left - this.numberWidth);
        }
    }

    press(event) {
        const record = event.target.closest('.record');
        const cell = record ? record.nextElementSibling : event.target.closest('[role=gridcell]');
        if (!cell || event.button !== 0) return;
        event.preventDefault();
        this.root.focus({preventScroll: true});
        this.choose(Number(cell.parentNode.dataset.row), Number(cell.dataset.column), event.shiftKey);
        if (record) return this.chooseRows();
        const drag = (e) => {
            const over = e.target.closest && e.target.closest('[role=gridcell]');
            if (over && this.body.contains(over)) {
                this.choose(Number(over.parentNode.dataset.row), Number(over.dataset.column), true);
            }
        };
        this.body.addEventListener('mouseover', drag);
        addEventListener('mouseup', () => this.body.removeEventListener('mouseover', drag), {once: true});
    }

    // All columns of the chosen rows.
    chooseRows() {
        this.anchorColumn = this.columns.length - 1;
        this.draw();
    }

    headingKey(event) {
        const moves = {ArrowLeft: -1, ArrowRight: 1, Home: -Infinity, End: Infinity};
        if (event.key in moves) this.chooseHeading(this.column + moves[event.key]);
        else if (event.key === 'Enter' || event.key === ' ') this.on.sort(this.column);
        else if (event.key === 'ArrowDown' || event.key === 'Escape') this.choose(0, this.column);
        else return false;
        event.preventDefault();
        return true;
    }

    key(event) {
        if (event.altKey || (this.row === -1 && this.headingKey(event))) return;
        const control = event.ctrlKey || event.metaKey;
        const page = this.inSight() - 1;
        const moves = {
            ArrowUp: [control ? -Infinity : -1, 0],
            ArrowDown: [control ? Infinity : 1, 0],
            ArrowLeft: [0, control ? -Infinity : -1],
            ArrowRight: [0, control ? Infinity : 1],
            PageUp: [-page, 0],
            PageDown: [page, 0],
            Home: [control ? -Infinity : 0, -Infinity],
            End: [control ? Infinity : 0, Infinity],
        };
        const move = moves[event.key];
        if (event.key === 'ArrowUp' && !event.shiftKey && !control && this.row === 0 && this.source.sortable) {
            event.preventDefault();
            this.chooseHeading(this.column);
        } else if (move) {
            event.preventDefault();
            this.choose(this.row + move[0], this.column + move[1], event.shiftKey);
        } else if (event.key === 'Enter' || event.key === ' ') {
            event.preventDefault();
            if (this.count) this.on.open(this.row, this.column);
        } else if (event.key === 'Escape') {
            this.on.leave();
        } else if (event.key === 'a' && control) {
            event.preventDefault();
            if (!this.count) return;
            [this.anchorRow, this.anchorColumn] = [0, 0];
            [this.row, this.column] = [this.count - 1, this.columns.length - 1];
            this.draw();
        } else if (event.key === 'c' && control) {
            event.preventDefault();
            this.toClipboard().catch(this.on.fail);
        }
    }

    // What is chosen, with tabs between cells, as spreadsheets take it.
    async chosenText() {
        const rows = [this.anchorRow, this.row].sort((a, b) => a - b);
        const columns = [this.anchorColumn, this.column].sort((a, b) => a - b);
        const single = rows[0] === rows[1] && columns[0] === columns[1];
        if (single && this.source.whole) return this.source.whole(this.row, this.column);
        if ((rows[1] - rows[0] + 1) * (columns[1] - columns[0] + 1) > 1e6) {
            throw new Error('too many cells to copy; "Export CSV" writes all of them');
        }
        const lines = [];
        for (let first = rows[0]; first <= rows[1]; first += 1000) {
            const some = await this.source.rows(first, Math.min(1000, rows[1] + 1 - first));
            for (const [at, data] of some.entries()) {
                const cells = [];
                for (let column = columns[0]; column <= columns[1]; column++) {
                    const text = await this.textToCopy(first + at, column, data.c[column]);
                    cells.push(single ? text : text.replace(/[\t\r\n]+/g, ' '));
                }
                lines.push(cells.join('\t'));
            }
        }
        return lines.join('\n');
    }

    // The grid has the start alone of a long text.
    textToCopy(row, column, cell) {
        if (isCut(cell) && this.source.whole) return this.source.whole(row, column);
        return cell && cell.b !== undefined ? describe(cell) : cellText(cell);
    }

    async toClipboard() {
        if (!this.count || this.row < 0) return;
        const text = await this.chosenText();
        try {
            await navigator.clipboard.writeText(text);
        } catch (e) {
            // Not allowed everywhere; the older way is.
            this.toCopy = text;
            document.execCommand('copy');
        }
        this.on.copied(text);
    }

    copy(event) {
        if (this.toCopy === undefined) return;
        event.preventDefault();
        event.clipboardData.setData('text/plain', this.toCopy);
        this.toCopy = undefined;
    }
}
