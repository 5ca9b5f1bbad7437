// A year's calendar: days are chosen on it or in the two fields, and become holidays of every year.

import { button, element } from "./dom.js";
import { Dialog } from "./dialog.js";
import { tell } from "./news.js";
import { source } from "./source.js";
import { run } from "./tool.js";
import { kMonths } from "./words.js";

const kDayMs = 24 * 60 * 60 * 1000;

function isoOf(milliseconds) {
    return new Date(milliseconds).toISOString().slice(0, 10);
}

function daysFrom(iso, count) {
    return isoOf(Date.parse(iso) + count * kDayMs);
}

/** The days of a month, and how many weekdays stand before its first, Monday being the first. */
function monthOf(year, month) {
    const first = Date.UTC(year, month, 1);
    const count = (Date.UTC(year, month + 1, 1) - first) / kDayMs;
    const days = Array.from({ length: count }, (_, day) => isoOf(first + day * kDayMs));
    return { days, before: (new Date(first).getUTCDay() + 6) % 7 };
}

class Calendar {
    #years;
    #year;
    #today;
    #first = "";
    #last = "";
    #focus;
    #place = element("div", { class: "year", keydown: event => this.#step(event) });
    #title = element("strong", { "aria-live": "polite" });
    #fields = [
        ["first", "First day"],
        ["last", "Last day"],
    ].map(([name, label]) =>
        element("input", { type: "date", name, "aria-label": label, input: () => this.#typed() }),
    );
    #turns = [
        ["‹", 0, "This year"],
        ["›", 1, "Next year"],
    ].map(([text, index, label]) =>
        button(text, () => this.#go(this.#years[index]), { kind: "plain", label }),
    );
    #all = element("input", { type: "checkbox", name: "all" });
    #endOfFebruary = element("input", { type: "checkbox", name: "end-of-february" });
    #dialog;
    #shown = "";
    #follow = () => this.#shown !== JSON.stringify(source.overview.holidays) && this.#show();

    constructor(today) {
        this.#today = today;
        this.#focus = today;
        this.#year = Number(today.slice(0, 4));
        this.#years = [this.#year, this.#year + 1]; // the set tells its holidays' dates for these
        this.#dialog = new Dialog(
            "Holidays",
            [
                element(
                    "p",
                    {},
                    "Choose the first and the last day. Timers that rest on holidays do not act on these days, every year.",
                ),
                element(
                    "div",
                    { class: "pair" },
                    this.#fields.map(field => element("label", {}, field.getAttribute("aria-label"), field)),
                ),
                element(
                    "label",
                    { class: "check" },
                    this.#endOfFebruary,
                    "The last day of February in every year",
                ),
                element("label", { class: "check" }, this.#all, "All timers shall rest on holidays"),
                element("div", { class: "title" }, this.#turns[0], this.#title, this.#turns[1]),
                this.#place,
            ],
            { wide: true, action: { text: "Add", what: "change", run: () => this.#add() }, leave: "Close" },
        );
        source.addEventListener("change", this.#follow);
        this.#place
            .closest("dialog")
            .addEventListener("close", () => source.removeEventListener("change", this.#follow));
        this.#show();
        this.#dayButton(today).focus();
    }

    #go(year) {
        if (!this.#years.includes(year)) return;
        this.#year = year;
        this.#focus = `${year}${this.#focus.slice(4)}`;
        if (isoOf(Date.parse(this.#focus)) !== this.#focus) this.#focus = `${year}-02-28`;
        this.#show();
    }

    #show() {
        const here = document.activeElement?.dataset.day;
        this.#shown = JSON.stringify(source.overview.holidays);
        this.#title.textContent = String(this.#year);
        this.#turns.forEach((turn, index) => {
            turn.disabled = this.#year === this.#years[index];
        });
        const endsInFebruary = [this.#first, this.#last].some(day => /-02-2[89]$/.test(day));
        this.#endOfFebruary.parentElement.hidden = !endsInFebruary;
        this.#endOfFebruary.checked &&= endsInFebruary;
        this.#place.replaceChildren(...kMonths.map((name, month) => this.#month(name, month)));
        if (here) this.#dayButton(this.#focus)?.focus();
    }

    #month(name, month) {
        const { days, before } = monthOf(this.#year, month);
        const buttons = days.map(day => this.#day(day));
        buttons[0].style.gridColumnStart = String(before + 1);
        const weekdays = Array.from("MTWTFSS", letter => element("span", { "aria-hidden": "true" }, letter));
        return element(
            "div",
            { class: "month", role: "group", "aria-label": `${name} ${this.#year}` },
            element("h3", { "aria-hidden": "true" }, name),
            element("div", { class: "month-days" }, weekdays, buttons),
        );
    }

    #day(day) {
        const period = this.#periodOn(day);
        const isChosen = this.#first && day >= this.#first && day <= (this.#last || this.#first);
        return element(
            "button",
            {
                type: "button",
                class: period ? "holiday" : null,
                "aria-current": day === this.#today && "date",
                "data-day": day,
                tabindex: day === this.#focus ? 0 : -1,
                "aria-pressed": String(Boolean(isChosen)),
                "aria-label": `${Number(day.slice(8))} ${kMonths[Number(day.slice(5, 7)) - 1]}${period ? `, holidays ${period.text}` : ""}`,
                title: period?.text ?? null,
                click: () => this.#choose(day),
            },
            Number(day.slice(8)),
        );
    }

    #periodOn(day) {
        return source.overview.holidays.find(({ dates }) =>
            dates.some(({ first, last }) => first <= day && day <= last),
        );
    }

    #dayButton(day) {
        return this.#place.querySelector(`[data-day="${day}"]`);
    }

    #choose(day) {
        const begins = !this.#first || this.#last || day < this.#first;
        this.#first = begins ? day : this.#first;
        this.#last = begins ? "" : day;
        this.#focus = day;
        this.#fields[0].value = this.#first;
        this.#fields[1].value = this.#last;
        this.#show();
    }

    #typed() {
        [this.#first, this.#last] = this.#fields.map(field => field.value);
        if (this.#first) this.#go(Number(this.#first.slice(0, 4)));
        this.#show();
    }

    #step(event) {
        const by = { ArrowRight: 1, ArrowLeft: -1, ArrowDown: 7, ArrowUp: -7 }[event.key];
        if (by === undefined) return;
        event.preventDefault();
        const day = daysFrom(this.#focus, by);
        if (!day.startsWith(String(this.#year))) return;
        this.#dayButton(this.#focus).tabIndex = -1;
        this.#focus = day;
        this.#dayButton(day).tabIndex = 0;
        this.#dayButton(day).focus();
    }

    #words() {
        const days = [this.#first, this.#last || this.#first].map(day => day.slice(5));
        const flags = [
            [this.#all, "--all"],
            [this.#endOfFebruary, "--end-of-february"],
        ];
        return ["holidays", "add", ...days, ...flags.filter(([box]) => box.checked).map(([, flag]) => flag)];
    }

    #fault() {
        if (!this.#first) return "Choose the first day.";
        if (this.#last && this.#last < this.#first) return "The last day lies before the first one.";
        const isYear =
            this.#last.slice(0, 4) > this.#first.slice(0, 4) && this.#last.slice(5) >= this.#first.slice(5);
        return isYear ? "Holidays come every year: choose less than a year." : "";
    }

    async #add() {
        const fault = this.#fault();
        if (fault) {
            this.#dialog.refuse(fault);
            return false;
        }
        try {
            const done = await run(this.#words(), { act: true });
            tell(["The holidays are added.", ...done.notes]);
            source.refresh();
            return true;
        } catch (refusal) {
            this.#dialog.refuse(refusal.message);
            return false;
        }
    }
}

/** Opens the calendar at the set's year. */
export function calendarDialog() {
    return new Calendar(source.overview.status.clock.slice(0, 10));
}
