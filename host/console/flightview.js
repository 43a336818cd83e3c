// The flight view: the vehicle's track, heading and home point and the route's
// waypoints, drawn as SVG in metres around home (x east, y south, so north is
// up). No map tiles: stations are often offline, and the page loads nothing
// from elsewhere. The view scales itself to fit everything it shows.
//
// Positions are kept in degrees and projected when drawn, so the picture
// stays right when the home point moves (a vehicle that landed elsewhere).

import { LocalFrame, validLatLon } from "/host/console/geo.js";

const svgNs = "http://www.w3.org/2000/svg";
// A long flight at ten samples a second, thinned to one point per half metre,
// stays far below this; the oldest points go first.
const maxTrackPoints = 5000;
const minStep = 0.5; // metres between kept track points
const minSpan = 40; // metres across the smallest view
const margin = 0.12; // of the span, around what is drawn
const gridSteps = [1, 2, 5];

function element(name, attributes = {}) {
  const node = document.createElementNS(svgNs, name);
  for (const [key, value] of Object.entries(attributes)) node.setAttribute(key, String(value));
  return node;
}

const round = (value) => Math.round(value * 100) / 100;

/** A grid step of 1, 2 or 5 times a power of ten that gives a few lines across `span`. */
export function gridStep(span) {
  const rough = span / 6;
  const power = 10 ** Math.floor(Math.log10(rough));
  for (const step of gridSteps) {
    if (step * power >= rough) return step * power;
  }
  return 10 * power;
}

export class FlightView {
  /** `svg` holds the groups of index.html; `caption` shows the scale and the home's source. */
  constructor(svg, caption) {
    this.svg = svg;
    this.caption = caption;
    this.layer = (id) => svg.querySelector(`#${id}`);
    this.track = []; // {lat, lon}
    this.home = null; // {lat, lon, fromGround}
    this.frame = null;
    this.vehicle = null; // {lat, lon, heading, mode, waypointIndex}
    this.route = { points: [], sent: false }; // points: {lat, lon, alt}
    this.pending = false;
    svg.addEventListener("click", (event) => this.picked(event));
  }

  /** Calls `pick({east, north})` with the metres of a click on the view. */
  onPick(pick) {
    this.pick = pick;
  }

  /** The local frame around home, or null before the first position. */
  localFrame() {
    return this.frame;
  }

  /** Takes one telemetry object; samples without a position are ignored. */
  addTelemetry(telemetry) {
    const lat = Number(telemetry.lat);
    const lon = Number(telemetry.lon);
    if (typeof telemetry.lat !== "number" || typeof telemetry.lon !== "number" || !validLatLon(lat, lon)) return;
    // Home is where the vehicle last stood on the ground; until it is seen
    // there, the first position stands in for it.
    const onGround = telemetry.flightMode === "onGround";
    if (!this.home || (onGround && (!this.home.fromGround || this.home.lat !== lat || this.home.lon !== lon))) {
      this.home = { lat, lon, fromGround: onGround };
      this.frame = new LocalFrame(lat, lon);
    }
    const heading = Number(telemetry.heading);
    this.vehicle = {
      lat,
      lon,
      heading: Number.isFinite(heading) ? heading : null,
      mode: typeof telemetry.flightMode === "string" ? telemetry.flightMode : "",
      waypointIndex: Number.isInteger(telemetry.waypointIndex) ? telemetry.waypointIndex : null,
    };
    const last = this.track[this.track.length - 1];
    if (!last || this.distance(last, this.vehicle) >= minStep) {
      this.track.push({ lat, lon });
      if (this.track.length > maxTrackPoints) this.track.splice(0, this.track.length - maxTrackPoints);
    }
    this.schedule();
  }

  /** The route to draw: `sent` once the vehicle was given it. */
  setRoute(points, sent) {
    this.route = { points: points.slice(), sent };
    this.schedule();
  }

  /** Forgets the track flown so far; the vehicle's position starts the next one. */
  clearTrack() {
    this.track = this.vehicle ? [{ lat: this.vehicle.lat, lon: this.vehicle.lon }] : [];
    this.schedule();
  }

  distance(a, b) {
    const p = this.frame.toLocal(a.lat, a.lon);
    const q = this.frame.toLocal(b.lat, b.lon);
    return Math.hypot(p.east - q.east, p.north - q.north);
  }

  picked(event) {
    if (!this.pick || !this.frame) return;
    const matrix = this.svg.getScreenCTM();
    if (!matrix) return;
    const point = new DOMPoint(event.clientX, event.clientY).matrixTransform(matrix.inverse());
    this.pick({ east: round(point.x), north: round(-point.y) });
  }

  // Telemetry arrives ten or more times a second; one drawing per frame is enough.
  schedule() {
    if (this.pending) return;
    this.pending = true;
    requestAnimationFrame(() => {
      this.pending = false;
      this.draw();
    });
  }

  /** SVG coordinates of a position: x east, y south, in metres. */
  xy(position) {
    const { east, north } = this.frame.toLocal(position.lat, position.lon);
    return { x: round(east), y: round(-north) };
  }

  draw() {
    if (!this.frame) {
      this.caption.textContent = "waiting for the vehicle's position";
      return;
    }
    const track = this.track.map((p) => this.xy(p));
    const route = this.route.points.map((p) => this.xy(p));
    const vehicle = this.vehicle ? this.xy(this.vehicle) : null;
    const box = this.fit([{ x: 0, y: 0 }, ...track, ...route, ...(vehicle ? [vehicle] : [])]);
    this.svg.setAttribute("viewBox", `${round(box.x)} ${round(box.y)} ${round(box.width)} ${round(box.height)}`);
    // Marks keep their size on screen whatever the scale.
    const unit = box.width / Math.max(1, this.svg.clientWidth || 1);
    const step = gridStep(Math.max(box.width, box.height));
    this.drawGrid(box, step);
    this.layer("flight-track").setAttribute("points", track.map((p) => `${p.x},${p.y}`).join(" "));
    this.drawRoute(route, unit);
    this.drawHome(unit);
    this.drawVehicle(vehicle, unit);
    const home = this.home.fromGround ? "home: where the vehicle stood on the ground" : "home: first position received";
    this.caption.textContent = `grid ${step} m · ${home} · ${this.track.length} track points`;
    this.svg.dataset.homeLat = String(this.home.lat);
    this.svg.dataset.homeLon = String(this.home.lon);
  }

  /** A box around `points` with a margin, at least `minSpan` across, shaped like the element. */
  fit(points) {
    let [minX, maxX, minY, maxY] = [Infinity, -Infinity, Infinity, -Infinity];
    for (const { x, y } of points) {
      minX = Math.min(minX, x);
      maxX = Math.max(maxX, x);
      minY = Math.min(minY, y);
      maxY = Math.max(maxY, y);
    }
    let width = Math.max(minSpan, (maxX - minX) * (1 + 2 * margin));
    let height = Math.max(minSpan, (maxY - minY) * (1 + 2 * margin));
    const aspect = (this.svg.clientWidth || 1) / (this.svg.clientHeight || 1);
    if (width / height < aspect) width = height * aspect;
    else height = width / aspect;
    return { x: (minX + maxX - width) / 2, y: (minY + maxY - height) / 2, width, height };
  }

  drawGrid(box, step) {
    const lines = [];
    for (let x = Math.ceil(box.x / step) * step; x <= box.x + box.width; x += step)
      lines.push(element("line", { x1: x, y1: box.y, x2: x, y2: box.y + box.height, class: x === 0 ? "axis" : "" }));
    for (let y = Math.ceil(box.y / step) * step; y <= box.y + box.height; y += step)
      lines.push(element("line", { x1: box.x, y1: y, x2: box.x + box.width, y2: y, class: y === 0 ? "axis" : "" }));
    this.layer("flight-grid").replaceChildren(...lines);
  }

  drawRoute(route, unit) {
    const line = this.layer("flight-route");
    line.setAttribute("points", route.map((p) => `${p.x},${p.y}`).join(" "));
    line.setAttribute("class", this.route.sent ? "sent" : "draft");
    const flying = this.vehicle && this.vehicle.mode === "mission" && this.route.sent;
    const marks = route.map((p, index) => {
      const group = element("g", {
        class: `waypoint${flying && this.vehicle.waypointIndex === index ? " next" : ""}`,
        "data-index": index,
        "data-east": p.x,
        "data-north": round(-p.y),
      });
      group.append(
        element("circle", { cx: p.x, cy: p.y, r: round(6 * unit) }),
        element("text", { x: round(p.x + 8 * unit), y: round(p.y - 8 * unit), "font-size": round(12 * unit) }),
      );
      group.lastChild.textContent = String(index + 1);
      return group;
    });
    this.layer("flight-waypoints").replaceChildren(...marks);
  }

  drawHome(unit) {
    const size = round(7 * unit);
    this.layer("flight-home").replaceChildren(
      element("rect", { x: -size, y: -size, width: 2 * size, height: 2 * size }),
      element("text", { x: round(10 * unit), y: round(16 * unit), "font-size": round(12 * unit) }),
    );
    this.layer("flight-home").lastChild.textContent = "H";
  }

  drawVehicle(vehicle, unit) {
    const layer = this.layer("flight-vehicle");
    if (!vehicle) {
      layer.replaceChildren();
      return;
    }
    // An arrow pointing north, turned by the heading (clockwise, as on a compass).
    const arrow = element("polygon", {
      points: "0,-11 7,8 0,4 -7,8",
      transform: `translate(${vehicle.x} ${vehicle.y}) rotate(${this.vehicle.heading ?? 0}) scale(${unit.toFixed(4)})`,
    });
    layer.replaceChildren(arrow);
    layer.dataset.heading = String(this.vehicle.heading ?? "");
    layer.dataset.east = String(vehicle.x);
    layer.dataset.north = String(round(-vehicle.y));
  }
}
