// The console's flight view in a real browser against the real stack
// (mosquitto, pilot-sim, velmora-host with the plug-in): a four-waypoint
// route entered through the form (metres, degrees and a click on the view) is
// pushed and flown, and the drawn track must pass every waypoint.
//
//   node flight-view.test.mjs
//
// Environment: see session.mjs; the screenshot goes to
// $VELMORA_ARTIFACTS/flight-view.png and its path is printed.

import assert from "node:assert/strict";
import { test } from "node:test";

import { page, saveScreenshot, stack, useStackAndBrowser } from "./session.mjs";

const showBound = 15000;
// Take-off to 30 m and about 230 m at the simulator's 12 m/s take some 30 s.
const flightBound = 90000;
// The simulator counts a waypoint reached within 1 m; samples ten times a
// second at 12 m/s lie 1.2 m apart, and a lost sample or two cuts a corner by
// a little more. Five metres still tells a waypoint from its neighbours 45 m
// and more away.
const toleranceMetres = 5;
const metresPerDegree = (6378137 * Math.PI) / 180;
const metresPerDegreeLon = (lat) => metresPerDegree * Math.cos((lat * Math.PI) / 180);

const withDiagnostics = useStackAndBrowser({ checkErrors: true });

const cellNumber = async (key) => Number(await page.locator(`#telemetry td[data-key="${key}"]`).textContent());

/** Points of an SVG "points" attribute: x east, y south, in metres. */
function parsePoints(text) {
  return (text ?? "")
    .trim()
    .split(/\s+/)
    .filter(Boolean)
    .map((pair) => {
      const [x, y] = pair.split(",").map(Number);
      return { east: x, north: -y };
    });
}

function distanceToSegment(p, a, b) {
  const [dx, dy] = [b.east - a.east, b.north - a.north];
  const length2 = dx * dx + dy * dy;
  const t = length2 === 0 ? 0 : Math.max(0, Math.min(1, ((p.east - a.east) * dx + (p.north - a.north) * dy) / length2));
  return Math.hypot(p.east - (a.east + t * dx), p.north - (a.north + t * dy));
}

function distanceToTrack(p, track) {
  if (track.length === 1) return Math.hypot(p.east - track[0].east, p.north - track[0].north);
  let best = Infinity;
  for (let i = 1; i < track.length; i++) best = Math.min(best, distanceToSegment(p, track[i - 1], track[i]));
  return best;
}

async function drawnWaypoints() {
  return page.$$eval("#flight-waypoints g.waypoint", (groups) =>
    groups.map((g) => ({ east: Number(g.dataset.east), north: Number(g.dataset.north) })),
  );
}

async function typeWaypoint(kind, a, b, alt = "30") {
  await page.locator("#waypoint-kind").selectOption(kind);
  await page.locator("#waypoint-a").fill(String(a));
  await page.locator("#waypoint-b").fill(String(b));
  await page.locator("#waypoint-alt").fill(alt);
  await page.locator("#waypoint-add").click();
}

/** Clicks the view where the point `east`, `north` is drawn now. */
async function clickAt(east, north) {
  const { x, y } = await page.$eval(
    "#flight-view",
    (svg, [e, n]) => {
      const point = new DOMPoint(e, -n).matrixTransform(svg.getScreenCTM());
      return { x: point.x, y: point.y };
    },
    [east, north],
  );
  await page.mouse.click(x, y);
}

// Home, then the route in metres around it: typed in metres, typed in
// degrees (the third), and clicked (the fourth).
let home;
const wanted = [
  { east: 60, north: 0 },
  { east: 60, north: 60 },
  { east: -20, north: 60 },
  { east: -30, north: 25 },
];

test("home is where the vehicle stands, and bad waypoints are refused with a reason", () =>
  withDiagnostics(async () => {
    await page.goto(`${stack.base}/host/console`);
    await page.waitForSelector("#vehicle-state[data-state=connected]", { timeout: showBound });
    await page.waitForSelector("#flight-view[data-home-lat]", { timeout: showBound });
    home = await page.$eval("#flight-view", (svg) => ({ lat: Number(svg.dataset.homeLat), lon: Number(svg.dataset.homeLon) }));
    assert.match(await page.locator("#flight-caption").textContent(), /where the vehicle stood on the ground/);
    assert.ok(Math.abs(home.lat - (await cellNumber("lat"))) < 1e-7, "home is the latitude on the ground");
    assert.ok(Math.abs(home.lon - (await cellNumber("lon"))) < 1e-7, "home is the longitude on the ground");

    await typeWaypoint("local", "sixty", "0");
    assert.match(await page.locator("#waypoint-error").textContent(), /east \(m\) must be a number, not "sixty"/);
    await typeWaypoint("global", "95", "11");
    assert.match(await page.locator("#waypoint-error").textContent(), /95, 11 is not a position on the globe/);
    assert.equal(await page.locator("#route-list li").count(), 0, "nothing was added");
    assert.equal(await page.locator("#route-send").isDisabled(), true, "an empty route cannot be sent");

    // The service's refusal is shown as it came.
    await page.locator("#route-start").click();
    await page.waitForSelector("#route-status[data-state=refused]", { timeout: showBound });
    assert.match(await page.locator("#route-status").textContent(), /executeFlightTask: HTTP 200, code 409: no route has been uploaded/);
  }));

test("a four-waypoint route from the form is drawn where it was entered, one can be removed", () =>
  withDiagnostics(async () => {
    await typeWaypoint("local", wanted[0].east, wanted[0].north);
    await typeWaypoint("local", wanted[1].east, wanted[1].north);
    // Degrees worked out here, independently of the page.
    const lat = home.lat + wanted[2].north / metresPerDegree;
    const lon = home.lon + wanted[2].east / metresPerDegreeLon(home.lat);
    await typeWaypoint("global", lat.toFixed(8), lon.toFixed(8));
    await typeWaypoint("local", 10, 10);
    assert.equal(await page.locator("#route-list li").count(), 4);
    await page.locator("#route-list li").nth(3).locator("button.remove").click();
    assert.equal(await page.locator("#route-list li").count(), 3, "the fourth one was removed");
    await page.waitForFunction(() => document.querySelectorAll("#flight-waypoints g.waypoint").length === 3);

    await clickAt(wanted[3].east, wanted[3].north);
    await page.waitForFunction(() => document.querySelectorAll("#flight-waypoints g.waypoint").length === 4, null, {
      timeout: showBound,
    });
    const drawn = await drawnWaypoints();
    // A click lands within a pixel or so of its aim, a fraction of a metre here.
    wanted.forEach((w, i) => {
      const off = Math.hypot(drawn[i].east - w.east, drawn[i].north - w.north);
      assert.ok(off < (i === 3 ? 1.5 : 0.1), `waypoint ${i + 1} drawn at ${JSON.stringify(drawn[i])}, ${off.toFixed(2)} m off`);
    });
    assert.match(await page.locator("#route-list li").nth(2).textContent(), /^-20\.0 m E, 60\.0 m N, 30 m up/);

    // North is up and east is right on the screen.
    // Read in one go in the page: every telemetry sample redraws the marks.
    const [homeMark, east, north] = await page.evaluate((selectors) =>
      selectors.map((selector) => {
        const box = document.querySelector(selector).getBoundingClientRect();
        return { x: box.x + box.width / 2, y: box.y + box.height / 2 };
      }),
      ["#flight-home rect", '#flight-waypoints g[data-index="0"] circle', '#flight-waypoints g[data-index="2"] circle'],
    );
    assert.ok(east.x > homeMark.x + 20 && Math.abs(east.y - homeMark.y) < 2, "the first waypoint is drawn east of home");
    assert.ok(north.y < homeMark.y - 20, "the third waypoint is drawn north of home");
  }));

test("the pushed route is flown and the drawn track passes every waypoint", () =>
  withDiagnostics(async () => {
    const route = await drawnWaypoints();
    await page.locator("#track-clear").click();
    const left = parsePoints(await page.locator("#flight-track").getAttribute("points"));
    assert.ok(left.length <= 1, `${left.length} track points left after clearing`);
    await page.locator("#route-send").click();
    await page.waitForSelector("#route-status[data-state=loaded]", { timeout: showBound });
    const accepted = JSON.parse(await page.locator("#route-answer").textContent());
    assert.equal(accepted.message.code, 200, JSON.stringify(accepted));
    assert.equal(accepted.message.result.waypointCount, 4, JSON.stringify(accepted));

    await page.locator("#route-start").click();
    await page.waitForSelector("#route-status[data-state=started]", { timeout: showBound });
    // Flown once the vehicle hovers past the last waypoint.
    await page.waitForFunction(
      () => {
        const cell = (key) => document.querySelector(`#telemetry td[data-key="${key}"]`)?.textContent;
        return cell("flightMode") === "hover" && cell("waypointIndex") === "4";
      },
      null,
      { timeout: flightBound, polling: 200 },
    );
    // One more drawing, so the last samples are in the track.
    await page.waitForTimeout(300);

    const track = parsePoints(await page.locator("#flight-track").getAttribute("points"));
    assert.ok(track.length >= 50, `a flight of some 230 m has more than ${track.length} track points`);
    route.forEach((w, i) => {
      const miss = distanceToTrack(w, track);
      assert.ok(miss <= toleranceMetres, `the track misses waypoint ${i + 1} ${JSON.stringify(w)} by ${miss.toFixed(2)} m`);
    });
    const vehicle = await page.$eval("#flight-vehicle", (g) => ({
      east: Number(g.dataset.east),
      north: Number(g.dataset.north),
      heading: Number(g.dataset.heading),
    }));
    const last = route[3];
    assert.ok(Math.hypot(vehicle.east - last.east, vehicle.north - last.north) <= toleranceMetres, JSON.stringify(vehicle));
    // The vehicle is drawn where its reported degrees put it, worked out here.
    const reported = {
      east: ((await cellNumber("lon")) - home.lon) * metresPerDegreeLon(home.lat),
      north: ((await cellNumber("lat")) - home.lat) * metresPerDegree,
    };
    assert.ok(Math.hypot(vehicle.east - reported.east, vehicle.north - reported.north) < 0.5,
              `drawn at ${JSON.stringify(vehicle)}, reported at ${JSON.stringify(reported)}`);
    // The last leg runs from (-20, 60) to (-30, 25): south by south-west.
    assert.ok(vehicle.heading > 180 && vehicle.heading < 270, `heading ${vehicle.heading} on the last leg`);

    // The view was scaled to hold the whole track and route.
    const [x, y, width, height] = (await page.locator("#flight-view").getAttribute("viewBox")).split(/\s+/).map(Number);
    for (const p of [...track, ...route]) {
      assert.ok(p.east >= x && p.east <= x + width && -p.north >= y && -p.north <= y + height, `${JSON.stringify(p)} outside the view`);
    }

    await page.locator("#flight-section").scrollIntoViewIfNeeded();
    console.log(`flight view screenshot: ${await saveScreenshot("flight-view.png")}`);
  }));

test("answers are judged by the service's code, and the plug-in's own refusals are shown as such", () =>
  withDiagnostics(async () => {
    // The page's own modules, loaded in the page under its policy.
    const verdicts = await page.evaluate(async () => {
      const { answerVerdict } = await import("/host/console/routeform.js");
      const envelope = (code, msg) => JSON.stringify({ api: "pushRoute", type: "response", message: { code, msg } });
      return [
        answerVerdict(200, envelope(200, "success")),
        answerVerdict(200, envelope(409, "a flight task is running")),
        answerVerdict(200, JSON.stringify({ code: 4001, msg: "The vehicle not connected" })),
        answerVerdict(503, envelope(200, "success")),
        answerVerdict(502, "<html>bad gateway</html>"),
        answerVerdict(200, "null"),
      ];
    });
    assert.deepEqual(verdicts, [
      { ok: true, summary: "HTTP 200, code 200: success" },
      { ok: false, summary: "HTTP 200, code 409: a flight task is running" },
      { ok: false, summary: "HTTP 200, code 4001: The vehicle not connected" },
      { ok: false, summary: "HTTP 503, code 200: success" },
      { ok: false, summary: "HTTP 502, not JSON: <html>bad gateway</html>" },
      { ok: false, summary: "HTTP 200, code none" },
    ]);

    const scale = await page.evaluate(async () => {
      const { gridStep } = await import("/host/console/flightview.js");
      const { LocalFrame } = await import("/host/console/geo.js");
      const frame = new LocalFrame(78.2, 15.6); // far north, where a degree of longitude is short
      const back = frame.toLocal(frame.toGlobal(-350, 1200).lat, frame.toGlobal(-350, 1200).lon);
      let refused = "";
      try {
        new LocalFrame(91, 0);
      } catch (error) {
        refused = error.message;
      }
      return { steps: [40, 240, 1000, 3].map(gridStep), back, refused };
    });
    assert.deepEqual(scale.steps, [10, 50, 200, 0.5]);
    assert.ok(Math.abs(scale.back.east + 350) < 1e-6 && Math.abs(scale.back.north - 1200) < 1e-6, JSON.stringify(scale.back));
    assert.match(scale.refused, /91, 0 is not a position on the globe/);
  }));
