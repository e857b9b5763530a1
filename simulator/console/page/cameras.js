// The record of each framework camera, and buttons that change it.

import { byId, element, sendCommand, sendLine, setText } from "./dom.js";
import { draw, on, onReset, onState } from "./events.js";

const kCameras = 16;
const kNone = 65535;
const kColumns = ["default", "required", "desktop", "overrideAllowed", "restartPending"];

const records = new Map();
const changed = new Set();
let chosen = 0;

function shown(value) {
    if (value === kNone || value === undefined) return "–";
    if (typeof value === "boolean") return value ? "yes" : "no";
    return String(value);
}

function makeRow(camera) {
    const radio = element("input", { type: "radio", name: "camera", value: camera, checked: camera === chosen });
    radio.addEventListener("change", () => choose(camera));
    const label = element("label", {}, radio, ` ${camera}`);
    const cells = ["mapping", ...kColumns].map((name) => element("td", { className: name }, "–"));
    return element("tr", { id: `camera-${camera}` }, element("th", { scope: "row" }, label), ...cells);
}

function choose(camera) {
    chosen = camera;
    setText(byId("camera-chosen"), `Camera ${camera}`);
}

function fillRow(camera) {
    const record = records.get(camera) ?? {};
    const row = byId(`camera-${camera}`);
    const open = (record.open ?? kNone) !== kNone;
    row.classList.toggle("open", open);
    setText(row.querySelector(".mapping"), open ? `${camera} → ${record.open}` : "closed");
    for (const name of kColumns) {
        const cell = row.querySelector(`.${name}`);
        setText(cell, shown(record[name]));
        cell.classList.toggle("yes", record[name] === true);
    }
}

function takeCamera(event) {
    const { camera } = event.args;
    if (records.has(camera)) changed.add(camera);
    records.set(camera, event.args);
    draw(showRecords);
}

function showRecords() {
    for (let camera = 0; camera < kCameras; ++camera) fillRow(camera);
    for (const camera of changed) {
        const row = byId(`camera-${camera}`);
        row.classList.remove("changed");
        void row.offsetWidth;  // so that the highlight begins again
        row.classList.add("changed");
    }
    changed.clear();
}

export function startCameras() {
    const ids = Array.from({ length: kCameras }, (_, camera) => camera);
    byId("camera-records").tBodies[0].append(...ids.map(makeRow));
    byId("camera-target").append(...ids.map((camera) => new Option(camera)));
    byId("camera-target").value = "2";
    on("camera", takeCamera);
    onReset(() => {
        records.clear();
        draw(showRecords);
    });
    byId("camera-open").addEventListener("click", () => sendLine("camera_server", `open ${chosen}`));
    byId("camera-close").addEventListener("click", () => sendLine("camera_server", `close ${chosen}`));
    byId("camera-switch").addEventListener("click", () => {
        sendCommand({ general: { originalId: chosen, overrideId: Number(byId("camera-target").value) } });
    });
}
