// The two filters of capture metadata, the values that come through them, and the answer to every capture.

import { byId, element, notify, offerExamples, parsed, sendCommand, sendLine, setText } from "./dom.js";
import { draw, on, onReset } from "./events.js";
import { NewestFirst } from "./list.js";

const kKinds = ["request", "result"];
const kExamples = [
    ["exposure compensation +1", '{"android.control.aeExposureCompensation":[1]}'],
    ["exposure compensation −2", '{"android.control.aeExposureCompensation":[-2]}'],
    ["automatic exposure off", '{"android.control.aeMode":[0]}'],
    ["sensitivity 400", '{"android.sensor.sensitivity":[400]}'],
];

const rows = new Map();  // tag name -> its row, with the boxes and value cells of both kinds
const chosen = { request: new Set(), result: new Set() };
const known = { request: false, result: false };  // whether a filter was seen since the page knows this session
const newest = { request: {}, result: {} };
const taken = new NewestFirst(byId("taken"), makeTaken, undefined, 30);
let newestTaken = {};

function makeTagRow({ name, type, vendor }) {
    const row = element("tr", {}, element("th", { scope: "row", title: `${name}, ${type}` }, name));
    if (vendor) row.firstChild.append(element("span", { className: "quiet" }, " vendor"));
    const made = { row };
    for (const kind of kKinds) {
        const box = element("input", { type: "checkbox", name: kind, value: name });
        box.setAttribute("aria-label", `${name} of each ${kind}`);
        box.addEventListener("change", () => toggle(kind, name, box.checked));
        made[kind] = { box, value: element("td", { className: "code value" }) };
        row.append(element("td", {}, box), made[kind].value);
    }
    rows.set(name, made);
    return row;
}

async function toggle(kind, name, wanted) {
    const names = new Set(chosen[kind]);
    if (wanted) names.add(name);
    else names.delete(name);
    setFilter(kind, [...names]);
    await sendCommand({ [`filter-${kind}s`]: [...names] });
}

function setFilter(kind, names) {
    known[kind] = true;
    chosen[kind] = new Set(names);
    newest[kind] = {};
    draw(showValues);
    draw(showTags);
}

function takeMessage({ ph, args }) {
    if (ph !== "b") return;
    const message = parsed(args.text);
    if (!(message instanceof Object)) return;
    for (const kind of kKinds) {
        const filter = message[`filter-${kind}s`];
        if (args.to === "HAL" && filter !== undefined) setFilter(kind, Array.isArray(filter) ? filter : []);
        if (args.from === "HAL" && message[kind] instanceof Object) takeValues(kind, message[kind]);
    }
}

function takeValues(kind, values) {
    newest[kind] = values;
    // A page that is opened late sees a filter by what comes through it.
    if (!known[kind]) for (const name of Object.keys(values)) chosen[kind].add(name);
    draw(showValues);
}

function showValues() {
    for (const [name, made] of rows) {
        for (const kind of kKinds) {
            const value = newest[kind][name];
            setText(made[kind].value, value === undefined ? "" : JSON.stringify(value));
            if (made[kind].box.checked !== chosen[kind].has(name)) made[kind].box.checked = chosen[kind].has(name);
        }
    }
    const { request, result } = chosen;
    setText(byId("tag-count"), `${request.size} of requests, ${result.size} of results, ${rows.size} tags`);
}

function showTags() {
    const text = byId("tag-search").value.toLowerCase();
    const chosenOnly = byId("tag-chosen").checked;
    for (const [name, { row }] of rows) {
        const isChosen = kKinds.some((kind) => chosen[kind].has(name));
        row.hidden = !name.toLowerCase().includes(text) || (chosenOnly && !isChosen);
    }
}

function takeChange(event) {
    const kind = event.name.split(" ")[0];
    const change = JSON.stringify(event.args.changes);
    const last = newestTaken[kind];
    if (last?.change === change) {
        Object.assign(last, { frame: event.args.frame, times: last.times + 1 });
        draw(showTimes);
        return;
    }
    newestTaken[kind] = { kind, change, frame: event.args.frame, times: 1 };
    taken.add(newestTaken[kind]);
}

function showTimes() {
    for (const entry of Object.values(newestTaken)) taken.changed(entry);
}

function makeTaken({ kind, change, frame, times }) {
    return element("li", {}, `${kind} of frame ${frame} `, element("span", { className: "code" }, change),
        element("span", { className: "quiet" }, times === 1 ? "" : ` ${times} captures`));
}

function setAnswer(event) {
    event.preventDefault();
    const text = byId("answer-line").value.trim();
    const answer = parsed(text);
    const isObject = answer instanceof Object && !Array.isArray(answer);
    if (!isObject) return notify("An answer is a JSON object of tags and arrays of values", true);
    sendLine("app", `answer ${JSON.stringify(answer)}`);
}

async function loadTags() {
    const answer = await fetch("/tags").catch(() => null);
    if (!answer?.ok || rows.size) return;
    byId("tags").tBodies[0].append(...(await answer.json()).map(makeTagRow));
    draw(showValues);
    draw(showTags);
}

function forget() {
    for (const kind of kKinds) {
        known[kind] = false;
        chosen[kind].clear();
        newest[kind] = {};
    }
    newestTaken = {};
    taken.clear();
    loadTags();
    draw(showValues);
}

export function startMetadata() {
    on("message", takeMessage);
    on("metadata", takeChange);
    onReset(forget);
    offerExamples(byId("answer-example"), byId("answer-line"), kExamples);
    byId("tag-search").addEventListener("input", () => draw(showTags));
    byId("tag-chosen").addEventListener("change", () => draw(showTags));
    byId("answer").addEventListener("submit", setAnswer);
    byId("answer-clear").addEventListener("click", () => sendLine("app", "answer {}"));
}
