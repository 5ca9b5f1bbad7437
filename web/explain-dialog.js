// Why a timer fires when it does, and what it then does.

import { Dialog } from "./dialog.js";
import { element } from "./dom.js";
import { run } from "./tool.js";

/** Fills the place with what is promised: elements, or a refusal. */
export async function fill(place, promise) {
    try {
        place.replaceChildren(...(await promise));
    } catch (refusal) {
        place.replaceChildren(element("p", { class: "refusal", role: "alert" }, refusal.message));
    }
}

async function sentences(id) {
    const { timers, wakeup } = await run(["explain", String(id)]);
    return [...timers.flatMap(timer => timer.sentences), ...wakeup].map(text => element("p", {}, text));
}

export function explainDialog(id) {
    const place = element("div", { "aria-live": "polite" }, element("p", {}, "Asking …"));
    new Dialog(`Why timer ${id} fires, and when`, place);
    return fill(place, sentences(id));
}
