// Captured beside replaced pictures, and what makes them.

import { byId, request, setText } from "./dom.js";
import { draw, on, onState } from "./events.js";

const kRetryMs = 500;
const kHeaderEnd = [13, 10, 13, 10];

let connection = null;
let newest = null;  // the pair to draw
let replay = false;

/** The stream whose pictures and charts are shown. */
export const chosenStream = () => Number(byId("stream").value);

// Cuts a multipart body into the pictures that it consists of.
class Parts {
    #bytes = new Uint8Array(0);

    add(chunk) {
        const joined = new Uint8Array(this.#bytes.length + chunk.length);
        joined.set(this.#bytes);
        joined.set(chunk, this.#bytes.length);
        this.#bytes = joined;
    }

    /** The next picture, or null while it is not there as a whole. */
    next() {
        const end = this.#headerEnd();
        if (end < 0) return null;
        const header = new TextDecoder().decode(this.#bytes.subarray(0, end));
        const length = Number(/content-length: *(\d+)/i.exec(header)?.[1]);
        if (!(length > 0)) throw new Error("a part without a length");
        if (this.#bytes.length < end + length) return null;
        const picture = this.#bytes.slice(end, end + length);
        this.#bytes = this.#bytes.slice(end + length);
        return new Blob([picture], { type: "image/jpeg" });
    }

    #headerEnd() {
        for (let i = 0; i + 3 < this.#bytes.length; ++i) {
            if (kHeaderEnd.every((byte, k) => this.#bytes[i + k] === byte)) return i + 4;
        }
        return -1;
    }
}

async function read(stream, signal) {
    const answer = await fetch(`/pictures/${stream}`, { signal });
    if (!answer.ok) return;
    const parts = new Parts();
    for (const reader = answer.body.getReader(); ;) {
        const { done, value } = await reader.read();
        if (done) return;
        parts.add(value);
        for (let picture; (picture = parts.next());) {
            const decoded = await createImageBitmap(picture);
            newest?.close();
            newest = decoded;
            draw(drawPair);
        }
    }
}

async function follow(stream, signal) {
    while (!signal.aborted) {
        await read(stream, signal).catch(() => {});
        await new Promise((resolve) => setTimeout(resolve, kRetryMs));
    }
}

// A hidden page holds no connection: browsers allow six to one server.
function reconnect() {
    connection?.abort();
    connection = null;
    if (replay || document.hidden) return;
    connection = new AbortController();
    follow(chosenStream(), connection.signal);
}

function drawPair() {
    if (!newest) return;
    const width = newest.width / 2;
    for (const [id, left] of [["captured", 0], ["replaced", width]]) {
        const canvas = byId(id);
        if (canvas.width !== width) canvas.width = width;
        if (canvas.height !== newest.height) canvas.height = newest.height;
        canvas.getContext("2d").drawImage(newest, left, 0, width, newest.height, 0, 0, width, newest.height);
    }
}

function choose(select, value) {
    if (![...select.options].some((option) => option.value === String(value))) select.append(new Option(value));
    select.value = value;
}

function takeState(state) {
    const wasReplay = replay;
    replay = state.replay;
    for (const [name, value] of Object.entries(state.settings ?? {})) if (byId(name)) choose(byId(name), value);
    if (state.settings) offerStreams(state.settings.streams);
    if (!connection || replay !== wasReplay) reconnect();
    setText(byId("pictures-note"), replay ? "a saved session has none" : "");
}

function offerStreams(count) {
    const select = byId("stream");
    if (select.length === count) return;
    const before = select.value || "0";
    select.replaceChildren(...Array.from({ length: count }, (_, stream) => new Option(stream)));
    select.value = Number(before) < count ? before : "0";
    if (select.value !== before) select.dispatchEvent(new Event("change"));
}

function takeFrames({ name, args }) {
    if (replay && name === "frames begin") offerStreams(args.streams);
}

function restartFrames(event) {
    event.preventDefault();
    const value = (id) => byId(id).value;
    request({ do: "frames", size: value("size"), fps: Number(value("fps")), streams: Number(value("streams")) });
}

export function startPictures() {
    on("frames", takeFrames);
    onState(takeState);
    byId("stream").addEventListener("change", reconnect);
    byId("effect").addEventListener("change", () => request({ do: "frames", effect: byId("effect").value }));
    byId("frames").addEventListener("submit", restartFrames);
    document.addEventListener("visibilitychange", reconnect);
}
