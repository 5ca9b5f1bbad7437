// At a glance: the next on and off with the time until then, and the machine.

import { act, refusalAt } from "./acts.js";
import { button, element, render } from "./dom.js";
import { sign } from "./signs.js";
import { source } from "./source.js";
import { tell } from "./news.js";
import { testDialog } from "./test-dialog.js";
import { at, causeOf, dayOf, sentence, spanOf, timeOf } from "./words.js";

const kHalt = { on: "On-timers", off: "Off-timers" };
const kScreen = { on: "On", off: "Off", unknown: "Unknown" };

async function halt(which) {
    const halted = { ...source.overview.status.halted };
    halted[which] = !halted[which];
    const words = Object.keys(halted).filter(kind => halted[kind]);
    const now = await act(`halt-${which}`, ["halt", "none", ...words]);
    if (now) tell([`${kHalt[which]} ${now[which] ? "are halted: they do not act" : "act again"}.`]);
}

function haltSwitch(which, halted) {
    const reason = source.reasonNotTo("change");
    return element(
        "button",
        {
            type: "button",
            role: "switch",
            class: "switch",
            "data-key": `halt-${which}`,
            "aria-checked": String(!halted),
            disabled: reason !== "",
            title: reason || null,
            click: () => halt(which),
        },
        element("span", { class: "knob" }),
        `${kHalt[which]} ${halted ? "are halted" : "act"}`,
    );
}

function leftUntil(seconds) {
    if (source.clock === null) return "";
    const left = seconds - source.clock;
    return left > 0 ? `in ${spanOf(left)}` : "now";
}

/** A moment in large type, with what is left until then. */
function moment(timer) {
    return [
        element("p", { class: "large" }, timeOf(timer.next), element("small", {}, dayOf(timer.next))),
        element("p", { class: "left", "data-until": timer.next_seconds }, leftUntil(timer.next_seconds)),
        element("p", {}, sentence(timer.title)),
    ];
}

function nextCard(which, timer) {
    const halted = source.overview.status.halted[which];
    return element(
        "section",
        { class: `card next ${which}`, "aria-labelledby": `next-${which}` },
        element("h2", { id: `next-${which}` }, sign(which, halted), `Next ${which}`),
        timer ? moment(timer) : element("p", { class: "large none" }, "None"),
        element("div", { class: "foot" }, haltSwitch(which, halted)),
        refusalAt(`halt-${which}`),
    );
}

// --- the machine ---

async function turnScreen(word) {
    if (await act("screen", ["screen", word])) tell([`The screen is told to turn ${word}.`]);
}

function screenButtons() {
    const reason = source.reasonNotTo("screen");
    return ["on", "off"].map(word =>
        button(`Turn ${word}`, () => turnScreen(word), {
            key: `screen-${word}`,
            reason,
            label: `Turn ${word} the screen`,
        }),
    );
}

function machineFacts(machine) {
    return [
        machine.alarm && ["Alarm", `${at(machine.alarm)}, ${causeOf(machine.alarm_for)}`],
        machine.alarm_problem && [machine.alarm ? "Its fault" : "Alarm", machine.alarm_problem],
        machine.last_wake && ["Woken last", `${at(machine.last_wake)}, ${causeOf(machine.last_wake_cause)}`],
        machine.sleeps_at && ["Sleeps", at(machine.sleeps_at)],
        machine.postponed && ["Stays awake", machine.postponed],
    ].filter(Boolean);
}

function setFacts(status) {
    const facts = [];
    if (status.wakeup) facts.push(["Wakes", `${at(status.wakeup.at)} for timer ${status.wakeup.id}`]);
    if (status.woken_by) facts.push(["Woken by", status.woken_by.title]);
    facts.push(["Timers", `${status.timers} of ${status.limit}`]);
    return facts;
}

function machineCard({ machine, status }) {
    const facts = machine ? machineFacts(machine) : setFacts(status);
    return element(
        "section",
        { class: "card machine", "aria-labelledby": "machine" },
        element("h2", { id: "machine" }, machine ? "Screen" : "The set"),
        machine &&
            element(
                "p",
                { class: `large screen ${machine.screen}` },
                kScreen[machine.screen] ?? machine.screen,
            ),
        element(
            "dl",
            {},
            facts.map(([name, text]) => [element("dt", {}, name), element("dd", {}, text)]),
        ),
        machine &&
            element(
                "div",
                { class: "foot" },
                screenButtons(),
                button("Test …", testDialog, { key: "test", reason: source.reasonNotTo("test") }),
            ),
        refusalAt("screen"),
    );
}

// --- the page calls these ---

export function renderGlance() {
    const { status } = source.overview;
    tick();
    render(
        document.getElementById("glance"),
        nextCard("on", status.next_on),
        nextCard("off", status.next_off),
        machineCard(source.overview),
    );
}

/** Writes the time that is left; called each second. */
export function tick() {
    for (const node of document.querySelectorAll("[data-until]"))
        node.textContent = leftUntil(Number(node.dataset.until));
}
