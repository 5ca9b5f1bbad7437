// Times and timers in words. A time is taken from the tool's text as it stands: it is the set's, in
// the set's zone, whatever this browser's clock and zone are.

const kDays = ["Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"];

const kCauses = {
    timer: "for a timer",
    hop: "on the way to a later on-time",
    test: "for a test",
    foreign: "for another program",
    user: "by its user",
};

/** Where Cockpit has the way to an administrator's rights, and what it calls it. */
export const kAdministrator =
    "As an administrator press “Limited access” at the top of Cockpit, or “Administrative access” in its menu “Session”.";

export const kMonths = [
    "January",
    "February",
    "March",
    "April",
    "May",
    "June",
    "July",
    "August",
    "September",
    "October",
    "November",
    "December",
];

/** "07:00", with its seconds where it has some. */
export function timeOf(iso) {
    return iso.slice(17, 19) === "00" ? iso.slice(11, 16) : iso.slice(11, 19);
}

/** "Thu 26 Nov" */
export function dayOf(iso) {
    const [year, month, day] = iso.slice(0, 10).split("-").map(Number);
    const weekday = new Date(Date.UTC(year, month - 1, day)).getUTCDay();
    return `${kDays[weekday]} ${day} ${kMonths[month - 1].slice(0, 3)}`;
}

/** "Thu 26 Nov 07:00" */
export function at(iso) {
    return `${dayOf(iso)} ${timeOf(iso)}`;
}

/** What an alarm is for, and what woke the machine. */
export function causeOf(cause) {
    return kCauses[cause] ?? `by ${cause}`;
}

function parts(seconds) {
    const days = Math.floor(seconds / 86400);
    const hours = Math.floor(seconds / 3600) % 24;
    const minutes = Math.floor(seconds / 60) % 60;
    if (days > 0)
        return [
            [days, days === 1 ? " day" : " days"],
            [hours, " h"],
        ];
    if (hours > 0)
        return [
            [hours, " h"],
            [minutes, " min"],
        ];
    return [
        [minutes, " min"],
        [seconds % 60, " s"],
    ];
}

/** "4 h 43 min": the two largest units. */
export function spanOf(seconds) {
    const whole = Math.max(0, Math.floor(seconds));
    const shown = parts(whole).filter(([count]) => count > 0);
    return shown.map(([count, unit]) => count + unit).join(" ") || "0 s";
}

/** "Turns the set on" */
export function sentence(text) {
    return text.charAt(0).toUpperCase() + text.slice(1);
}

/** What a timer of this type does. */
export function meaningOf(timer, types) {
    return sentence(types.find(type => type.number === timer.type)?.meaning ?? `type ${timer.type_name}`);
}
