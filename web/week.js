// The coming seven days as a picture. The marks are buttons over it; those that would overlap are
// one. What the chosen mark stands for is named below.

import { drawn, element, button, keyed, render } from "./dom.js";
import { legend, sign } from "./signs.js";
import { source } from "./source.js";
import { explainDialog } from "./explain-dialog.js";
import { timerDialog } from "./timer-dialog.js";
import { at, dayOf, meaningOf, sentence, timeOf } from "./words.js";

const kRowPx = 36;
const kMarkPx = 26;
const kMinutes = 24 * 60;

const section = document.getElementById("week");
const parts = {
    unknown: element("p", { hidden: true }, "No week can be shown while the set's clock is unknown."),
    days: element("div", { class: "days", "aria-hidden": "true" }),
    plot: element("div", {
        class: "plot",
        role: "group",
        "aria-label": "Firings; the arrow keys go from one to the next",
        keydown: event => step(event),
    }),
    chosen: element("div", { class: "chosen", role: "status" }),
};
parts.chart = element("div", {}, element("div", { class: "chart" }, parts.days, parts.plot), legend());
section.append(element("h2", {}, "The coming week"), parts.unknown, parts.chart, parts.chosen);
let chosen = null;

function minuteOf(iso) {
    return Number(iso.slice(11, 13)) * 60 + Number(iso.slice(14, 16));
}

// --- marks ---

/** The firings of a day, those that lie closer than a mark is wide together. */
function clustersOf(firings, width) {
    const clusters = [];
    for (const firing of firings) {
        const x = (minuteOf(firing.at) / kMinutes) * width;
        const last = clusters.at(-1);
        if (last && x - last.x < kMarkPx) last.firings.push(firing);
        else clusters.push({ x, firings: [firing] });
    }
    return clusters;
}

function idsOf(firing) {
    return [firing.id, ...firing.passed];
}

function nameOf({ firings }) {
    const ids = firings.flatMap(idsOf);
    const first = firings[0];
    const last = firings.at(-1);
    const until = first.at === last.at ? "" : ` to ${timeOf(last.at)}`;
    const what = ids.length === 1 ? titleOf(first.id) : `${ids.length} firings`;
    return `${at(first.at)}${until}: ${what}${areHalted(firings) ? ", halted" : ""}`;
}

function titleOf(id) {
    return source.overview.timers.find(timer => timer.id === id)?.title ?? `timer ${id}`;
}

function kindOf(firings) {
    return firings.every(firing => firing.mark === firings[0].mark) ? firings[0].mark : "both";
}

function areHalted(firings) {
    return firings.every(firing => firing.halted);
}

function mark(cluster, row) {
    const { firings, x } = cluster;
    const key = `mark ${firings[0].at}`;
    const count = firings.flatMap(idsOf).length;
    const node = element(
        "button",
        {
            type: "button",
            class: "mark",
            "data-key": key,
            "aria-label": nameOf(cluster),
            "aria-pressed": String(chosen === key),
            tabindex: -1,
            click: () => choose(key),
        },
        sign(kindOf(firings), areHalted(firings)),
        count > 1 && element("span", { class: "count" }, count),
    );
    node.style.left = `${x}px`;
    node.style.top = `${row * kRowPx + kRowPx / 2}px`;
    return { node, key, firings };
}

// --- the picture ---

/** The hours that are named where the picture is so wide. */
function hoursOf(width) {
    const every = width < 480 ? 6 : 3;
    return Array.from({ length: 24 / every }, (_, index) => ({
        hour: index * every,
        x: ((index * every) / 24) * width,
    }));
}

function rectangle(name, x, row, width) {
    return drawn("rect", { class: name, x, y: row * kRowPx, width, height: kRowPx });
}

function picture(week, width) {
    const height = week.days.length * kRowPx;
    const lines = hoursOf(width).map(({ x }) =>
        drawn("line", { class: "hour", x1: x, x2: x, y1: 0, y2: height }),
    );
    const rows = week.days.map((day, row) =>
        rectangle(day.holidays.length ? "day holiday" : row % 2 ? "day odd" : "day", 0, row, width),
    );
    const now = (minuteOf(week.now) / kMinutes) * width;
    return drawn(
        "svg",
        { width, height, viewBox: `0 0 ${width} ${height}`, role: "img", "aria-label": described(week) },
        rows,
        lines,
        rectangle("past", 0, 0, now),
        drawn("line", { class: "now", x1: now, x2: now, y1: 0, y2: kRowPx }),
    );
}

function described(week) {
    const free = week.days.filter(day => day.holidays.length).map(day => dayOf(day.date));
    return `Now ${at(week.now)}. Holidays: ${free.join(", ") || "none"}.`;
}

function scale(width) {
    const labels = hoursOf(width).map(({ hour, x }) => {
        const label = element("span", {}, String(hour).padStart(2, "0"));
        label.style.left = `${x}px`;
        return label;
    });
    return element("div", { class: "hours", "aria-hidden": "true" }, labels);
}

// --- choosing ---

function step(event) {
    const marks = [...section.querySelectorAll(".mark")];
    const here = marks.indexOf(document.activeElement);
    const to = {
        ArrowRight: here + 1,
        ArrowDown: here + 1,
        ArrowLeft: here - 1,
        ArrowUp: here - 1,
        Home: 0,
        End: marks.length - 1,
    }[event.key];
    if (here < 0 || to === undefined) return;
    event.preventDefault();
    const target = marks[Math.min(Math.max(to, 0), marks.length - 1)];
    marks[here].tabIndex = -1;
    target.tabIndex = 0;
    target.focus();
}

function choose(key) {
    chosen = chosen === key ? null : key;
    renderWeek();
    keyed(key)?.focus();
}

function firingLine(firing, id) {
    const { timers, types } = source.overview;
    const timer = timers.find(other => other.id === id);
    if (!timer) return null;
    const isSure = !firing.passed.length || timer.type_name === "transient-off";
    const doubt = isSure ? "" : "; due in the same second as another timer: it is not certain which one fires";
    return element(
        "li",
        {},
        element("strong", {}, timeOf(firing.at)),
        " ",
        `${sentence(timer.title)}: ${meaningOf(timer, types).toLowerCase()}${doubt}`,
        " ",
        button("Change", () => timerDialog(timer), {
            key: `week-change-${id}-${firing.at}`,
            kind: "link",
            label: `Change timer ${id}`,
            reason: source.reasonNotTo("change"),
        }),
        button("Why?", () => explainDialog(id), {
            key: `week-why-${id}-${firing.at}`,
            reason: source.lost,
            kind: "link",
            label: `Why does timer ${id} fire then?`,
        }),
    );
}

function details(marks) {
    const found = marks.find(({ key }) => key === chosen);
    if (!found) return [];
    const lines = found.firings.flatMap(firing => idsOf(firing).map(id => firingLine(firing, id)));
    return [element("h3", {}, dayOf(found.firings[0].at)), element("ul", {}, lines)];
}

// --- the page calls these ---

function marksOf(week, width) {
    const marks = week.days.flatMap((day, row) =>
        clustersOf(
            week.firings.filter(firing => firing.at.startsWith(day.date)),
            width,
        ).map(cluster => mark(cluster, row)),
    );
    const stop = marks.find(({ key }) => key === chosen) ?? marks[0];
    if (stop) stop.node.tabIndex = 0;
    return marks;
}

export function renderWeek() {
    const { week } = source.overview;
    section.hidden = false;
    parts.unknown.hidden = Boolean(week);
    parts.chart.hidden = !week;
    if (!week) return parts.chosen.replaceChildren();
    render(
        parts.days,
        week.days.map(day =>
            element("span", { class: day.holidays.length ? "free" : null }, dayOf(day.date)),
        ),
    );
    const width = parts.plot.clientWidth;
    const marks = marksOf(week, width);
    render(
        parts.plot,
        scale(width),
        picture(week, width),
        element(
            "div",
            { class: "marks" },
            marks.map(({ node }) => node),
        ),
    );
    render(parts.chosen, details(marks));
}

/** Draws again when there is more or less room. */
export function watchWeek() {
    new ResizeObserver(() => source.overview && renderWeek()).observe(parts.plot);
}
