// The route form: waypoints typed in metres around home or in degrees, or
// picked by clicking the flight view; sent to the vehicle with "pushRoute"
// and flown with "executeFlightTask". Every answer is shown as it came.

import { validLatLon } from "/host/console/geo.js";
import { prettyAnswer, sendRequest, templateBody } from "/host/console/requests.js";

// More waypoints than a console-drawn route needs; a bound on the page's work.
const maxWaypoints = 200;
const defaultAltitude = 30;
// How long an accepted route may take to show up in the telemetry before the
// form says the vehicle has not confirmed it (the simulator needs under a second).
const confirmBound = 10000;

/**
 * What an answer means: {ok, summary}. A forwarded request is answered with
 * an envelope whose message carries the service's code; the plug-in's own
 * refusals are a short {code, msg} object.
 */
export function answerVerdict(status, text) {
  let body = null;
  try {
    body = JSON.parse(text);
  } catch {
    return { ok: false, summary: `HTTP ${status}, not JSON: ${text.slice(0, 200)}` };
  }
  const message = body && typeof body.message === "object" && body.message ? body.message : body;
  const code = message && "code" in message ? message.code : undefined;
  const msg = message && typeof message.msg === "string" ? message.msg : "";
  const ok = status === 200 && code === 200;
  return { ok, summary: `HTTP ${status}, code ${code ?? "none"}${msg ? `: ${msg}` : ""}` };
}

function number(input, what) {
  const text = input.value.trim();
  const value = Number(text);
  if (text === "" || !Number.isFinite(value)) throw new Error(`${what} must be a number, not "${text}"`);
  return value;
}

export class RouteForm {
  /**
   * `$` finds the form's elements by id; `view` is the FlightView that draws
   * the route and gives the home frame; `target()` the station serial number.
   */
  constructor($, view, target) {
    Object.assign(this, { $, view, target });
    this.points = []; // {lat, lon, alt}
    this.sentCount = null; // waypoints of the last accepted pushRoute, until the vehicle reports them
    $("waypoint-kind").addEventListener("change", () => this.showKind());
    $("waypoint-form").addEventListener("submit", (event) => {
      event.preventDefault();
      this.addTyped();
    });
    $("route-send").addEventListener("click", () => this.send());
    $("route-start").addEventListener("click", () => this.start());
    $("route-clear").addEventListener("click", () => this.replace([]));
    view.onPick(({ east, north }) => this.addLocal(east, north, this.altitude()));
    this.showKind();
    this.show();
  }

  showKind() {
    const local = this.$("waypoint-kind").value === "local";
    this.$("waypoint-a-label").textContent = local ? "east (m)" : "latitude (°)";
    this.$("waypoint-b-label").textContent = local ? "north (m)" : "longitude (°)";
  }

  altitude() {
    const text = this.$("waypoint-alt").value.trim();
    return text === "" ? defaultAltitude : number(this.$("waypoint-alt"), "the altitude");
  }

  /** Shows why a waypoint was not added; an empty text clears it. */
  problem(text) {
    this.$("waypoint-error").textContent = text;
  }

  addTyped() {
    try {
      const a = number(this.$("waypoint-a"), this.$("waypoint-a-label").textContent);
      const b = number(this.$("waypoint-b"), this.$("waypoint-b-label").textContent);
      const alt = this.altitude();
      if (this.$("waypoint-kind").value === "local") this.addLocal(a, b, alt);
      else this.add({ lat: a, lon: b, alt });
    } catch (error) {
      this.problem(error.message);
    }
  }

  addLocal(east, north, alt) {
    const frame = this.view.localFrame();
    if (!frame) {
      this.problem("no home position yet (no telemetry): type latitude and longitude instead");
      return;
    }
    this.add({ ...frame.toGlobal(east, north), alt });
  }

  add(point) {
    if (!validLatLon(point.lat, point.lon)) {
      this.problem(`${point.lat}, ${point.lon} is not a position on the globe`);
      return;
    }
    if (this.points.length >= maxWaypoints) {
      this.problem(`a route has at most ${maxWaypoints} waypoints here`);
      return;
    }
    this.problem("");
    this.replace([...this.points, point]);
  }

  /** A new draft route: nothing of it has been sent yet. */
  replace(points) {
    this.points = points;
    this.sentCount = null;
    this.view.setRoute(points, false);
    this.show();
  }

  show() {
    const frame = this.view.localFrame();
    const items = this.points.map((p, index) => {
      const item = document.createElement("li");
      const local = frame ? frame.toLocal(p.lat, p.lon) : null;
      const where = local ? `${local.east.toFixed(1)} m E, ${local.north.toFixed(1)} m N, ` : "";
      const text = document.createElement("span");
      text.textContent = `${where}${p.alt} m up (${p.lat.toFixed(6)}, ${p.lon.toFixed(6)})`;
      const remove = document.createElement("button");
      remove.type = "button";
      remove.className = "remove";
      remove.textContent = "remove";
      remove.addEventListener("click", () => this.replace(this.points.filter((_, i) => i !== index)));
      item.append(text, remove);
      return item;
    });
    this.$("route-list").replaceChildren(...items);
    this.$("route-send").disabled = this.points.length === 0;
  }

  status(state, text, answer = "") {
    const line = this.$("route-status");
    line.dataset.state = state;
    line.textContent = text;
    this.$("route-answer").textContent = answer;
  }

  async call(api, message) {
    const envelope = JSON.parse(templateBody(this.target()));
    envelope.api = api;
    envelope.message = message;
    const answer = await sendRequest(api, JSON.stringify(envelope));
    return { ...answerVerdict(answer.status, answer.text), text: prettyAnswer(answer.text) };
  }

  async send() {
    if (this.points.length === 0) return;
    const points = this.points.slice();
    const waypoints = points.map(({ lat, lon, alt }) => ({ lat, lon, alt }));
    await this.run("route-send", `pushRoute with ${points.length} waypoint(s)`, async () => {
      const answer = await this.call("pushRoute", { waypoints });
      if (answer.ok && points.length === this.points.length && points.every((p, i) => p === this.points[i])) {
        this.sentCount = points.length;
        this.view.setRoute(points, true);
        this.status("sent", `pushRoute: ${answer.summary}; waiting for the vehicle to report the route`, answer.text);
        this.expectConfirmation(answer.text);
      } else {
        this.status(answer.ok ? "sent" : "refused", `pushRoute: ${answer.summary}`, answer.text);
      }
    });
  }

  async start() {
    await this.run("route-start", "executeFlightTask", async () => {
      const answer = await this.call("executeFlightTask", {});
      this.status(answer.ok ? "started" : "refused", `executeFlightTask: ${answer.summary}`, answer.text);
    });
  }

  async run(buttonId, what, body) {
    const button = this.$(buttonId);
    button.disabled = true;
    this.status("sending", `sending ${what} ...`);
    try {
      await body();
    } catch (error) {
      this.status("failed", `${what}: ${error.message}`);
    } finally {
      button.disabled = buttonId === "route-send" && this.points.length === 0;
    }
  }

  // A service may accept a route and still not load it (the simulator will
  // not while a task is flown): say so rather than wait without end.
  expectConfirmation(answerText) {
    const sent = this.sentCount;
    setTimeout(() => {
      if (this.sentCount !== sent || this.$("route-status").dataset.state !== "sent") return;
      this.sentCount = null;
      const reported = this.lastRouteSize === undefined ? "no route size" : `a route of ${this.lastRouteSize}`;
      this.status("unconfirmed",
                  `pushRoute was accepted, but after ${confirmBound / 1000} s the vehicle reports ${reported}, not ${sent} waypoint(s)`,
                  answerText);
    }, confirmBound);
  }

  /** Telemetry says how many waypoints the vehicle holds: the route arrived once it matches. */
  addTelemetry(telemetry) {
    if (!this.listedWithFrame && this.view.localFrame()) {
      // The first position: the list can now say where each waypoint is in metres.
      this.listedWithFrame = true;
      this.show();
    }
    if (Number.isInteger(telemetry.routeSize)) this.lastRouteSize = telemetry.routeSize;
    if (this.sentCount === null || telemetry.routeSize !== this.sentCount) return;
    if (this.$("route-status").dataset.state !== "sent") return;
    this.sentCount = null;
    this.status("loaded", `the vehicle holds the route: ${telemetry.routeSize} waypoint(s); start it when ready`,
                this.$("route-answer").textContent);
  }
}
