// Counts of each stream, and how long replacements and exchanges took within the last minute.

import { byId, element, milliseconds, setText } from "./dom.js";
import { draw, now, on, onReset } from "./events.js";
import { chosenStream } from "./pictures.js";

const kMinute = 60e6;  // microseconds
const kCounts = {
    sent: "Sent", inTime: "In time", repeated: "Repeated", late: "Late", dropped: "Dropped", copies: "Copies",
};

const counts = new Map();     // stream -> its counts, and the frames a second between the newest two
const latencies = new Map();  // stream -> figures, oldest first
let exchanges = [];
const charts = [];

function keepMinute(kept, event) {
    kept.push({ ts: event.ts, ...event.args });
    while (kept[0].ts < event.ts - kMinute) kept.shift();
}

function takeFigures(event) {
    const [, stream, kind] = /^stream (\d) (frames|latency ms)$/.exec(event.name) ?? [];
    if (kind === "frames") takeCounts(Number(stream), event);
    if (kind === "latency ms") keepMinute(latenciesOf(Number(stream)), event);
    if (event.name === "exchange us") keepMinute(exchanges, event);
    draw(show);
}

function takeCounts(stream, { ts, args }) {
    const before = counts.get(stream);
    const rate = before ? (args.sent - before.sent) / (ts - before.ts) * 1e6 : NaN;
    counts.set(stream, { ...args, ts, rate });
}

function latenciesOf(stream) {
    if (!latencies.has(stream)) latencies.set(stream, []);
    return latencies.get(stream);
}

function show() {
    showCounts();
    const latency = latenciesOf(chosenStream());
    showTiles(counts.get(chosenStream()), latency.at(-1));
    setText(byId("latency-text"), reading(latency.at(-1), milliseconds, `stream ${chosenStream()}: `));
    setText(byId("exchange-text"), reading(exchanges.at(-1), (value) => `${Math.round(value).toLocaleString("en")} µs`));
    showChart(charts[0], latency);
    showChart(charts[1], exchanges);
}

function reading(figures, format, head = "") {
    if (!figures) return "no figures yet";
    const named = ["p50", "p90", "p99", "max"].filter((name) => figures[name] !== undefined);
    return head + named.map((name) => `${name} ${format(figures[name])}`).join(", ");
}

const shown = (count) => (count ?? "–").toLocaleString("en");

function makeCountsRow(stream) {
    const count = counts.get(stream);
    const cells = Object.keys(kCounts).map((name) => element("td", { className: name }, shown(count[name])));
    return element("tr", {}, element("th", { scope: "row" }, String(stream)), ...cells);
}

function showCounts() {
    byId("counts").tBodies[0].replaceChildren(...[...counts.keys()].sort().map(makeCountsRow));
}

function showTiles(count = {}, latency) {
    const tiles = [
        ["Frames/s", count.rate >= 0 ? count.rate.toFixed(1) : "–"],
        ["Latency p50", latency ? milliseconds(latency.p50) : "–"],
        ...Object.entries(kCounts).map(([name, title]) => [title, shown(count[name])]),
    ];
    byId("stream-figures").replaceChildren(
        ...tiles.map(([title, value]) => element("div", {}, element("dt", {}, title), element("dd", {}, value))));
}

function showChart(chart, kept) {
    const end = Math.max(kept.at(-1)?.ts ?? 0, now());
    for (const line of chart.data.datasets) {
        line.data = kept.map((figures) => ({ x: (figures.ts - end) / 1e6, y: figures[line.label] }));
    }
    chart.update("none");
}

const colour = (name) => getComputedStyle(document.documentElement).getPropertyValue(name).trim();

function paint(chart) {
    const { scales, plugins } = chart.options;
    for (const axis of [scales.x, scales.y]) {
        axis.grid.color = axis.grid.borderColor = colour("--line");
        axis.ticks.color = axis.title.color = colour("--quiet");
    }
    plugins.legend.labels.color = colour("--quiet");
    for (const line of chart.data.datasets) line.borderColor = line.backgroundColor = colour(`--${line.label}`);
    chart.update("none");
}

function makeChart(id, unit, names) {
    const axis = (type, text) => ({ type, grid: {}, ticks: { maxTicksLimit: 7 }, title: { display: true, text } });
    const y = axis("logarithmic", unit);  // a fault is a thousand times as long as what else happens
    y.ticks.callback = (value) => Number.isInteger(Math.log10(value)) ? value.toLocaleString("en") : "";
    return new Chart(byId(id), {
        type: "line",
        data: { datasets: names.map((label) => ({ label, data: [], borderWidth: 1.5, pointRadius: 0 })) },
        options: {
            animation: false,
            maintainAspectRatio: false,
            parsing: false,
            interaction: { mode: "nearest", axis: "x", intersect: false },
            scales: { x: { ...axis("linear", "seconds ago"), min: -60, max: 0 }, y },
            plugins: { legend: { align: "end", labels: { boxWidth: 14, boxHeight: 1 } } },
        },
    });
}

export function startFigures() {
    charts.push(makeChart("latency-chart", "ms", ["p50", "p90", "p99"]));
    charts.push(makeChart("exchange-chart", "µs", ["p50", "p99"]));
    const paintAll = () => charts.forEach(paint);
    paintAll();
    matchMedia("(prefers-color-scheme: dark)").addEventListener("change", paintAll);
    on("figures", takeFigures);
    on("frames", (event) => event.name === "frames begin" && counts.clear());
    onReset(() => {
        counts.clear();
        latencies.clear();
        exchanges = [];
        draw(show);
    });
    draw(show);
    byId("stream").addEventListener("change", () => draw(show));
}
