// Adding and changing a timer. What will happen is asked of the tool while the form is filled in.

import { button, element } from "./dom.js";
import { Dialog } from "./dialog.js";
import { tell } from "./news.js";
import { source } from "./source.js";
import { run } from "./tool.js";
import { sentence, timeOf } from "./words.js";

const kDays = [
    ["Mon", "Monday"],
    ["Tue", "Tuesday"],
    ["Wed", "Wednesday"],
    ["Thu", "Thursday"],
    ["Fri", "Friday"],
    ["Sat", "Saturday"],
    ["Sun", "Sunday"],
];
const kSets = [
    ["Daily", 7],
    ["Weekdays", 5],
    ["Once", 0],
];
const kClocks = [
    ["broadcast", "the set's clock"],
    ["internet", "UTC"],
    ["rtc", "the machine's own clock"],
];
const kPreviewMs = 250;

// --- the form ---

function option([value, text], chosen) {
    return element("option", { value, selected: String(value) === String(chosen) }, text);
}

/** A labelled field, with the place of its refusal. */
function field(name, label, input, hint = null) {
    input.id = `field-${name}`;
    input.name = name;
    input.setAttribute("aria-describedby", `refusal-${name}`);
    return element(
        "div",
        { class: `field ${name}` },
        element("label", { for: input.id }, label),
        input,
        hint && element("small", {}, hint),
        element("p", { class: "refusal", id: `refusal-${name}` }),
    );
}

function typeField(timer) {
    const types = source.overview.types.map(({ number, word, meaning }) => [
        number,
        `${sentence(meaning)} (${word})`,
    ]);
    if (timer && !types.some(([number]) => number === timer.type))
        types.push([timer.type, `Type ${timer.type_name}`]);
    return field(
        "type",
        "What it does",
        element(
            "select",
            {},
            types.map(type => option(type, timer?.type ?? 0)),
        ),
    );
}

function daysField(timer, changed) {
    const boxes = kDays.map(([short, long]) =>
        element(
            "label",
            { class: "day" },
            element("input", {
                type: "checkbox",
                name: "on",
                value: short,
                "aria-label": long,
                checked: timer?.days.includes(short),
            }),
            element("span", { "aria-hidden": "true" }, short),
        ),
    );
    const inputs = boxes.map(box => box.firstChild);
    const choose = count => {
        inputs.forEach((input, index) => {
            input.checked = index < count;
        });
        changed();
    };
    return element(
        "fieldset",
        { class: "field on", "aria-describedby": "refusal-on" },
        element("legend", {}, "On these days, or once"),
        element("div", { class: "days-choice" }, boxes),
        element(
            "div",
            { class: "sets" },
            kSets.map(([text, count]) => button(text, () => choose(count), { kind: "link" })),
        ),
        element("p", { class: "refusal", id: "refusal-on" }),
    );
}

function timeFields(timer) {
    const time = timer ? timeOf(timer.set_for) : "";
    const step = time.length > 5 ? 1 : null;
    const date = timer && timer.days.length === 0 ? timer.set_for.slice(0, 10) : "";
    return element(
        "div",
        { class: "pair" },
        field(
            "at",
            "Time",
            element("input", { type: "time", value: time, step, required: true, autofocus: true }),
        ),
        field(
            "date",
            "Date",
            element("input", { type: "date", value: date }),
            "Empty: the next time that the clock shows it",
        ),
    );
}

function moreFields(timer) {
    return element(
        "details",
        { open: Boolean(timer && (timer.priority || timer.clock !== "broadcast")) },
        element("summary", {}, "More"),
        element(
            "div",
            { class: "pair" },
            field(
                "clock",
                "The time is on",
                element(
                    "select",
                    {},
                    kClocks.map(clock => option(clock, timer?.clock ?? "broadcast")),
                ),
            ),
            field(
                "priority",
                "Priority",
                element("input", { type: "number", value: timer?.priority ?? 0 }),
                "Of on-timers at one time the set wakes for the highest",
            ),
        ),
    );
}

function holidaysField(timer) {
    return element(
        "label",
        { class: "check" },
        element("input", { type: "checkbox", name: "holidays", checked: timer?.holidays === "skip" }),
        "Rests on holidays",
    );
}

/** Where the list is full, the user decides whether another timer goes. */
function forceField(timer) {
    if (timer || !source.overview.status.full) return null;
    return element(
        "label",
        { class: "check" },
        element("input", { type: "checkbox", name: "force" }),
        "The list is full: let the timer with the smallest number go",
    );
}

// --- what it says, as dravelctl reads it ---

function settingsOf(form) {
    const days = [...form.querySelectorAll("[name=on]:checked")].map(box => box.value);
    const date = days.length ? "" : form.elements.date.value;
    return {
        at: [date, form.elements.at.value].filter(Boolean).join(" "),
        on: days.join(",") || "once",
        type: form.elements.type.value,
        holidays: form.elements.holidays.checked ? "skip" : "ignore",
        clock: form.elements.clock.value,
        priority: form.elements.priority.value,
    };
}

function wordsOf(form, timer, before) {
    const settings = settingsOf(form);
    const changed = Object.keys(settings).filter(name => !timer || settings[name] !== before[name]);
    const words = changed.map(name => `--${name}=${settings[name]}`);
    if (form.elements.force?.checked) words.push("--force");
    return timer ? ["change", ...words, String(timer.id)] : ["add", ...words];
}

// --- what the tool says to it ---

function showRefusals(form, refusal) {
    for (const place of form.querySelectorAll(".field .refusal")) place.textContent = "";
    for (const input of form.querySelectorAll("[aria-invalid]")) input.removeAttribute("aria-invalid");
    const name = refusal?.option.replace(/^--/, "");
    const place = name && form.querySelector(`#refusal-${CSS.escape(name)}`);
    if (!place) return refusal?.message ?? "";
    place.textContent = refusal.message;
    form.querySelector(`#field-${CSS.escape(name)}`)?.setAttribute("aria-invalid", "true");
    place.closest("details")?.setAttribute("open", "");
    return "";
}

function showPreview(place, done) {
    const next = done.armed ? `Fires next: ${done.next_text}.` : `${sentence(done.next_text)}.`;
    const lines = [next, ...done.notes];
    place.replaceChildren(...lines.map(line => element("p", {}, line)));
}

function report(done, timer) {
    const title = sentence(done.title);
    const first = timer ? `${title} takes the place of timer ${timer.id}.` : `${title} is added.`;
    tell([`${first} It ${done.armed ? "fires next" : "is"} ${done.next_text}.`, ...done.notes]);
}

// --- the dialog ---

class TimerForm {
    #timer;
    #preview = element("div", { class: "preview", role: "status" });
    #dialog;
    #form;
    #before;
    #pending = null;
    #asked = 0;

    constructor(timer) {
        this.#timer = timer;
        const body = this.#body();
        this.#dialog = new Dialog(timer ? `Change ${timer.title}` : "Add a timer", body, {
            action: { text: timer ? "Change" : "Add", what: "change", run: () => this.#submit() },
            leave: "Cancel",
        });
        this.#form = body.closest("form");
        this.#before = settingsOf(this.#form);
        this.#changed();
    }

    #body() {
        const changed = () => this.#changed();
        return element(
            "div",
            { input: changed },
            typeField(this.#timer),
            timeFields(this.#timer),
            daysField(this.#timer, changed),
            holidaysField(this.#timer),
            moreFields(this.#timer),
            forceField(this.#timer),
            this.#preview,
        );
    }

    #words() {
        return wordsOf(this.#form, this.#timer, this.#before);
    }

    #changed() {
        this.#form.elements.date.closest(".field").hidden = settingsOf(this.#form).on !== "once";
        clearTimeout(this.#pending);
        this.#pending = setTimeout(() => this.#foresee(), kPreviewMs);
    }

    /** Shows what would happen; an answer to older words is left aside. */
    async #foresee() {
        const words = this.#words();
        const number = ++this.#asked;
        if (!this.#form.elements.at.value || (this.#timer && words.length === 2)) return this.#refused(null);
        try {
            const done = await run([...words, "--check"]);
            if (number !== this.#asked) return;
            this.#refused(null);
            showPreview(this.#preview, done);
        } catch (refusal) {
            if (number === this.#asked) this.#refused(refusal);
        }
    }

    #refused(refusal) {
        this.#preview.replaceChildren();
        this.#dialog.refuse(showRefusals(this.#form, refusal));
    }

    #refuseSubmit(refusal) {
        this.#refused(refusal);
        this.#form.querySelector("[aria-invalid]")?.focus();
        return false;
    }

    async #submit() {
        clearTimeout(this.#pending); // its answer would take the place of a refusal
        ++this.#asked;
        if (!this.#form.elements.at.value) {
            return this.#refuseSubmit({ option: "--at", message: "Choose a time." });
        }
        try {
            report(await run(this.#words(), { act: true }), this.#timer);
            source.refresh();
            return true;
        } catch (refusal) {
            return this.#refuseSubmit(refusal);
        }
    }
}

/** Opens the form: for a new timer, or to change this one. */
export function timerDialog(timer = null) {
    return new TimerForm(timer);
}
