// The page: its panels, and the link to the server.

import { startCameras } from "./cameras.js";
import { byId, notify, request } from "./dom.js";
import { connect, onState } from "./events.js";
import { startFaults } from "./faults.js";
import { startFigures } from "./figures.js";
import { startLog } from "./log.js";
import { startMessages } from "./messages.js";
import { startMetadata } from "./metadata.js";
import { startPictures } from "./pictures.js";

let replay = false;

function say(state, text) {
    byId("connection").dataset.state = state;
    byId("connection").textContent = text;
}

function tellConnection(what, count) {
    if (what === "up") say("running", replay ? "saved session" : "connected");
    if (what === "down") say("ended", "server lost, reconnecting …");
    if (what === "refused") say("ended", "another session runs there: open the address that it printed");
    if (what === "lost") notify(`${count} events were skipped: this page was too slow for them`, true);
}

// What changes something is out of reach when there is nobody to change it.
function takeState(state) {
    replay = state.replay;
    for (const controls of document.querySelectorAll("fieldset.controls")) controls.disabled = replay;
    document.body.classList.toggle("replay", replay);
    say(replay ? "stopped" : "running", replay ? "saved session: nothing runs, controls are off" : "connected");
}

async function save() {
    const saved = await request({ do: "save" });
    if (saved) notify(`Saved ${saved.trace} and ${saved.session}`);
}

const panels = [startPictures, startFaults, startFigures, startMessages, startCameras, startMetadata, startLog];
for (const start of panels) start();
onState(takeState);
byId("save").addEventListener("click", save);
connect(tellConnection);
