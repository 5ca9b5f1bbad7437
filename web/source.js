// The figures: one document of the daemon's, fetched again when the bus tells that something has
// changed. What is shown is never computed from the signals.

import cockpit from "./cockpit.js";
import { run } from "./tool.js";

const kName = "org.olvara.tv.system.dravel";
const kPath = "/org/olvara/tv/system/dravel";
const kPauseMs = 200;
const kRefreshMs = 10 * 60 * 1000;
const kRetryMs = 3 * 1000;

class Source extends EventTarget {
    /** The last document, null before the first. */
    overview = null;
    /** Why there are no newer figures, in words; empty while they are live. */
    lost = "";

    #down = ""; // what the bus tells, of which a document that is under way knows nothing
    #fetchedAt = 0;
    #fetching = false;
    #wanted = false;
    #administrator = cockpit.permission({ admin: true });

    start() {
        const bus = cockpit.dbus(kName, { bus: "system" });
        bus.addEventListener("owner", (_event, owner) => this.#owned(owner));
        bus.addEventListener("close", () => this.#lose("The connection to this machine is lost."));
        bus.subscribe({ path_namespace: kPath }, () => this.refresh());
        this.#administrator.addEventListener("changed", () => this.refresh());
        document.addEventListener("visibilitychange", () => document.hidden || this.refresh());
        setInterval(() => this.refresh(), kRefreshMs);
        this.refresh();
    }

    /** Fetches the document: at most once in 200 ms, and never twice at a time. */
    async refresh() {
        this.#wanted = true;
        if (this.#fetching) return;
        this.#fetching = true;
        while (this.#wanted) {
            this.#wanted = false;
            await this.#fetch();
            await new Promise(resolve => setTimeout(resolve, kPauseMs));
        }
        this.#fetching = false;
    }

    /** The set's clock now, in seconds; it goes on with the page's stopwatch. Null when unknown. */
    get clock() {
        const then = this.overview?.status.clock_seconds ?? null;
        return then === null ? null : then + this.age;
    }

    /** Seconds since the figures were fetched. */
    get age() {
        return (performance.now() - this.#fetchedAt) / 1000;
    }

    /** Why the user may not do this ("change", "screen", "test", "history"); empty when allowed. */
    reasonNotTo(what) {
        if (this.lost || !this.overview) return this.lost || "The set has not answered yet.";
        const may = this.overview.may[what];
        if (may === true || this.#administrator.allowed) return "";
        return `${may.charAt(0).toUpperCase()}${may.slice(1)}.`;
    }

    #owned(owner) {
        if (!owner) return this.#lose("The timers' daemon, dravel-manager, is not running.");
        this.#down = "";
        this.refresh();
    }

    #lose(why) {
        this.#down = why;
        this.lost = why;
        this.dispatchEvent(new Event("change"));
    }

    async #fetch() {
        const begin = performance.now();
        try {
            this.overview = await run(["overview"]);
            this.#fetchedAt = begin;
            this.lost = this.#down;
        } catch (refusal) {
            this.lost = this.#down || refusal.message;
            if (!this.#down) setTimeout(() => this.refresh(), kRetryMs);
        }
        this.dispatchEvent(new Event("change"));
    }
}

/** The one source of the page. */
export const source = new Source();
