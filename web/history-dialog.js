// What fired, what did not, and why: from the machine's journal.

import { Dialog } from "./dialog.js";
import { element } from "./dom.js";
import { fill } from "./explain-dialog.js";
import { run } from "./tool.js";
import { at, kAdministrator } from "./words.js";

function line(entry) {
    return element("li", {}, element("strong", {}, at(entry.time)), " ", entry.text);
}

async function entries() {
    const found = await run(["history"], { act: true }).catch(refusal => {
        if (refusal.kind === "not-allowed") refusal.message += ` ${kAdministrator}`;
        throw refusal;
    });
    if (!found.length) return [element("p", {}, "The journal has nothing of the timers.")];
    return [element("ul", { class: "history" }, [...found].reverse().map(line))];
}

export function historyDialog() {
    const place = element("div", { "aria-live": "polite" }, element("p", {}, "Reading the journal …"));
    new Dialog("What has happened", place);
    return fill(place, entries());
}
