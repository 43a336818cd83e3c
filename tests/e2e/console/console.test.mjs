// The station console in a real browser (Debian's headless Chromium driven by
// playwright-core) against the real stack: mosquitto, pilot-sim and
// velmora-host with the plug-in. Environment: see session.mjs; the
// screenshot is $VELMORA_ARTIFACTS/console.png.
//
//   node console.test.mjs

import assert from "node:assert/strict";
import { test } from "node:test";

import { browser, page, saveScreenshot, stack, useStackAndBrowser } from "./session.mjs";
import { stationSn } from "./stack.mjs";

// Generous for a loaded two-core machine; the waits end as soon as the page shows it.
const showBound = 15000;
const token = "console-test-token";

// The console runs under a policy that allows nothing from elsewhere and no
// framing; the page must work within it, so a refused load or script fails
// every test.
const withDiagnostics = useStackAndBrowser();

const state = (id) => page.locator(`#${id}`).getAttribute("data-state");
const waitState = (id, wanted, bound = showBound) =>
  page.waitForSelector(`#${id}[data-state="${wanted}"]`, { timeout: bound });
const waitStateNot = (id, unwanted, bound = showBound) =>
  page.waitForSelector(`#${id}:not([data-state="${unwanted}"])`, { timeout: bound });
const cellText = (key) => page.locator(`#telemetry td[data-key="${key}"]`).textContent();

const takeErrors = () => browser.takeErrors();

function assertServedUnderPolicy(response) {
  assert.ok(response, "the console page was not loaded");
  const headers = response.headers();
  const policy = headers["content-security-policy"] ?? "";
  const given = `the console is served with Content-Security-Policy "${policy}"`;
  assert.match(policy, /(^|;)\s*default-src 'self'\s*(;|$)/, given);
  assert.match(policy, /(^|;)\s*frame-ancestors 'none'\s*(;|$)/, given);
  assert.equal(headers["referrer-policy"], "no-referrer", "the console's Referrer-Policy");
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

    await saveScreenshot("console.png");
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
