// What the library logs.

import { byId, element, seconds } from "./dom.js";
import { on, onReset } from "./events.js";
import { NewestFirst } from "./list.js";

const kPriorities = "VDIWEF";
const list = new NewestFirst(byId("log-list"), makeRow,
    (line) => kPriorities.indexOf(line.priority) >= kPriorities.indexOf(byId("log-priority").value));

function makeRow({ ts, priority, tag, text }) {
    return element("li", { className: `priority-${priority}` }, element("time", {}, seconds(ts)), " ",
        element("b", { className: "code" }, priority), " ", element("span", { className: "code quiet" }, tag), " ",
        element("span", { className: "code" }, text));
}

export function startLog() {
    on("log", (event) => list.add({ ts: event.ts, ...event.args }));
    on("error", (event) => list.add({ ts: event.ts, priority: "E", tag: event.name, text: event.args.text }));
    onReset(() => list.clear());
    byId("log-priority").addEventListener("change", () => list.refresh());
}
