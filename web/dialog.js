// Dialogs: the browser's own, which keep the focus inside, close at Escape and hide the rest.

import { button, element, keyed } from "./dom.js";
import { source } from "./source.js";

/** A dialog that is open; it is gone from the page once it is closed. */
export class Dialog {
    #opener = document.activeElement?.dataset.key;
    #refusal = element("p", { class: "refusal", role: "alert", hidden: true });
    #barred = element("p", { class: "refusal", hidden: true });
    #dialog = element("dialog", { "aria-labelledby": "dialog-title" });
    #follow = () => this.#checkRights();
    #action;
    #button;
    #running = false;

    /**
     * `content`: elements. `action`: {text, what, run}: the button that does what the dialog is
     * for; it needs the right `what`, and `run` answers true when the dialog may close. `leave`:
     * what the other button says. `wide`: uses the room of a wide window.
     */
    constructor(title, content, { action = null, leave = "Close", wide = false } = {}) {
        this.#action = action;
        this.#dialog.classList.toggle("wide", wide);
        this.#button =
            action && button(action.text, () => {}, { type: "submit", kind: action.kind ?? "primary" });
        this.#dialog.append(
            element(
                "form",
                { novalidate: true, submit: event => this.#submit(event) },
                element("h2", { id: "dialog-title" }, title),
                element("div", { class: "body" }, content),
                this.#refusal,
                this.#barred,
                element(
                    "div",
                    { class: "buttons" },
                    this.#button,
                    button(leave, () => this.close()),
                ),
            ),
        );
        this.#dialog.addEventListener("close", () => this.#closed());
        document.body.append(this.#dialog);
        this.#dialog.showModal();
        if (action) {
            source.addEventListener("change", this.#follow);
            this.#checkRights();
        }
    }

    close() {
        this.#dialog.close();
    }

    /** Shows why something was refused; an empty text takes it away. */
    refuse(text) {
        this.#refusal.textContent = text;
        this.#refusal.hidden = !text;
    }

    async #submit(event) {
        event.preventDefault();
        if (!this.#action || this.#button.disabled) return;
        this.#running = true;
        this.refuse("");
        this.#checkRights();
        const done = await this.#action.run();
        this.#running = false;
        this.#checkRights();
        if (done) this.close();
    }

    #checkRights() {
        const reason = source.reasonNotTo(this.#action.what);
        this.#barred.textContent = reason;
        this.#barred.hidden = !reason;
        this.#button.disabled = this.#running || reason !== "";
    }

    #closed() {
        source.removeEventListener("change", this.#follow);
        this.#dialog.remove();
        keyed(this.#opener)?.focus();
    }
}
