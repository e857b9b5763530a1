import { draw } from "./events.js";

/** A bounded list of entries, newest first by their time, on the page: those that pass a filter, as rows. */
export class NewestFirst {
    #entries = [];  // oldest first
    #fresh = [];
    #rows = new Map();
    #all = true;  // every row is to be made anew
    #frozen = false;
    #render = () => this.#draw();

    constructor(list, makeRow, passes = () => true, limit = 500) {
        Object.assign(this, { list, makeRow, passes, limit });
    }

    add(entry) {
        let place = this.#entries.length;
        while (place > 0 && this.#entries[place - 1].ts > entry.ts) --place;
        if (place < this.#entries.length) this.#all = true;  // another program was faster to tell
        this.#entries.splice(place, 0, entry);
        this.#fresh.push(entry);
        if (this.#entries.length > this.limit) this.remove(this.#entries[0]);
        draw(this.#render);
    }

    /** The entry's row is made anew. */
    changed(entry) {
        const row = this.#rows.get(entry);
        if (row && !this.#frozen) this.#replace(row, entry);
    }

    remove(entry) {
        const without = (entries) => entries.splice(entries.indexOf(entry), entries.includes(entry) ? 1 : 0);
        without(this.#entries);
        without(this.#fresh);
        if (this.#frozen) return;
        this.#rows.get(entry)?.remove();
        this.#rows.delete(entry);
    }

    /** The wanted entries, oldest first. */
    all(wanted) {
        return this.#entries.filter(wanted);
    }

    clear() {
        this.#entries = [];
        this.refresh();
    }

    refresh() {
        this.#all = true;
        draw(this.#render);
    }

    /** A frozen list takes entries and shows them later. */
    freeze(frozen) {
        this.#frozen = frozen;
        if (!frozen) this.refresh();
    }

    #replace(row, entry) {
        const anew = this.makeRow(entry);
        row.replaceWith(anew);
        this.#rows.set(entry, anew);
    }

    #draw() {
        if (this.#frozen) return;
        if (this.#all) {
            this.#rows.clear();
            this.list.replaceChildren();
        }
        const added = (this.#all ? this.#entries : this.#fresh).filter(this.passes);
        for (const entry of added) this.#rows.set(entry, this.makeRow(entry));
        this.list.prepend(...added.map((entry) => this.#rows.get(entry)).reverse());
        this.#fresh = [];
        this.#all = false;
    }
}
