// No web page the station operator opens can command the aircraft or read
// the gateway's answers. Headless Chromium loads a hostile page
// (hostile-page.html) from origins other than the host's own, served by this
// test on loopback, and the page tries what pages can: auto-submitted forms,
// fetch in its modes, images, EventSource, a sandboxed frame, framing the
// console, and DNS rebinding. The stack is real (mosquitto, pilot-sim,
// velmora-host with the plug-in) and runs without a token, the default.
//
// For every attempt: the simulator's count of forwarded requests must not
// move (it rises with each request the plug-in passes on, which the first
// test proves), the page must read nothing but a refusal, and whatever answer
// reached the browser from the host must be a refusal.
//
//   node hostile-page.test.mjs
//
// Environment: see session.mjs. Foreign host names resolve to 127.0.0.1
// inside Chromium only (--host-resolver-rules); no other traffic leaves
// loopback.

import assert from "node:assert/strict";
import { readFileSync } from "node:fs";
import { createServer } from "node:http";
import { test } from "node:test";

import { browser, page, stack, useStackAndBrowser } from "./session.mjs";

const attackBound = 5000;
// An open stream that stays silent this long has shown nothing to the page.
const streamBound = 3000;
const pageBound = 10000;
const foreignSite = "evil-attacker.test";
const rebindName = "evil-rebind.test";
const hostilePage = readFileSync(new URL("./hostile-page.html", import.meta.url));

let attacker;
/** Answers the browser received from the host during the current attempt. */
let hostAnswers = [];
/** "name:port" of the host as the pages address it. */
const hostOrigins = new Set();

/** Serves the hostile page on a loopback port; resolves to the server. */
function servePage(port = 0) {
  const server = createServer((request, response) => {
    response.writeHead(200, { "Content-Type": "text/html; charset=utf-8", "Cache-Control": "no-store" });
    response.end(hostilePage);
  });
  return new Promise((resolve, reject) => {
    server.once("error", reject);
    server.listen(port, "127.0.0.1", () => resolve(server));
  });
}

function closeServer(server) {
  server.closeAllConnections();
  return new Promise((resolve) => server.close(() => resolve()));
}

const portOf = (server) => server.address().port;

// The hostile page runs into refusals on purpose: its console is not checked.
const withDiagnostics = useStackAndBrowser({
  browserArgs: [`--host-resolver-rules=MAP ${foreignSite} 127.0.0.1, MAP ${rebindName} 127.0.0.1`],
  checkPolicy: false,
  started: async () => {
    hostOrigins.add(`127.0.0.1:${stack.httpPort}`);
    attacker = await servePage();
    await browser.hearAnswers(({ method, url, status }) => {
      const { host, pathname } = new URL(url);
      if (hostOrigins.has(host)) hostAnswers.push(`${method} ${pathname}: ${status}`);
    });
  },
  stopping: async () => {
    if (attacker?.listening) await closeServer(attacker);
  },
});

async function openHostilePage(origin) {
  await page.goto(`${origin}/`, { timeout: pageBound });
  hostAnswers = [];
}

/**
 * Runs one attack of the page against `url` and checks that nothing got
 * through: no forwarded request, nothing read and, unless `refused` is false,
 * no answer but a refusal.
 */
async function attemptFails(kind, url, { bound = attackBound, refused = true } = {}) {
  const before = await stack.forwardedRequests();
  const result = await page.evaluate(([k, u, ms]) => window.attack(k, u, ms), [kind, url, bound]);
  const forwarded = (await stack.forwardedRequests()) - before;
  const what = `${kind} of ${url} from ${page.url()}: ended ${result.ended}; host answers [${hostAnswers.join(", ")}]`;
  assert.equal(forwarded, 0, `${what}: the simulator received ${forwarded} forwarded request(s)`);
  // A page the browser takes for the host's own may read a refusal, never an answer.
  if (!(result.status >= 400 && result.status < 500))
    assert.equal(result.read, "", `${what}: the page read the answer`);
  if (refused) for (const answer of hostAnswers) assert.match(answer, /: 4\d\d$/, `${what}: the host served it`);
  return result;
}

test("a request without Origin, as curl or an app sends it, is counted; the browser's answers are heard", () =>
  withDiagnostics(async () => {
    const before = await stack.forwardedRequests();
    const response = await fetch(`${stack.base}/index/api/pilot/getConfig`, {
      method: "POST",
      body: '{"type":"request","from":"test","message":{}}',
      signal: AbortSignal.timeout(attackBound),
    });
    assert.equal(response.status, 200);
    assert.equal(JSON.parse(await response.text()).message.code, 200);
    assert.equal(await stack.forwardedRequests(), before + 1);

    // The browser's answers are heard: the checks below rely on it.
    hostAnswers = [];
    await page.goto(`${stack.base}/host/health`, { timeout: pageBound });
    assert.ok(hostAnswers.includes("GET /host/health: 200"), `heard [${hostAnswers.join(", ")}]`);
  }));

const commandPath = "/index/api/pilot/returnHome";
const attacks = [
  ["form POST", commandPath],
  ["no-cors fetch POST", "/index/api/pilot/takeoffAndLand"],
  ["cors fetch POST", commandPath],
  ["JSON fetch POST", commandPath],
  ["img GET", commandPath],
  ["sandboxed POST", commandPath],
  ["EventSource", "/index/api/pilot/pushTelemetry"],
];

// The same site on another port (a local dev server, another tool's UI) and
// a foreign site (any page from the internet). One test per attempt, so that
// a report names each way that got through.
for (const [name, host] of [
  ["another port of the same host", "127.0.0.1"],
  ["a foreign site", foreignSite],
]) {
  for (const [kind, path] of attacks) {
    test(`${kind} from a page on ${name} neither commands nor reads`, () =>
      withDiagnostics(async () => {
        await openHostilePage(`http://${host}:${portOf(attacker)}`);
        await attemptFails(kind, `${stack.base}${path}`, { bound: kind === "EventSource" ? streamBound : attackBound });
      }));
  }
}

// Framed, the console could be overlaid and its buttons clicked by the
// operator unawares. Whether the host refuses the page or the browser refuses
// to show it, no frame may hold the console.
test("a foreign page cannot show the console in a frame", () =>
  withDiagnostics(async () => {
    await openHostilePage(`http://${foreignSite}:${portOf(attacker)}`);
    await attemptFails("frame", `${stack.base}/host/console`, { refused: false });
    for (const frame of page.frames()) {
      const shown = await frame.locator("#vehicle-state").count();
      assert.equal(shown, 0, `the console showed in a frame at ${frame.url()}`);
    }
  }));

// DNS rebinding: the page comes from a name that later resolves to the host,
// so its requests are same-origin to the browser and it could read every
// answer. Emulated by moving the host onto the port the page came from; only
// the Host header ("evil-rebind.test:<port>") can tell the host.
test("a page whose host name now resolves to the host neither commands nor reads", () =>
  withDiagnostics(async () => {
    await stack.stopHost();
    let port;
    // The port is free between the page server closing and the host binding
    // it, so something else may take it: a few tries.
    for (let attempt = 1; ; attempt++) {
      const server = await servePage();
      port = portOf(server);
      await page.goto(`http://${rebindName}:${port}/`, { timeout: pageBound });
      await closeServer(server);
      try {
        await stack.startHost({ port });
        break;
      } catch (error) {
        await stack.host.stop("SIGKILL");
        if (attempt === 3) throw error;
      }
    }
    const sameOrigin = `http://${rebindName}:${port}`;
    hostOrigins.add(`${rebindName}:${port}`);
    hostAnswers = [];

    await attemptFails("cors fetch POST", `${sameOrigin}${commandPath}`);
    await attemptFails("fetch GET", `${sameOrigin}/host/health`);
    await attemptFails("EventSource", `${sameOrigin}/index/api/pilot/pushTelemetry`, { bound: streamBound });
  }));
