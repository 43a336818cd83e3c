// Debian's headless Chromium, driven by playwright-core, as the browser tests
// use it: a throw-away profile, nothing fetched from the network on its own,
// and every console message the page logs kept for the checks.

import { existsSync, mkdtempSync, rmSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";

export const chromiumPath = process.env.VELMORA_CHROMIUM || "/usr/bin/chromium";

async function loadBrowserDriver() {
  if (!existsSync(chromiumPath))
    throw new Error(`Chromium is not installed at ${chromiumPath} (scripts/install-deps.sh installs Debian's chromium)`);
  try {
    return (await import("playwright-core")).chromium;
  } catch (error) {
    throw new Error(
      "playwright-core is not installed in tests/e2e/console (scripts/install-deps.sh runs npm ci there): " +
        error.message,
    );
  }
}

/** A Content-Security-Policy violation as Chromium reports it on the console. */
export const isPolicyViolation = (text) => /Refused to |Content Security Policy/i.test(text);

/**
 * A running browser with one page. `errors` collects the page's console
 * errors and uncaught exceptions; `violations` every console message, of any
 * level, that reports a refused load or script under the page's policy.
 */
export class Browser {
  static async launch({ args = [] } = {}) {
    const chromium = await loadBrowserDriver();
    const browser = new Browser();
    browser.userDataDir = mkdtempSync(join(tmpdir(), "velmora-chromium-"));
    try {
      browser.context = await chromium.launchPersistentContext(browser.userDataDir, {
        executablePath: chromiumPath,
        headless: true,
        viewport: { width: 1280, height: 900 },
        args: [
          "--headless",
          "--no-sandbox",
          "--disable-gpu",
          "--disable-quic",
          "--no-first-run",
          "--disable-background-networking",
          "--disable-component-update",
          "--disable-sync",
          ...args,
        ],
      });
    } catch (error) {
      rmSync(browser.userDataDir, { recursive: true, force: true });
      throw error;
    }
    browser.page = browser.context.pages()[0] ?? (await browser.context.newPage());
    browser.watch(browser.page);
    return browser;
  }

  constructor() {
    this.errors = [];
    this.violations = [];
  }

  /** Collects the console messages of `page` (every page of the context is watched this way). */
  watch(page) {
    page.on("console", (message) => {
      if (isPolicyViolation(message.text())) this.violations.push(message.text());
      if (message.type() === "error") this.errors.push(message.text());
    });
    page.on("pageerror", (error) => this.errors.push(`uncaught: ${error.message}`));
  }

  /**
   * Calls `heard({method, url, status})` for every HTTP answer the page or its
   * frames receive, including the ones the page is not allowed to see:
   * answers that fail a CORS check or a preflight, and images blocked as not
   * being images (the DevTools protocol's raw answers of the page's own
   * target). Frames of other sites run in processes of their own and are
   * heard through Playwright, for the answers it reports.
   */
  async hearAnswers(heard) {
    const page = this.page;
    page.on("response", (response) =>
      heard({ method: response.request().method(), url: response.url(), status: response.status() }),
    );
    const session = await this.context.newCDPSession(page);
    const requests = new Map();
    const early = new Map();
    session.on("Network.requestWillBeSent", ({ requestId, request }) => {
      requests.set(requestId, request);
      const status = early.get(requestId);
      early.delete(requestId);
      if (status !== undefined) heard({ method: request.method, url: request.url, status });
    });
    session.on("Network.responseReceivedExtraInfo", ({ requestId, statusCode }) => {
      const request = requests.get(requestId);
      if (request) heard({ method: request.method, url: request.url, status: statusCode });
      else early.set(requestId, statusCode);
    });
    await session.send("Network.enable");
  }

  /** The errors collected since the last call. */
  takeErrors() {
    return this.errors.splice(0);
  }

  async close() {
    await this.context?.close();
    if (this.userDataDir) rmSync(this.userDataDir, { recursive: true, force: true });
  }
}
