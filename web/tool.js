// dravelctl, which knows the rules: each figure is from it, each act goes through it.

import cockpit from "./cockpit.js";

const kTool = "/usr/bin/dravelctl";
const kAdvice = {
    "not-found": "dravelctl is missing on this machine: install the package dravel-manager.",
    "access-denied": "This machine does not let you run dravelctl.",
    disconnected: "The connection to this machine is lost.",
};

/** What dravelctl refuses, in its words. */
export class Refusal extends Error {
    constructor({ kind, what, advice = "", option = "" }) {
        super(what.charAt(0).toUpperCase() + what.slice(1) + (advice ? `: ${advice}` : "") + ".");
        this.kind = kind;
        this.option = option;
    }
}

function parsed(text) {
    try {
        return JSON.parse(text);
    } catch {
        return null;
    }
}

function refusalOf(problem, output) {
    const error = parsed(output)?.error;
    const what = kAdvice[problem.problem] ?? problem.message ?? "dravelctl has failed";
    return new Refusal(error ?? { kind: "failed", what: what.replace(/\.$/, "") });
}

/**
 * Runs dravelctl and returns what it prints. `act`: as root where the user has administrative
 * access; `input`: its standard input. Throws a Refusal.
 */
export function text(words, { act = false, input = "" } = {}) {
    const process = cockpit.spawn([kTool, "--json", ...words], {
        environ: ["TZ=:/etc/localtime"],
        err: "message",
        superuser: act ? "try" : null,
    });
    process.input(input);
    return new Promise((resolve, reject) => {
        // A file of which a part is refused is answered with a document all the same.
        process.then(resolve, (problem, output) => {
            const answered = parsed(output);
            return answered && !answered.error ? resolve(output) : reject(refusalOf(problem, output));
        });
    });
}

/** The same, as a document. */
export async function run(words, options) {
    return JSON.parse(await text(words, options));
}
