// The station console in a real browser (Debian's headless Chromium driven by
// playwright-core) against the real stack: mosquitto, pilot-sim and
// velmora-host with the plug-in.
//
//   node --test console.test.mjs
//
// Environment: VELMORA_HOST_BIN, VELMORA_PILOT_SIM, VELMORA_PILOT_PLUGIN (the
// built programs), VELMORA_ARTIFACTS (where console.png goes), and optionally
// VELMORA_CHROMIUM (default /usr/bin/chromium). Missing pieces fail the test
// with the reason; nothing is skipped.

import assert from "node:assert/strict";
import { mkdirSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { after, before, test } from "node:test";

import { Browser } from "./browser.mjs";
import { GatewayStack, stationSn } from "./stack.mjs";

const artifacts = process.env.VELMORA_ARTIFACTS || tmpdir();
// Generous for a loaded two-core machine; the waits end as soon as the page shows it.
const showBound = 15000;
const token = "console-test-token";

let stack;
let browser;
let page;

const state = (id) => page.locator(`#${id}`).getAttribute("data-state");
const waitState = (id, wanted, bound = showBound) =>
  page.waitForSelector(`#${id}[data-state="${wanted}"]`, { timeout: bound });
const waitStateNot = (id, unwanted, bound = showBound) =>
  page.waitForSelector(`#${id}:not([data-state="${unwanted}"])`, { timeout: bound });
const cellText = (key) => page.locator(`#telemetry td[data-key="${key}"]`).textContent();

function takeErrors() {
  return browser.takeErrors();
}

before(async () => {
  stack = new GatewayStack({
    hostBin: process.env.VELMORA_HOST_BIN,
    simBin: process.env.VELMORA_PILOT_SIM,
    plugin: process.env.VELMORA_PILOT_PLUGIN,
  });
  await stack.start();
  browser = await Browser.launch();
  page = browser.page;
});

after(async () => {
  await browser?.close();
  await stack?.stop();
});

// The console runs under a policy that allows nothing from elsewhere and no
// framing; the page must work within it, so a refused load or script fails
// every test (withDiagnostics checks after each).
function assertServedUnderPolicy(response) {
  assert.ok(response, "the console page was not loaded");
  const headers = response.headers();
  const policy = headers["content-security-policy"] ?? "";
  const given = `the console is served with Content-Security-Policy "${policy}"`;
  assert.match(policy, /(^|;)\s*default-src 'self'\s*(;|$)/, given);
  assert.match(policy, /(^|;)\s*frame-ancestors 'none'\s*(;|$)/, given);
  assert.equal(headers["referrer-policy"], "no-referrer", "the console's Referrer-Policy");
}

// Any failure carries what the processes said.
async function withDiagnostics(body) {
  try {
    await body();
    assert.deepEqual(browser.violations.splice(0), [], "the page broke its own content security policy");
  } catch (error) {
    error.message += `\n${stack?.diagnostics() ?? ""}`;
    throw error;
  }
}

test("the page loads without console errors and shows the vehicle connected", () =>
  withDiagnostics(async () => {
    assertServedUnderPolicy(await page.goto(`${stack.base}/host/console`));
    await waitState("vehicle-state", "connected");
    await waitState("service-link", "up");
    await waitState("mqtt-link", "connected");
    assert.equal(await page.locator("#token-dialog").getAttribute("open"), null, "no token is asked for");
    assert.deepEqual(takeErrors(), []);
  }));

test("the telemetry numbers change within two seconds", () =>
  withDiagnostics(async () => {
    await page.waitForSelector('#telemetry td[data-key="seq"]', { timeout: showBound });
    // The table is read before the sequence cell: should a sample land in
    // between, the awaited change is then newer than the table read first.
    const firstTable = await page.locator("#telemetry").textContent();
    const first = await cellText("seq");
    await page.waitForFunction(
      (seen) => document.querySelector('#telemetry td[data-key="seq"]').textContent !== seen,
      first,
      { timeout: 2000 },
    );
    assert.notEqual(await page.locator("#telemetry").textContent(), firstTable);
    assert.match(await cellText("alt"), /^-?\d+(\.\d+)?$/);
    assert.deepEqual(takeErrors(), []);
  }));

test("a getConfig request from the form shows the simulator's answer", () =>
  withDiagnostics(async () => {
    await page.waitForFunction(() => document.querySelector("#catalogue-size").textContent === "285 endpoints", null, {
      timeout: showBound,
    });
    await page.locator("#api-name").fill("getConfig");
    assert.match(await page.locator("#api-detail").textContent(), /works without a vehicle/);
    await page.locator("#send").click();
    await waitState("answer-status", "answered");
    const answer = JSON.parse(await page.locator("#answer").textContent());
    // The simulator answers in the envelope it was sent, with its settings.
    assert.equal(answer.type, "response", JSON.stringify(answer));
    assert.equal(answer.target, stationSn);
    assert.equal(answer.message.code, 200, JSON.stringify(answer));
    assert.equal(answer.message.result.vehicle.pilot_id, "SIM-UAV-0001");
    assert.deepEqual(takeErrors(), []);
  }));

test("a simulator restart shows the link going down and coming back", () =>
  withDiagnostics(async () => {
    await stack.sim.stop("SIGKILL");
    await waitStateNot("service-link", "up");
    assert.notEqual(await state("vehicle-state"), "connected", "the vehicle cannot be known without the service");

    await stack.startSim(stack.simPort);
    await waitState("service-link", "up");
    await waitState("vehicle-state", "connected");
    const seq = await cellText("seq");
    await page.waitForFunction(
      (seen) => document.querySelector('#telemetry td[data-key="seq"]').textContent !== seen,
      seq,
      { timeout: showBound },
    );
    assert.deepEqual(takeErrors(), []);
  }));

test("a takeoff sent from the form shows the altitude climbing", () =>
  withDiagnostics(async () => {
    await page.locator("#api-name").fill("takeoffAndLand");
    await page.locator("#request-body").fill(JSON.stringify({ type: "request", message: { action: "takeoff" } }));
    await page.locator("#send").click();
    await waitState("answer-status", "answered");
    const answer = JSON.parse(await page.locator("#answer").textContent());
    assert.equal(answer.message.code, 200, JSON.stringify(answer));
    // A few metres, so the chart shows the climb.
    await page.waitForFunction(
      () => Number(document.querySelector('#telemetry td[data-key="alt"]').textContent) >= 6,
      null,
      { timeout: showBound },
    );
    assert.deepEqual(takeErrors(), []);

    mkdirSync(artifacts, { recursive: true });
    await page.screenshot({ path: join(artifacts, "console.png"), fullPage: true });
  }));

test("with http.token set the page asks once and keeps the token for the tab", () =>
  withDiagnostics(async () => {
    // Off the page first: its calls to a stopped host would be errors of their own.
    await page.goto("about:blank");
    await stack.stopHost();
    await stack.startHost({ token });
    takeErrors();

    assertServedUnderPolicy(await page.goto(`${stack.base}/host/console`));
    await page.waitForSelector("#token-dialog[open]", { timeout: showBound });
    await page.locator("#token-input").fill(token);
    await page.locator("#token-submit").click();
    await waitState("vehicle-state", "connected");
    await waitState("service-link", "up");

    await page.reload();
    await waitState("service-link", "up");
    await waitState("vehicle-state", "connected");
    assert.equal(await page.locator("#token-dialog").getAttribute("open"), null, "asked a second time");
    // The browser reports the refused first calls; nothing else may show up.
    const unexpected = takeErrors().filter((text) => !/status of 401/.test(text));
    assert.deepEqual(unexpected, []);
    assert.match(await page.locator("#health-detail").textContent(), /VelmoraPluginPilotControl running/);
  }));
