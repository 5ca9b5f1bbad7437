// The holidays: what is set, and the year's calendar on which they are added.

import { act, refusalAt } from "./acts.js";
import { button, element, keyed, render } from "./dom.js";
import { calendarDialog } from "./calendar-dialog.js";
import { tell } from "./news.js";
import { source } from "./source.js";

async function remove(period) {
    const done = await act("holidays", ["holidays", "remove", String(period.id)]);
    if (!done) return;
    tell([`The holidays ${period.text} are removed.`, ...done.notes]);
    keyed("calendar").focus(); // the row goes, with the button that has the focus
}

function skippers({ skipped_by: ids }) {
    if (ids.length === 0) return "No timer rests on them";
    return ids.length === 1 ? `Timer ${ids[0]} rests` : `${ids.length} timers rest: ${ids.join(", ")}`;
}

function row(period) {
    const reason = source.reasonNotTo("change");
    return element(
        "li",
        {},
        element("strong", {}, period.text),
        element("span", { class: "faint" }, skippers(period)),
        button("Remove", () => remove(period), {
            key: `remove-${period.id}`,
            reason,
            kind: "danger",
            label: `Remove the holidays ${period.text}`,
        }),
    );
}

export function renderHolidays() {
    const { holidays, status } = source.overview;
    const noYear = status.clock ? "" : "The set's clock is unknown.";
    render(
        document.getElementById("holidays"),
        element(
            "div",
            { class: "title" },
            element("h2", {}, "Holidays"),
            button("Calendar", () => calendarDialog(), { key: "calendar", reason: noYear }),
        ),
        refusalAt("holidays"),
        holidays.length
            ? element("ul", { class: "holidays" }, holidays.map(row))
            : element(
                  "p",
                  { class: "empty" },
                  "None are set. Timers that rest on holidays do not act on these days, every year.",
              ),
    );
}
