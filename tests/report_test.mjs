// SPDX-License-Identifier: Apache-2.0
// Drives the browser through chromedriver, whose address is given, over the report in the folder that is given.
import assert from "node:assert/strict";

const [driver, home] = process.argv.slice(2);

async function ask(path, body, method = "POST") {
    const answer = await fetch(driver + path, { method, body: body && JSON.stringify(body) });
    const { value } = await answer.json();
    assert.ok(answer.ok, `${path}: ${value?.message}`);
    return value;
}
const quiet = ["headless", "no-sandbox", "disable-gpu", "disable-quic", "no-first-run", "disable-background-networking",
    "disable-component-update", "disable-sync", "disable-dev-shm-usage", "window-size=1200,800", `user-data-dir=${home}/profile`];
const { sessionId } = await ask("/session", { capabilities: { alwaysMatch: {
    "goog:chromeOptions": { args: quiet.map(option => "--" + option) },
    "goog:loggingPrefs": { browser: "ALL", performance: "ALL" } } } });
const session = (path, body, method) => ask(`/session/${sessionId}${path}`, body, method);
/** Runs a function in the page. */
const page = (work, ...args) => session("/execute/sync", { script: `return (${work})(...arguments)`, args });
/** Waits until a function in the page gives this. */
async function becomes(expected, work, ...args) {
    let last;
    for (const end = Date.now() + 30000; Date.now() < end; await new Promise(go => setTimeout(go, 20)))
        if ((last = await page(work, ...args)) === expected) return;
    assert.equal(last, expected, String(work));
}
const count = () => document.getElementById("count").textContent;
const counts = number => becomes(`${number} of 100,000 lines`, count);
const act = (type, actions) => session("/actions", { actions: [{ type, id: type, actions }] });
const keys = text => act("key", [...text].flatMap(value => [{ type: "keyDown", value }, { type: "keyUp", value }]));
const typeInto = (id, value) => page((where, text) => {
    document.getElementById(where).value = text;
    document.getElementById(where).dispatchEvent(new Event(where === "run" ? "change" : "input"));
}, id, value);
const press = (group, word, altKey) => page((name, text, alt) => {
    [...document.getElementById(name).children].find(button => button.textContent.startsWith(text))
        .dispatchEvent(new MouseEvent("click", { altKey: alt }));
}, group, word, altKey);

async function testPage() {
    const began = Date.now();
    await session("/url", { url: `file://${home}/report.html` });
    await counts("100,000");
    assert.ok(Date.now() - began < 30000, "loads in time");
    assert.ok(await page(() => document.querySelectorAll("*").length) < 2000, "few elements");

    // What lines and titles hold stays text.
    assert.equal(await page(() => document.title), `${home}/A <b> store`);
    assert.equal(await page(() => document.querySelectorAll("img, b").length), 0);
    assert.deepEqual(await page(() => [...document.querySelectorAll(".row span")].slice(0, 2).map(row => row.textContent)),
        ["</script><script>document.title='broken'</script><!--",
            "I/Tag     (    1): <img src=x onerror=alert(1)> \"\\ \u2401 \ufffd \u20ac"]);

    // The whole way down by scrolling, then by keys back, to the first error, its details, and the search.
    await page(() => { document.getElementById("list").scrollTop = 1e9; });
    await becomes("I/Audio   (    1): entry 99999", () => [...document.querySelectorAll(".row span")].at(-1).textContent);
    await page(() => document.getElementById("list").focus());
    await keys("\uE011e\uE007/");
    assert.match(await page(() => document.getElementById("detail").textContent), /last_3, section 2, line 102, run ended: no_end .*priority error.*\n.*entry 101$/);
    assert.equal(await page(() => document.activeElement.id), "text");

    for (const [id, value, lines] of [["run", "3", "60,000"], ["tag", "camera", "19,999"], ["tag", "cam, audio", "89,999"],
        ["text", "entry 500", "99"], ["text", "ENTRY 500", "0"], ["text", "/ENTRY \\d{2}$/i", "81"]]) {
        await typeInto(id, value);
        await counts(lines);
        await typeInto(id, "");
        await counts("100,000");
    }
    for (const [group, word, alone, lines] of [["sources", "kernel", false, "90,001"], ["priorities", "error", true, "999"]]) {
        await press(group, word, alone);
        await counts(lines);
        await page(() => document.getElementById("all").click());
    }
    await counts("100,000");
    // A stretch of the time line; a link finds its line though filters hide it.
    const [from, to] = [400, 600].map(x => ({ type: "pointerMove", x, y: 70 }));
    await act("pointer", [from, { type: "pointerDown", button: 0 }, to, { type: "pointerUp", button: 0 }]);
    await becomes(true, () => !document.getElementById("zoomed").hidden);
    const zoomed = Number((await page(count)).replace(/ .*|,/g, ""));
    assert.ok(zoomed > 10000 && zoomed < 30000, `${zoomed} lines in a sixth of the time`);
    await page(() => { location.hash = "#3/2/1001"; });
    await becomes("[ 100.000000] kernel 1000", () => document.querySelector(".row.target span")?.textContent);
    await counts("100,000");

    // Nothing went wrong, nothing was fetched, and nothing else would run.
    assert.deepEqual(await session("/se/log", { type: "browser" }), []);
    const asked = (await session("/se/log", { type: "performance" })).map(entry => JSON.parse(entry.message).message)
        .filter(event => event.method === "Network.requestWillBeSent" && event.params.documentURL.startsWith("file:"))
        .map(event => event.params.request.url.replace(/#.*/, ""));
    assert.deepEqual(asked.filter(url => !url.startsWith("data:")), [`file://${home}/report.html`]);
    assert.equal(await page(() => document.body.append(Object.assign(document.createElement("script"),
        { textContent: "window.ran = true" })) ?? window.ran), null);
}
await testPage().finally(() => session("", undefined, "DELETE"));
