// Timers and holidays as a file of this browser's machine.

import { act } from "./acts.js";
import { element } from "./dom.js";
import { tell } from "./news.js";
import { text } from "./tool.js";

/** Hands the file to the browser, as dravelctl writes it. */
export async function exportFile() {
    try {
        const url = URL.createObjectURL(new Blob([await text(["export"])], { type: "application/json" }));
        element("a", { href: url, download: "tv-timers.json" }).click();
        URL.revokeObjectURL(url);
    } catch (refusal) {
        tell([refusal.message]);
    }
}

async function importFile(file) {
    const done = await act("file", ["import", "-"], await file.text());
    if (done)
        tell([
            `${file.name}: ${done.added} added, ${done.refused.length} refused.`,
            ...done.refused.map(({ what, why }) => `${what}: ${why}.`),
            ...done.notes,
        ]);
}

/** Asks for a file and adds what it holds. */
export function chooseFile() {
    const input = element("input", {
        type: "file",
        accept: ".json,application/json",
        hidden: true,
        "aria-label": "File to import",
    });
    input.addEventListener("change", () => {
        input.remove();
        importFile(input.files[0]);
    });
    input.addEventListener("cancel", () => input.remove());
    document.body.append(input);
    input.click();
}
