// Who says what to whom, and commands of one's own.

import { byId, element, milliseconds, notify, offerExamples, parsed, seconds, sendLine } from "./dom.js";
import { draw, on, onReset } from "./events.js";
import { NewestFirst } from "./list.js";

const kLanes = ["APP", "HAL", "CAMERA_SERVICE", "service"];
const kCaptures = 200;  // of the captures' messages, so that they leave room for the others
const kExamples = [
    ["camera 0 is opened",
        '{"event":{"type":"cameraOpen","id":"0","isDesktop":true,"packageName":"org.example.desktop"}}'],
    ["camera 0 is closed", '{"event":{"type":"cameraClosed","id":"0"}}'],
    ["another camera behind camera 0", '{"general":{"originalId":0,"overrideId":2}}'],
    ["which camera is open", '{"get":{"what":"overrideId","originalId":0,"clientName":"org.example.desktop"}}'],
    ["filters of the metadata",
        '{"filter-requests":["android.control.aeMode"],"filter-results":["android.sensor.timestamp"]}'],
    ["no metadata", '{"filter-requests":[],"filter-results":[]}'],
    ["wrong: broken JSON", '{"get":'],
    ["wrong: nothing to get by that name", '{"get":{"what":"weather"}}'],
    ["wrong: an unknown event", '{"event":{"type":"cameraMoved","id":"0"}}'],
    ["wrong: a configuration without its members", '{"imgsub-configure-stream":{"version":"v1"}}'],
];

const list = new NewestFirst(byId("message-list"), makeRow, isWanted);
const unanswered = new Map();

function isWanted(entry) {
    const peer = byId("message-peer").value;
    const text = byId("message-text").value.toLowerCase();
    return (byId("message-captures").checked || !entry.capture) &&
        (!peer || entry.from === peer || entry.to === peer) &&
        (!text || `${entry.from} ${entry.to} ${entry.text} ${entry.reply ?? ""}`.toLowerCase().includes(text));
}

function arrow(from, to, kind) {
    const [first, last] = [kLanes.indexOf(from), kLanes.indexOf(to)];
    const made = element("i", { className: `arrow ${kind} ${first < last ? "right" : "left"}` });
    made.style.gridColumn = `${2 * Math.min(first, last) + 2} / ${2 * Math.max(first, last) + 2}`;
    return made;
}

function makeLanes(entry) {
    const lanes = element("span", { className: "lanes" });
    lanes.setAttribute("role", "img");
    lanes.setAttribute("aria-label", entry.to ? `${entry.from} to ${entry.to}` : entry.from);
    if (!entry.to) {
        lanes.append(element("i", { className: "dot" }));
        return lanes;
    }
    lanes.append(arrow(entry.from, entry.to, "sent"));
    if (entry.reply !== undefined) lanes.append(arrow(entry.to, entry.from, entry.failed ? "failed" : "reply"));
    return lanes;
}

const indented = (text) => {
    const value = parsed(text ?? "");
    return value instanceof Object ? JSON.stringify(value, null, 2) : text ?? "";
};

function unfold(details, entry) {
    entry.open = details.open;
    details.querySelector("pre")?.remove();
    if (!details.open) return;
    const reply = entry.reply === undefined ? "" : `\n\n${entry.failed ? "error" : "reply"}: ${indented(entry.reply)}`;
    details.append(element("pre", { textContent: indented(entry.text) + reply }));
}

function makeRow(entry) {
    const said = element("span", { className: "said" }, element("span", { className: "code" }, entry.text));
    if (entry.reply !== undefined) {
        const className = `code ${entry.failed ? "bad" : "quiet"}`;
        said.append(element("span", { className }, entry.reply || "(empty reply)"));
    }
    const summary = element("summary", {}, element("time", {}, seconds(entry.ts)), makeLanes(entry), said,
        element("span", { className: "took" }, entry.took === undefined ? "" : milliseconds(entry.took)));
    const details = element("details", {}, summary);
    details.addEventListener("toggle", () => unfold(details, entry));
    details.open = entry.open ?? false;
    return element("li", {}, details);
}

function add(entry) {
    list.add(entry);
    const captures = entry.capture ? list.all((other) => other.capture) : [];
    if (captures.length > kCaptures) list.remove(captures[0]);
}

function takeMessage(event) {
    if (event.ph === "e") return takeReply(event);
    const { from, to, text } = event.args;
    const entry = { from, to, text, ts: event.ts, capture: text.includes('"frame_number"') };
    unanswered.set(event.id, entry);
    if (unanswered.size > 100) unanswered.delete(unanswered.keys().next().value);
    add(entry);
}

function takeReply(event) {
    const entry = unanswered.get(event.id);
    if (!entry) return;
    unanswered.delete(event.id);
    entry.failed = event.args.error !== undefined;
    entry.reply = event.args.error ?? event.args.reply;
    entry.took = (event.ts - entry.ts) / 1000;
    list.changed(entry);
}

// The command that was sent last, until the next one: its answer, and what the library logged meanwhile.
let asked = null;
const logged = [];
const kLogMargin = 50000;  // microseconds, for the log comes another way

function takeCommand(event) {
    if (!asked || asked.event || event.args.line !== asked.line) return;
    asked.event = event;
    draw(showAnswer);
}

function takeLog(event) {
    logged.push(event);
    if (logged.length > 100) logged.shift();
    if (asked?.event) draw(showAnswer);
}

function showAnswer() {
    const { ts, dur = 0, args } = asked.event;
    const during = (line) => line.ts >= ts && line.ts <= ts + dur + kLogMargin && "WEF".includes(line.args.priority);
    const text = ({ args: { priority, tag, text } }) => `${priority} ${tag}: ${text}`;
    byId("command-answer").replaceChildren(
        element("p", {}, args.ok ? "Reply: " : "Error: ", element("b", { className: "code" }, args.reply || "(empty)")),
        ...logged.filter(during).map((line) => element("p", { className: "code bad" }, text(line))));
}

async function send(event) {
    event.preventDefault();
    const line = byId("command-line").value.trim();
    if (/^[a-z]/i.test(line)) return notify("A command is a JSON object", true);
    asked = { line };
    byId("command-answer").textContent = "waiting for the reply …";
    if (!await sendLine("app", line)) byId("command-answer").textContent = "";
}

function pause() {
    const paused = byId("message-pause").getAttribute("aria-pressed") !== "true";
    byId("message-pause").setAttribute("aria-pressed", paused);
    list.freeze(paused);
}

export function startMessages() {
    on("message", takeMessage);
    on("peer", (event) => add({ from: "service", text: event.args.text, ts: event.ts }));
    on("command", takeCommand);
    on("log", takeLog);
    onReset(() => {
        list.clear();
        unanswered.clear();
        logged.length = 0;
        asked = null;
        byId("command-answer").textContent = "";
    });
    offerExamples(byId("command-example"), byId("command-line"), kExamples);
    for (const id of ["message-peer", "message-captures"]) byId(id).addEventListener("change", () => list.refresh());
    byId("message-text").addEventListener("input", () => list.refresh());
    byId("message-pause").addEventListener("click", pause);
    byId("command").addEventListener("submit", send);
}
