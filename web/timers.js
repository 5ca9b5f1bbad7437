// The list of the timers, the next to fire first, and what can be done with one.

import { act, refusalAt } from "./acts.js";
import { button, element, keyed, render } from "./dom.js";
import { explainDialog } from "./explain-dialog.js";
import { tell } from "./news.js";
import { sign } from "./signs.js";
import { source } from "./source.js";
import { timerDialog } from "./timer-dialog.js";
import { meaningOf, sentence, timeOf } from "./words.js";

const kClocks = { internet: "UTC", rtc: "clock of the machine" };

async function cancel(timer) {
    const done = await act(`timer-${timer.id}`, ["cancel", String(timer.id)]);
    if (!done) return;
    tell([`${sentence(timer.title)} is cancelled.`, ...(done.notes ?? [])], () => restore(done.timer));
    keyed("undo").focus(); // the row goes, with the button that has the focus
}

/** Takes a cancellation back: the timer as it was, under a new id. */
async function restore(timer) {
    keyed("add").focus();
    const done = await act("timers", ["import", "-"], JSON.stringify({ timers: [timer] }));
    if (!done) return;
    const back = done.ids.map(id => `It is back as timer ${id}.`);
    tell([...back, ...done.refused.map(({ why }) => `It cannot come back: ${why}.`), ...done.notes]);
}

function kindOf(timer) {
    return source.overview.types.find(({ number }) => number === timer.type)?.mark ?? "wake";
}

function nextLine(timer) {
    return timer.armed ? `Next: ${timer.next_text}` : sentence(timer.next_text);
}

function settingsLine(timer) {
    const parts = [sentence(timer.days_text.replaceAll(",", ", "))];
    if (timer.holidays === "skip") parts.push("not on holidays");
    if (timer.halted) parts.push("halted");
    if (timer.priority) parts.push(`priority ${timer.priority}`);
    return parts.join(" · ");
}

function rowText(timer) {
    return element(
        "div",
        { class: "what" },
        element("h3", {}, meaningOf(timer, source.overview.types), element("small", {}, `timer ${timer.id}`)),
        element("p", {}, settingsLine(timer)),
        element("p", { class: "faint" }, nextLine(timer)),
        timer.notes.map(note => element("p", { class: "note" }, note)),
        refusalAt(`timer-${timer.id}`),
    );
}

function rowButtons(timer) {
    const { id } = timer;
    const reason = source.reasonNotTo("change");
    return element(
        "div",
        { class: "buttons" },
        button("Change", () => timerDialog(timer), {
            key: `change-${id}`,
            reason,
            label: `Change timer ${id}`,
        }),
        button("Why?", () => explainDialog(id), {
            key: `why-${id}`,
            reason: source.lost,
            label: `Why does timer ${id} fire, and when?`,
        }),
        button("Cancel", () => cancel(timer), {
            key: `cancel-${id}`,
            reason,
            kind: "danger",
            label: `Cancel timer ${id}`,
        }),
    );
}

function row(timer) {
    const clock = kClocks[timer.clock];
    return element(
        "li",
        { class: timer.armed && !timer.halted ? "timer" : "timer resting" },
        sign(kindOf(timer), timer.halted),
        element("span", { class: "time" }, timeOf(timer.set_for), clock && element("small", {}, clock)),
        rowText(timer),
        rowButtons(timer),
    );
}

function inOrder(timers) {
    return [...timers].sort(
        (a, b) => (a.next_seconds ?? Infinity) - (b.next_seconds ?? Infinity) || a.id - b.id,
    );
}

export function renderTimers() {
    const { status, timers } = source.overview;
    render(
        document.getElementById("timers"),
        element(
            "div",
            { class: "title" },
            element("h2", {}, "Timers", element("small", {}, `${status.timers} of ${status.limit}`)),
            button("Add a timer", () => timerDialog(), {
                key: "add",
                kind: "primary",
                reason: source.reasonNotTo("change"),
            }),
        ),
        refusalAt("timers"),
        timers.length
            ? element("ul", { class: "timers" }, inOrder(timers).map(row))
            : element(
                  "p",
                  { class: "empty" },
                  "There is no timer yet. Add one, and the set turns on or off at its time.",
              ),
    );
}
