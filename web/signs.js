// The signs of the week's picture and of the figures above it: a form and a colour for each kind.

import { drawn, element } from "./dom.js";

const kForms = {
    on: "M12 4 L21 19 L3 19 Z",
    off: "M12 20 L3 5 L21 5 Z",
    both: "M12 2 L22 12 L12 22 L2 12 Z",
    wake: "M12 6 L19 18 L5 18 Z",
    other: "M12 5 A7 7 0 1 1 11.99 5 Z",
};

const kMeanings = [
    ["on", "turns on"],
    ["off", "turns off"],
    ["both", "several"],
    ["wake", "wakes"],
    ["other", "announces"],
];

/** The sign of a kind, 24 px; hollow where its timers are halted. */
export function sign(kind, halted = false) {
    return drawn(
        "svg",
        { class: `sign ${kind}${halted ? " halted" : ""}`, viewBox: "0 0 24 24", "aria-hidden": "true" },
        drawn("path", { d: kForms[kind] ?? kForms.other }),
    );
}

/** What the signs mean; a screen reader has it from each mark's name. */
export function legend() {
    const entries = kMeanings.map(([kind, text]) => element("li", {}, sign(kind), text));
    return element(
        "ul",
        { class: "legend", "aria-hidden": "true" },
        entries,
        element("li", {}, sign("on", true), "halted"),
        element("li", {}, element("span", { class: "sample" }), "holidays"),
    );
}
