// The events of the run. Panels keep what they need of them at once, and draw it once a screen refresh at most.

const handlers = new Map();
const stateHandlers = [];
const resetHandlers = [];
const waiting = new Set();
const kRetryMs = 2000;

let session = null;
let newestId = 0;
let seenUpTo = 0;  // after a reconnection: what came before it
let newestTime = 0;
let newestTimeCame = 0;
let replay = false;

export function on(category, handler) {
    if (!handlers.has(category)) handlers.set(category, []);
    handlers.get(category).push(handler);
}

export const onState = (handler) => stateHandlers.push(handler);

/** For another session: all that was kept is to be forgotten. */
export const onReset = (handler) => resetHandlers.push(handler);

/** Calls the function before the next refresh, once however often it was asked for. */
export function draw(render) {
    if (waiting.size === 0) requestAnimationFrame(drawAll);
    waiting.add(render);
}

function drawAll() {
    const renders = [...waiting];
    waiting.clear();
    for (const render of renders) render();
}

/** The present as a time of the events, in microseconds. A saved session stays at its end. */
export function now() {
    return replay ? newestTime : newestTime + (performance.now() - newestTimeCame) * 1000;
}

function takeState(state) {
    if (state.session !== session) {
        newestId = seenUpTo = newestTime = 0;
        for (const reset of resetHandlers) reset();
    }
    session = state.session;
    replay = state.replay;
    for (const handle of stateHandlers) handle(state);
}

function takeEvent(id, event) {
    if (id <= seenUpTo) return;
    newestId = Math.max(newestId, id);
    if (event.ts > newestTime) {
        newestTime = event.ts;
        newestTimeCame = performance.now();
    }
    for (const handle of handlers.get(event.cat) ?? []) handle(event);
}

/** Follows the server for good; tells "up", "down", "refused" (another server has its place) and lost counts. */
export function connect(tell) {
    const source = new EventSource("/events");
    source.onopen = () => {
        seenUpTo = newestId;
        tell("up");
    };
    source.addEventListener("state", (message) => takeState(JSON.parse(message.data)));
    source.addEventListener("lost", (message) => tell("lost", JSON.parse(message.data).count));
    source.onmessage = (message) => takeEvent(Number(message.lastEventId), JSON.parse(message.data));
    source.onerror = () => {
        tell("down");
        if (source.readyState === EventSource.CLOSED) retry(tell);
    };
}

// The browser reconnects by itself only where nobody answered.
async function retry(tell) {
    const answer = await fetch("/tags").catch(() => null);
    if (answer?.status === 401) tell("refused");
    setTimeout(() => connect(tell), kRetryMs);
}
