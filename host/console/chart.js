// A small two-line chart on a canvas: altitude and speed over the last
// minute, each on its own scale (altitude left, speed right).

const windowMs = 60000;
const colours = { alt: "#2f7ed8", speed: "#e8833a" };

export class TelemetryChart {
  constructor(canvas) {
    this.canvas = canvas;
    this.points = [];
    this.drawPending = false;
  }

  /** Adds a sample taken now; values that are not numbers are skipped. */
  add(alt, speed) {
    const now = performance.now();
    if (typeof alt === "number" || typeof speed === "number") this.points.push({ t: now, alt, speed });
    while (this.points.length > 0 && this.points[0].t < now - windowMs) this.points.shift();
    // At most one drawing per frame, whatever the telemetry rate.
    if (!this.drawPending) {
      this.drawPending = true;
      requestAnimationFrame(() => {
        this.drawPending = false;
        this.draw();
      });
    }
  }

  draw() {
    const canvas = this.canvas;
    const ratio = window.devicePixelRatio || 1;
    const width = canvas.clientWidth || canvas.width;
    const height = canvas.clientHeight || canvas.height;
    if (canvas.width !== Math.round(width * ratio)) {
      canvas.width = Math.round(width * ratio);
      canvas.height = Math.round(height * ratio);
    }
    const g = canvas.getContext("2d");
    g.setTransform(ratio, 0, 0, ratio, 0, 0);
    g.clearRect(0, 0, width, height);

    const left = 44;
    const right = width - 44;
    const top = 10;
    const bottom = height - 22;
    g.strokeStyle = "#d0d5dd";
    g.lineWidth = 1;
    g.font = "11px system-ui, sans-serif";
    g.fillStyle = "#667085";
    for (let s = 0; s <= 60; s += 15) {
      const x = right - ((right - left) * s) / 60;
      g.beginPath();
      g.moveTo(x, top);
      g.lineTo(x, bottom);
      g.stroke();
      g.textAlign = "center";
      g.fillText(s === 0 ? "now" : `-${s}s`, x, height - 6);
    }
    g.strokeRect(left, top, right - left, bottom - top);

    const now = performance.now();
    const x = (t) => right - ((right - left) * (now - t)) / windowMs;
    for (const [key, side] of [
      ["alt", "left"],
      ["speed", "right"],
    ]) {
      const values = this.points.filter((p) => typeof p[key] === "number");
      if (values.length === 0) continue;
      let low = Math.min(...values.map((p) => p[key]));
      let high = Math.max(...values.map((p) => p[key]));
      if (high - low < 1) {
        // A flat line sits in the middle rather than on the frame.
        const middle = (low + high) / 2;
        low = middle - 0.5;
        high = middle + 0.5;
      }
      const y = (v) => bottom - ((bottom - top) * (v - low)) / (high - low);
      g.strokeStyle = colours[key];
      g.lineWidth = 2;
      g.beginPath();
      values.forEach((p, i) => (i === 0 ? g.moveTo(x(p.t), y(p[key])) : g.lineTo(x(p.t), y(p[key]))));
      g.stroke();
      g.fillStyle = colours[key];
      g.textAlign = side === "left" ? "right" : "left";
      const labelX = side === "left" ? left - 4 : right + 4;
      g.fillText(high.toFixed(1), labelX, top + 9);
      g.fillText(low.toFixed(1), labelX, bottom);
    }
  }
}
