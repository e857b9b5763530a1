// What every panel uses of the page and of the server.

export const byId = (id) => document.getElementById(id);

/** A new element with properties (class names as `className`) and children, which may be texts. */
export function element(name, properties = {}, ...children) {
    const made = Object.assign(document.createElement(name), properties);
    made.append(...children);
    return made;
}

/** Sets a text only where it changes, so that screen readers do not hear it again. */
export function setText(node, text) {
    if (node.textContent !== text) node.textContent = text;
}

export const seconds = (microseconds) => (microseconds / 1e6).toFixed(3);
export const milliseconds = (value) => `${value < 100 ? value.toFixed(1) : Math.round(value).toLocaleString("en")} ms`;

export function parsed(text) {
    try {
        return JSON.parse(text);
    } catch {
        return undefined;
    }
}

let noticeEnds = 0;

/** A line at the top for what went wrong or was done; it goes after a while. */
export function notify(text, bad = false) {
    const notice = byId("notice");
    notice.textContent = text;
    notice.classList.toggle("bad", bad);
    clearTimeout(noticeEnds);
    noticeEnds = setTimeout(() => (notice.textContent = ""), 8000);
}

/** Asks the server to do something; undefined, and a notice, when it refuses. */
export async function request(what) {
    try {
        const answer = await fetch("/do", {
            method: "POST",
            headers: { "Content-Type": "application/json" },
            body: JSON.stringify(what),
        });
        const result = parsed(await answer.text()) ?? {};
        if (answer.ok && result.ok) return result;
        notify(`Refused: ${result.error ?? answer.status}`, true);
    } catch {
        notify("The server does not answer", true);
    }
    return undefined;
}

export const sendLine = (peer, line) => request({ do: "line", peer, line });
export const sendCommand = (command) => sendLine("app", JSON.stringify(command));

/** Fills a select with [label, value] pairs; choosing one puts its value into the field. */
export function offerExamples(select, field, examples) {
    select.append(element("option", { value: "" }, "Examples …"));
    for (const [label, value] of examples) select.append(element("option", { value }, label));
    select.addEventListener("change", () => {
        if (select.value) field.value = select.value;
        select.selectedIndex = 0;
        field.focus();
    });
}
