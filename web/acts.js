// What the user does: an act, and its refusal, which stays at the place where it was caused until
// the next act there.

import { element } from "./dom.js";
import { source } from "./source.js";
import { run } from "./tool.js";

const refusals = new Map();

function refuse(where, text) {
    if (text) refusals.set(where, text);
    else refusals.delete(where);
    source.dispatchEvent(new Event("change"));
}

/** Runs dravelctl with rights to change. A Refusal is shown at `where`; null is returned then. */
export async function act(where, words, input = "") {
    try {
        const done = await run(words, { act: true, input });
        refuse(where, "");
        source.refresh();
        return done;
    } catch (refusal) {
        refuse(where, refusal.message);
        return null;
    }
}

/** Each place with its refusal. */
export function allRefusals() {
    return [...refusals];
}

/** The refusal at this place, if there is one. */
export function refusalAt(where) {
    const text = refusals.get(where);
    return text ? element("p", { class: "refusal", role: "alert" }, text) : null;
}
