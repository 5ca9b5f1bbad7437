// Tests of the screen and of the wake-up. During the second the page goes: what came of it is read
// afterwards from the machine's last wake-up.

import cockpit from "./cockpit.js";
import { Dialog } from "./dialog.js";
import { button, element } from "./dom.js";
import { tell } from "./news.js";
import { source } from "./source.js";
import { run } from "./tool.js";
import { at, causeOf, spanOf } from "./words.js";

// In the storage that a login does not empty, and that all machines of one Cockpit share.
const begun = () => `dravel.test-wake.${cockpit.transport.host}`;

const kFollows = { true: "It works.", false: "Something is wrong: dravelctl check says what." };

const saidOf = screen => (screen === "unknown" ? "nothing" : screen);

const kTests = {
    screen: {
        begins: "The screen goes off for five seconds …",
        result: ({ off, on, screen_by: by }) =>
            by === "targets"
                ? "No television answers: look whether the screen was dark."
                : `The television said: ${saidOf(off)}, then ${saidOf(on)}.`,
    },
    wake: {
        begins: "The machine goes to sleep …",
        result: ({ slept, cause, late }) =>
            `The machine slept for ${spanOf(slept)} and was woken ${causeOf(cause)}, ${
                late > 0 ? `${spanOf(late)} late` : "in time"
            }.`,
    },
};

async function test(which, place, dialog) {
    const { begins, result } = kTests[which];
    dialog.refuse("");
    place.replaceChildren(element("p", {}, begins));
    if (which === "wake") localStorage.setItem(begun(), source.overview.machine.last_wake ?? "none");
    try {
        const done = await run(["test", which], { act: true });
        place.replaceChildren(...[result(done), kFollows[done.good]].map(text => element("p", {}, text)));
        localStorage.removeItem(begun());
    } catch (refusal) {
        place.replaceChildren();
        dialog.refuse(refusal.message);
        if (refusal.kind !== "failed")
            // the connection may be lost by the sleep itself
            localStorage.removeItem(begun());
    }
}

export function testDialog() {
    const place = element("div", { role: "status" });
    let running = false; // a second press would lose what came of the first
    const act = which => async () => {
        if (running) return;
        running = true;
        await test(which, place, dialog);
        running = false;
    };
    const dialog = new Dialog("Does it work here?", [
        element("p", {}, "The screen is turned off, and on again after five seconds."),
        button("Test the screen", act("screen")),
        element(
            "p",
            {},
            "The machine sleeps now and wakes itself after a minute. This page loses its connection: log in again then, and it says how the wake-up went.",
        ),
        button("Test the wake-up", act("wake")),
        place,
    ]);
}

/** Tells of a test during which the page went. */
export function reportTest() {
    const before = localStorage.getItem(begun());
    const machine = source.overview?.machine;
    if (before === null || !machine || source.lost || (machine.last_wake ?? "none") === before) return;
    localStorage.removeItem(begun());
    tell([`The machine was woken ${at(machine.last_wake)}, ${causeOf(machine.last_wake_cause)}.`]);
}
