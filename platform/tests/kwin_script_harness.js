// Runs the capture agent's KWin script under node against a pretend KWin workspace (KWin 6 names, or
// KWin 5's with "5" as the second argument), then plays: another window is activated, the first is
// minimised, a third opens. Every callDBus is printed as a JSON line for the fake KWin to forward.
const source = require("fs").readFileSync(process.argv[2], "utf8");
const kwin5 = process.argv[3] === "5";
function signal() {
    const handlers = [];
    return {connect: (h) => handlers.push(h), emit: (...a) => handlers.forEach((h) => h(...a))};
}
function window(caption, resourceClass, x, pid) {
    const w = {caption, resourceClass, resourceName: resourceClass.toLowerCase(), pid, normalWindow: true,
               minimized: false, fullScreen: false, keepAbove: false, captionChanged: signal(),
               minimizedChanged: signal(), frameGeometryChanged: signal(), fullScreenChanged: signal()};
    w[kwin5 ? "geometry" : "frameGeometry"] = {x, y: 40, width: 800, height: 600};
    return w;
}
const editor = window("notes.md - Kate", "kate", 0, 101), browser = window("Docs - Firefox", "firefox", 900, 102);
const all = [editor, browser];
const [list, added, removed, activated, active] = kwin5
    ? ["clientList", "clientAdded", "clientRemoved", "clientActivated", "activeClient"]
    : ["windowList", "windowAdded", "windowRemoved", "windowActivated", "activeWindow"];
const ws = global.workspace =
    {stackingOrder: all, [list]: () => all, [added]: signal(), [removed]: signal(), [activated]: signal(), [active]: browser};
global.callDBus = (...args) => console.log(JSON.stringify(args));
eval(source);
ws[active] = editor;
ws[activated].emit(editor);
browser.minimized = true;
browser.minimizedChanged.emit();
const vault = window("Passwords", "KeePassXC", 300, 103);
all.push(vault);
ws[added].emit(vault);
vault.caption = "Passwords.kdbx";
vault.captionChanged.emit();
