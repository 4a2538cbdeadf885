// A chart of one column: bars of a histogram for numbers and dates, the most frequent values of
// texts, and beside them counts and extremes.
const kSvg = 'http://www.w3.org/2000/svg';

function shape(tag, attributes, text) {
    const made = document.createElementNS(kSvg, tag);
    for (const [name, value] of Object.entries(attributes)) made.setAttribute(name, value);
    if (text !== undefined) made.textContent = text;
    return made;
}

const shortNumber = (n) =>
    Math.abs(n) >= 1e15 || (n !== 0 && Math.abs(n) < 1e-4)
        ? n.toExponential(1)
        : Math.abs(n) >= 1e5
          ? Intl.NumberFormat('en', {notation: 'compact', maximumFractionDigits: 1}).format(n)
          : Number(n.toPrecision(6)).toLocaleString('en', {maximumFractionDigits: 4});

function barLabel(chart, bar) {
    if (bar.label !== undefined) return bar.label;
    return chart.each ? shortNumber(bar.from) : `${shortNumber(bar.from)} to ${shortNumber(bar.to)}`;
}

// Bars that stand, with a line of labels below.
function standing(chart, name, width) {
    const [height, foot] = [150, 20];
    const svg = shape('svg', {viewBox: `0 0 ${width} ${height + foot}`, role: 'img', 'aria-label': `Chart of ${name}`});
    const most = Math.max(...chart.bars.map((bar) => bar.n), 1);
    const step = width / Math.max(chart.bars.length, 1);
    svg.append(shape('line', {x1: 0, x2: width, y1: height + 0.5, y2: height + 0.5, class: 'axis'}));
    svg.append(shape('line', {x1: 0, x2: width, y1: 5.5, y2: 5.5, class: 'axis most'}));
    svg.append(shape('text', {x: width, y: -2, 'text-anchor': 'end', class: 'count'}, grouped(most)));
    chart.bars.forEach((bar, i) => {
        const tall = bar.n ? Math.max(2, (bar.n / most) * (height - 6)) : 0;
        const gap = Math.min(3, step / 5);
        const group = shape('g', {class: 'bar'});
        group.append(shape('title', {}, `${barLabel(chart, bar)}: ${grouped(bar.n)}`));
        group.append(shape('rect', {x: i * step, y: 0, width: step, height, class: 'touch'}));
        const wide = Math.min(step - gap, 48);
        group.append(shape('rect', {x: i * step + (step - wide) / 2, y: height - tall, width: wide, height: tall, rx: Math.min(2, step / 8), class: 'fill'}));
        svg.append(group);
    });
    const ends = chart.bars.length ? [chart.bars[0], chart.bars[chart.bars.length - 1]] : [];
    const first = ends[0] && (ends[0].label ?? shortNumber(ends[0].from));
    const last = ends[1] && (ends[1].label ?? shortNumber(chart.each ? ends[1].from : ends[1].to));
    if (chart.bars.length === 1) {
        svg.append(shape('text', {x: width / 2, y: height + 15, 'text-anchor': 'middle'}, barLabel(chart, ends[0])));
    } else if (chart.bars.length) {
        svg.append(shape('text', {x: 0, y: height + 15}, first));
        svg.append(shape('text', {x: width, y: height + 15, 'text-anchor': 'end'}, last));
    }
    return svg;
}

// Bars that lie, a value a line.
function lying(chart, name, width) {
    const row = 26;
    const bars = chart.rest ? [...chart.bars, {label: 'all others', n: chart.rest, rest: true}] : chart.bars;
    const most = Math.max(...chart.bars.map((bar) => bar.n), 1);
    const svg = shape('svg', {viewBox: `0 0 ${width} ${Math.max(bars.length, 1) * row}`, role: 'img', 'aria-label': `Chart of ${name}`});
    bars.forEach((bar, i) => {
        const group = shape('g', {class: bar.rest ? 'bar rest' : 'bar', transform: `translate(0 ${i * row})`});
        group.append(shape('title', {}, `${bar.label}: ${grouped(bar.n)}`));
        group.append(shape('rect', {x: 0, y: 0, width, height: row, class: 'touch'}));
        if (!bar.rest) group.append(shape('rect', {x: 0, y: 18, width: Math.max(2, (bar.n / most) * width), height: 4, rx: 2, class: 'fill'}));
        const letters = Array.from(bar.label.replace(/\s+/g, ' '));
        const wide = letters.reduce((sum, c) => sum + (c.codePointAt(0) > 0x2e80 ? 1.8 : 1), 0);
        const room = width / 9;
        const cut = wide > room ? letters.slice(0, Math.floor((room * letters.length) / wide)).join('') + '…' : letters.join('');
        group.append(shape('text', {x: 0, y: 13}, cut || ' '));
        group.append(shape('text', {x: width, y: 13, 'text-anchor': 'end', class: 'count'}, grouped(bar.n)));
        svg.append(group);
    });
    return svg;
}

function facts(chart) {
    const list = [['Values', grouped(chart.count)]];
    if (chart.blank || chart.kind !== 'texts') list.push(['Blank', grouped(chart.blank)]);
    if (chart.different !== undefined && chart.count) {
        list.push(['Different', chart.more ? `over ${grouped(chart.different)}` : grouped(chart.different)]);
    }
    if (chart.least !== null) list.push([chart.kind === 'texts' ? 'First' : 'Least', chart.least]);
    if (chart.most !== null) list.push([chart.kind === 'texts' ? 'Last' : 'Most', chart.most]);
    if (chart.kind === 'numbers' && chart.count && chart.sum !== null) {
        list.push(['Sum', Number(chart.sum.toPrecision(15)).toLocaleString('en', {maximumFractionDigits: 6})]);
        list.push(['Mean', (chart.sum / chart.count).toLocaleString('en', {maximumSignificantDigits: 7})]);
    }
    const table = element('dl', 'figures');
    for (const [name, value] of list) {
        const pair = element('div', ['First', 'Least', 'Sum'].includes(name) ? 'left' : '');
        const shown = element('dd', '', value);
        shown.title = value;
        pair.append(element('dt', '', name), shown);
        table.append(pair);
    }
    return table;
}

function drawChart(place, column, chart) {
    place.replaceChildren(heading(column.name), element('p', 'type', typeLine(column)));
    const draw = chart.kind === 'texts' ? lying : standing;
    if (chart.count) place.append(draw(chart, column.name, Math.max(place.firstChild.clientWidth, 200)));
    else place.append(element('p', 'none', 'No values in the shown records.'));
    place.append(facts(chart));
}
