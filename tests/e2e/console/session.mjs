// What every browser test file starts: the real stack (mosquitto, pilot-sim,
// velmora-host with the plug-in) from the programs named in the environment,
// and one headless Chromium page, both ended after the file's tests.
//
// Environment: VELMORA_HOST_BIN, VELMORA_PILOT_SIM, VELMORA_PILOT_PLUGIN (the
// built programs), VELMORA_ARTIFACTS (where screenshots go), and optionally
// VELMORA_CHROMIUM (default /usr/bin/chromium). Missing pieces fail the test
// with the reason; nothing is skipped.

import assert from "node:assert/strict";
import { mkdirSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { after, before } from "node:test";

import { Browser } from "./browser.mjs";
import { GatewayStack } from "./stack.mjs";

const artifacts = process.env.VELMORA_ARTIFACTS || tmpdir();

// Set before the first test of the file; importers see them as they change.
export let stack;
export let browser;
export let page;

/**
 * Starts the stack, then the browser with `browserArgs`, then `started()`,
 * before the file's tests; after them `stopping()`, then ends both. (A
 * file's own before hook would not wait for these.) Returns the wrapper each
 * test runs its body in: any failure carries what the processes said, and
 * after the body the page must not have broken its content security policy
 * (`checkPolicy`) nor logged errors (`checkErrors`).
 */
export function useStackAndBrowser({
  browserArgs = [],
  checkPolicy = true,
  checkErrors = false,
  started = async () => {},
  stopping = async () => {},
} = {}) {
  before(async () => {
    stack = new GatewayStack({
      hostBin: process.env.VELMORA_HOST_BIN,
      simBin: process.env.VELMORA_PILOT_SIM,
      plugin: process.env.VELMORA_PILOT_PLUGIN,
    });
    await stack.start();
    browser = await Browser.launch({ args: browserArgs });
    page = browser.page;
    await started();
  });
  after(async () => {
    await stopping();
    await browser?.close();
    await stack?.stop();
  });
  return async (body) => {
    try {
      await body();
      if (checkPolicy)
        assert.deepEqual(browser.violations.splice(0), [], "the page broke its own content security policy");
      if (checkErrors) assert.deepEqual(browser.takeErrors(), []);
    } catch (error) {
      error.message += `\n${stack?.diagnostics() ?? ""}`;
      throw error;
    }
  };
}

/** Saves a full-page screenshot of the page as `name` among the artifacts; returns its path. */
export async function saveScreenshot(name) {
  mkdirSync(artifacts, { recursive: true });
  const path = join(artifacts, name);
  await page.screenshot({ path, fullPage: true });
  return path;
}
