// Light or dark, as Cockpit's own pages: what its menu has chosen, else what the browser prefers.

const kKey = "shell:style";

/** Follows the choice from now on. */
export function followTheme() {
    const preferred = window.matchMedia("(prefers-color-scheme: dark)");
    const follow = chosen => {
        const style = chosen ?? localStorage.getItem(kKey) ?? "auto";
        const dark = style === "dark" || (style === "auto" && preferred.matches);
        document.documentElement.classList.toggle("pf-theme-dark", dark);
    };
    window.addEventListener("storage", event => event.key === kKey && follow());
    window.addEventListener("cockpit-style", event => follow(event.detail?.style));
    preferred.addEventListener("change", () => follow());
    follow();
}
