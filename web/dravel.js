// The page of the timers: it shows what the source has, and shows it again at each change.

import { allRefusals, refusalAt } from "./acts.js";
import { button, element, render } from "./dom.js";
import { chooseFile, exportFile } from "./files.js";
import { renderGlance, tick } from "./glance.js";
import { historyDialog } from "./history-dialog.js";
import { renderHolidays } from "./holidays.js";
import { source } from "./source.js";
import { reportTest } from "./test-dialog.js";
import { followTheme } from "./theme.js";
import { renderTimers } from "./timers.js";
import { renderWeek, watchWeek } from "./week.js";
import { at, kAdministrator, spanOf } from "./words.js";

const place = name => document.getElementById(name);

let problems = "";

function rights() {
    const reason = source.overview && !source.lost ? source.reasonNotTo("change") : "";
    return (
        reason &&
        `You may look, but not change anything: ${reason} ${kAdministrator}`
    );
}

function alertOf(kind, text) {
    return text && element("p", { class: `alert ${kind}` }, text);
}

// A live region: written only when a sentence has changed.
function renderProblems() {
    const sentences = source.overview?.problems ?? [];
    const all = [["danger", source.lost], ["info", rights()], ...sentences.map(text => ["warning", text])];
    if (problems === JSON.stringify(all)) return;
    problems = JSON.stringify(all);
    render(
        place("problems"),
        all.map(([kind, text]) => alertOf(kind, text)),
    );
}

function renderToolbar() {
    const change = source.reasonNotTo("change");
    render(
        place("toolbar"),
        button("History", historyDialog, { key: "history", reason: source.lost }),
        button("Export", exportFile, { key: "export", reason: source.lost }),
        button("Import …", chooseFile, { key: "import", reason: change }),
        refusalAt("file"),
    );
}

function renderClock() {
    const { clock } = source.overview.status;
    place("clock").textContent = clock ? `The set's clock: ${at(clock)}` : "The set's clock is unknown";
}

function renderAge() {
    const age = place("age");
    age.hidden = !source.lost || !source.overview;
    age.textContent = age.hidden ? "" : `What is shown is ${spanOf(source.age)} old.`;
}

const shown = new Map();

/** Draws a part only when something that it shows has changed: 80 timers take a while. */
function renderPart(part, inputs, draw) {
    const all = JSON.stringify([inputs, source.lost, source.reasonNotTo("change"), allRefusals()]);
    if (shown.get(part) === all) return;
    shown.set(part, all);
    draw();
}

function renderAll() {
    document.body.classList.toggle("lost", source.lost !== "");
    place("waiting").hidden = Boolean(source.overview || source.lost);
    renderProblems();
    renderToolbar();
    renderAge();
    if (!source.overview) return;
    renderClock();
    renderGlance();
    const { holidays, status, timers, types, week } = source.overview;
    renderPart("week", [week?.now.slice(0, 16), week?.days, week?.firings, timers], renderWeek);
    renderPart("timers", [timers, types, status.timers, status.limit], renderTimers);
    renderPart("holidays", [holidays, status.clock === null], renderHolidays);
    reportTest();
}

followTheme();
source.addEventListener("change", renderAll);
setInterval(() => {
    tick();
    renderAge();
}, 1000);
watchWeek();
renderToolbar();
source.start();
