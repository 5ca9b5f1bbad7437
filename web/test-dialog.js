// Tests of the screen and of the wake-up. During the second the page goes: what came of it is read
// afterwards from the machine's last wake-up.

import { Dialog } from "./dialog.js";
import { button, element } from "./dom.js";
import { tell } from "./news.js";
import { source } from "./source.js";
import { run } from "./tool.js";
import { dayOf, timeOf } from "./words.js";

const kBegun = "dravel.test-wake";

function result(done) {
    return (done.sentences ?? [done.text ?? "The test is done."]).map(text => element("p", {}, text));
}

async function test(which, place, dialog) {
    dialog.refuse("");
    place.replaceChildren(element("p", {}, which === "screen" ? "The screen goes off for five seconds …" : "The machine goes to sleep …"));
    if (which === "wake")
        sessionStorage.setItem(kBegun, source.overview.machine.last_wake ?? "none");
    try {
        place.replaceChildren(...result(await run(["test", which], { act: true })));
        sessionStorage.removeItem(kBegun);
    } catch (refusal) {
        place.replaceChildren();
        if (refusal.kind !== "failed")
            sessionStorage.removeItem(kBegun);
        dialog.refuse(refusal.message);
    }
}

export function testDialog() {
    const place = element("div", { role: "status" });
    const act = which => () => test(which, place, dialog);
    const dialog = new Dialog("Does it work here?", [
        element("p", {}, "The screen is turned off, and on again after five seconds."),
        button("Test the screen", act("screen")),
        element("p", {}, "The machine sleeps now and wakes itself after a minute. This page loses its connection until then: reload it, and it says how the wake-up went."),
        button("Test the wake-up", act("wake")),
        place]);
}

/** Tells of a test during which the page went. */
export function reportTest() {
    const before = sessionStorage.getItem(kBegun);
    const machine = source.overview?.machine;
    if (before === null || !machine || source.lost || (machine.last_wake ?? "none") === before)
        return;
    sessionStorage.removeItem(kBegun);
    tell([`The machine woke ${dayOf(machine.last_wake)} ${timeOf(machine.last_wake)}: ${machine.last_wake_cause}.`]);
}
