// What has been done, at the foot of the page until the next act or until it is closed.

import { button, element } from "./dom.js";

const place = document.getElementById("news");

/** Tells what was done: lines of text, and a button that takes it back. */
export function tell(lines, undo = null) {
    const close = () => place.replaceChildren();
    place.replaceChildren(
        element(
            "div",
            { class: "news" },
            element(
                "div",
                {},
                lines.map(line => element("p", {}, line)),
            ),
            undo &&
                button(
                    "Undo",
                    () => {
                        close();
                        undo();
                    },
                    { key: "undo", kind: "link" },
                ),
            button("×", close, { key: "close-news", kind: "plain", label: "Close this message" }),
        ),
    );
}
