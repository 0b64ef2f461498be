// Drives the browser through chromedriver, whose address is given, over the report in the folder that is given.
import assert from "node:assert/strict";

const [driver, home] = process.argv.slice(2);
const LINES = "100,000 of 100,000 lines";

async function ask(path, body, method = "POST") {
    const answer = await fetch(driver + path, { method, body: body && JSON.stringify(body) });
    const { value } = await answer.json();
    assert.ok(answer.ok, `${path}: ${value?.message}`);
    return value;
}
const { sessionId } = await ask("/session", { capabilities: { alwaysMatch: {
    "goog:chromeOptions": { args: ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
        "--disable-background-networking", "--disable-component-update", "--disable-sync", "--disable-dev-shm-usage",
        "--window-size=1200,800", `--user-data-dir=${home}/profile`] },
    "goog:loggingPrefs": { browser: "ALL", performance: "ALL" },
} } });
const session = (path, body, method) => ask(`/session/${sessionId}${path}`, body, method);
/** Runs a function in the page. */
const page = (work, ...args) => session("/execute/sync", { script: `return (${work})(...arguments)`, args });
/** Waits until a function in the page gives this. */
async function becomes(expected, work, ...args) {
    let last;
    for (const end = Date.now() + 30000; Date.now() < end;) {
        last = await page(work, ...args);
        if (last === expected) return;
        await new Promise(go => setTimeout(go, 20));
    }
    assert.equal(last, expected, String(work));
}
const count = () => document.getElementById("count").textContent;
const counts = number => becomes(`${number} of 100,000 lines`, count);
const keys = text => session("/actions", { actions: [{ type: "key", id: "keys",
    actions: [...text].flatMap(value => [{ type: "keyDown", value }, { type: "keyUp", value }]) }] });
const pointer = (...actions) => session("/actions", { actions: [{ type: "pointer", id: "mouse", actions }] });
const typeInto = (id, value) => page((where, text) => {
    document.getElementById(where).value = text;
    document.getElementById(where).dispatchEvent(new Event(where === "run" ? "change" : "input"));
}, id, value);
const press = (group, word, alone) => page((name, text, altKey) => {
    [...document.getElementById(name).children].find(button => button.textContent.startsWith(text))
        .dispatchEvent(new MouseEvent("click", { altKey }));
}, group, word, alone);
const rowTexts = () => [...document.querySelectorAll(".row span")].map(text => text.textContent);

async function testPage() {
    const began = Date.now();
    await session("/url", { url: `file://${home}/report.html` });
    await becomes(LINES, count);
    assert.ok(Date.now() - began < 30000, "loads in time");
    assert.ok(await page(() => document.querySelectorAll("*").length) < 2000, "few elements");

    // What lines and titles hold stays text.
    assert.equal(await page(() => document.title), "A </title><b>");
    assert.match(await page(() => document.getElementById("about").textContent), /^100,000 lines, made 2.*; some$/);
    const first = await page(rowTexts);
    assert.equal(first[0], "</script><script>document.title='broken'</script><!--");
    assert.equal(first[1], "I/Tag     (    1): <img src=x onerror=alert(1)> \"\\ \u2401 \ufffd \u20ac");
    assert.equal(await page(() => document.querySelectorAll("img, b").length), 0);

    // The whole way down, by scrolling and by keys.
    const end = "I/Audio   (    1): entry 99999";
    await page(() => { document.getElementById("list").scrollTop = 1e9; });
    await becomes(end, () => [...document.querySelectorAll(".row span")].at(-1).textContent);
    await page(() => document.getElementById("list").focus());
    await keys("\uE011");
    await becomes("last_3/2:1", () => document.querySelector(".row.cursor a")?.textContent);
    await keys("e\uE007");
    await becomes(true, () => /priority error.*\n.*entry 101$/.test(document.getElementById("detail").textContent));
    await keys("/");
    assert.equal(await page(() => document.activeElement.id), "text");

    // Each filter, alone.
    const filters = [["run", "3", "60,000"], ["tag", "camera", "19,999"], ["tag", "cam, audio", "89,999"],
        ["text", "entry 500", "99"], ["text", "ENTRY 500", "0"], ["text", "/ENTRY \\d{2}$/i", "81"]];
    for (const [id, value, lines] of filters) {
        await typeInto(id, value);
        await counts(lines);
        await typeInto(id, "");
        await counts("100,000");
    }
    for (const [group, word, alone, lines] of [["sources", "kernel", false, "90,001"], ["priorities", "error", true, "999"]]) {
        await press(group, word, alone);
        await counts(lines);
        await page(() => document.getElementById("all").click());
        await counts("100,000");
    }
    // A stretch of the time line, and back.
    const at = x => ({ type: "pointerMove", x, y: 70 });
    await pointer(at(400), { type: "pointerDown", button: 0 }, at(500), at(600), { type: "pointerUp", button: 0 });
    await becomes(true, () => !document.getElementById("zoomed").hidden);
    const zoomed = Number((await page(count)).replace(/ .*|,/g, ""));
    assert.ok(zoomed > 10000 && zoomed < 30000, `${zoomed} lines in a sixth of the time`);
    // A link finds its line though filters hide it.
    await typeInto("text", "entry 7");
    await becomes(false, () => document.getElementById("count").textContent.startsWith("17,"));
    await page(() => { location.hash = "#3/2/50001"; });
    await becomes("[ 5000.000000] kernel 50000", () => document.querySelector(".row.target span")?.textContent);
    await counts("100,000");

    // Nothing went wrong, nothing was fetched, and nothing else would run.
    const logged = await session("/se/log", { type: "browser" });
    assert.deepEqual(logged, []);
    const events = (await session("/se/log", { type: "performance" })).map(entry => JSON.parse(entry.message).message);
    const asked = events.filter(event => event.method === "Network.requestWillBeSent").map(event => event.params);
    const ours = asked.filter(request => request.documentURL.startsWith("file:")).map(request => request.request.url);
    assert.ok(ours.length > 0, "requests are seen");
    assert.deepEqual(ours.filter(url => !url.startsWith("data:") && !url.startsWith(`file://${home}/report.html`)), []);
    assert.equal(await page(() => {
        document.body.append(Object.assign(document.createElement("script"), { textContent: "window.ran = true" }));
        return window.ran;
    }), null);
}
try {
    await testPage();
} finally {
    await session("", undefined, "DELETE");
}
