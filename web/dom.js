// Elements of the page. Text from outside only ever becomes a text node.

const kSvg = "http://www.w3.org/2000/svg";

function furnish(node, attributes, children) {
    for (const [name, value] of Object.entries(attributes)) {
        if (typeof value === "function") node.addEventListener(name, value);
        else if (value !== false && value !== null && value !== undefined)
            node.setAttribute(name, value === true ? "" : value);
    }
    node.append(...children.flat(Infinity).filter(child => child || child === 0));
    return node;
}

/**
 * Makes an element. An attribute whose value is a function listens to the event of that name; one
 * that is false or null is left out, and so is a child.
 */
export function element(name, attributes = {}, ...children) {
    return furnish(document.createElement(name), attributes, children);
}

/** The same for what is drawn. */
export function drawn(name, attributes = {}, ...children) {
    return furnish(document.createElementNS(kSvg, name), attributes, children);
}

/**
 * Makes a button. `key` is its name over all renderings; `reason` says why it cannot be used.
 */
export function button(
    text,
    onClick,
    { key = null, reason = "", kind = "secondary", label = null, type = "button" } = {},
) {
    return element(
        "button",
        {
            type,
            class: kind,
            "data-key": key,
            "aria-label": label,
            click: onClick,
            disabled: reason !== "",
            title: reason || null,
        },
        text,
    );
}

/** The element that has the key now, after any number of renderings. */
export function keyed(key) {
    return [...document.querySelectorAll("[data-key]")].find(node => node.dataset.key === key);
}

/**
 * Replaces what is in the container, unless it is the same: a press that is under way is not lost.
 * What had the focus in it has it again.
 */
export function render(container, ...children) {
    const fresh = children.flat(Infinity).filter(child => child);
    const old = container.childNodes;
    container.hidden = false;
    if (old.length === fresh.length && fresh.every((node, index) => node.isEqualNode(old[index]))) return;
    const focus = container.contains(document.activeElement) ? document.activeElement.dataset.key : null;
    container.replaceChildren(...fresh);
    if (focus) keyed(focus)?.focus();
}
