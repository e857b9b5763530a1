// Peers that are killed and stopped, and how long captures went without them.

import { byId, element, milliseconds, request, seconds, setText } from "./dom.js";
import { draw, now, on, onReset, onState } from "./events.js";
import { NewestFirst } from "./list.js";
import { chosenStream } from "./pictures.js";

const kNames = { service: "Service", app: "Application", camera_server: "Camera server" };
const kFacts = { captures: "Captures", app: "Link of the application", camera_server: "Link of the camera server" };
const kActions = ["kill", "stop", "continue", "restart"];
const kPids = { 2: "camera_server", 3: "app" };

const list = new NewestFirst(byId("fault-list"),
    ({ ts, text }) => element("li", {}, element("time", {}, seconds(ts)), ` ${text}`), undefined, 50);
const links = new Map();     // program -> { up, ts, withoutUs }
const without = new Map();   // stream -> since when
const replaced = new Map();  // stream -> how many captures were, and when that was last told to grow
const held = new Set();      // streams that only their figures show to be without
let last = null;             // the newest time without replacements that is over
let ticking = 0;
let isReplay = false;

function makePeer(peer) {
    const buttons = kActions.map((action) => {
        const button = element("button", { type: "button", id: `${action}-${peer}` }, action);
        button.setAttribute("aria-label", `${action} the ${kNames[peer].toLowerCase()}`);
        button.addEventListener("click", () => request({ do: "fault", peer, action }));
        return button;
    });
    const state = element("span", { id: `state-${peer}`, className: "pill", textContent: "…" });
    return element("div", { className: "peer" }, element("b", {}, kNames[peer]), state,
        ...(peer === "camera_server" ? [] : [element("span", { className: "buttons" }, ...buttons)]));
}

function takeState({ peers, replay }) {
    isReplay = replay;
    for (const peer of Object.keys(kNames)) {
        const state = peers?.[peer] ?? "saved";
        setText(byId(`state-${peer}`), state);
        byId(`state-${peer}`).dataset.state = state;
    }
}

function takeFault(event) {
    list.add({ ts: event.ts, text: event.name });
    if (/(killed|ended)$/.test(event.name) && links.has(event.args.peer)) setLink(event.args.peer, false, event.ts);
}

function takeLink(event) {
    const program = kPids[event.pid];
    if (!program) return;
    const up = event.name === "link up";
    list.add({ ts: event.ts, text: `${event.name} (${kNames[program].toLowerCase()})` });
    setLink(program, up, event.ts);
}

function setLink(program, up, ts) {
    const before = links.get(program);
    if (before?.up === up) return;
    links.set(program, { up, ts, withoutUs: up && before ? ts - before.ts : undefined });
    draw(show);
}

function takeReplacement(event) {
    const { stream, withoutMs } = event.args;
    const back = withoutMs !== undefined;
    list.add({ ts: event.ts, text: event.name + (back ? ` after ${milliseconds(withoutMs)}` : "") });
    held.delete(stream);
    if (back) endWithout(stream, withoutMs, event.ts);
    else without.set(stream, event.ts);
    draw(show);
}

function endWithout(stream, withoutMs, ts) {
    without.delete(stream);
    last = { stream, withoutMs, ts };
}

// A stopped application holds the captures themselves up, and none tells that it lacks its replacement.
function takeFigures({ name, ts, args }) {
    if (!/^stream \d frames$/.test(name)) return;
    const stream = Number(name.split(" ")[1]);
    const before = replaced.get(stream);
    const count = args.inTime + args.late;
    if (before?.count !== count) {
        replaced.set(stream, { count, ts });
        if (held.delete(stream)) endWithout(stream, (ts - before.ts) / 1000, ts);
    } else if (!without.has(stream)) {
        held.add(stream);
        without.set(stream, before.ts);
    }
    draw(show);
}

function forgetFrames() {
    without.clear();
    held.clear();
    replaced.clear();
    draw(show);
}

function captureText() {
    if (without.size) {
        const since = Math.min(...without.values());
        return `without replacement for ${((now() - since) / 1e6).toFixed(1)} s (${streamsText()})`;
    }
    if (!last) return "never without replacement";
    const { withoutMs, stream, ts } = last;
    return `replaced; without for ${milliseconds(withoutMs)} until ${seconds(ts)} s (stream ${stream})`;
}

const streamsText = () => `stream ${[...without.keys()].sort().join(", ")}`;

function linkText(link) {
    if (!link) return "not seen yet";
    if (!link.up) return `down for ${((now() - link.ts) / 1e6).toFixed(1)} s`;
    const back = link.withoutUs === undefined ? "" : `, back after ${milliseconds(link.withoutUs / 1000)}`;
    return `up since ${seconds(link.ts)} s${back}`;
}

function showFact(name, text, bad) {
    setText(byId(`fact-${name}`), text);
    byId(`fact-${name}`).classList.toggle("bad", bad);
}

function show() {
    showFact("captures", captureText(), without.size > 0);
    for (const program of ["app", "camera_server"]) {
        showFact(program, linkText(links.get(program)), links.get(program)?.up === false);
    }
    const isMissing = without.has(chosenStream()) && !isReplay;
    byId("replaced-figure").classList.toggle("missing", isMissing);
    setText(byId("replaced-note"), isMissing ? "no replacement comes" : "");
    tick();
}

// While something is missing, the time that it is missing for goes on.
function tick() {
    clearTimeout(ticking);
    const missing = without.size || [...links.values()].some((link) => !link.up);
    if (missing && !isReplay) ticking = setTimeout(() => draw(show), 500);
}

function makeFact([name, title]) {
    return element("div", {}, element("dt", {}, title), element("dd", { id: `fact-${name}` }));
}

export function startFaults() {
    byId("peers").append(...Object.keys(kNames).map(makePeer));
    byId("links").append(...Object.entries(kFacts).map(makeFact));
    on("fault", takeFault);
    on("link", takeLink);
    on("replacement", takeReplacement);
    on("figures", takeFigures);
    byId("stream").addEventListener("change", () => draw(show));
    on("frames", (event) => {
        list.add({ ts: event.ts, text: event.name + (event.args.outcome ? `: ${event.args.outcome}` : "") });
        forgetFrames();
    });
    onState(takeState);
    onReset(() => {
        list.clear();
        links.clear();
        last = null;
        forgetFrames();
    });
    show();
}
