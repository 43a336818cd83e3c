// The vehicle link and live telemetry, both read from the plug-in's
// "pushTelemetry" event stream: the endpoint streams only while the plug-in
// has a connected vehicle and answers one JSON error (code 4001) otherwise.
//
// Note that the plug-in hands each telemetry text to one stream only: another
// client streaming "pushTelemetry" at the same time shares the data with the
// console.

import { hostFetch, readEventStream, sleep } from "/host/console/hostapi.js";

const telemetryPath = "/index/api/pilot/pushTelemetry";
const retryPause = 1000;

// Code 4001 ("The vehicle not connected"), short or in an envelope.
function vehicleRefusal(answer) {
  return Boolean(answer) && (answer.code === 4001 || (answer.message && answer.message.code === 4001));
}

function parse(text) {
  try {
    return JSON.parse(text);
  } catch {
    return null;
  }
}

/**
 * Keeps a stream open for as long as the page lives. `onVehicle(state, why)`
 * gets "connected", "not-connected" or "unknown"; `onTelemetry(object)` each
 * telemetry object.
 */
export async function followTelemetry({ onVehicle, onTelemetry }) {
  for (;;) {
    try {
      const response = await hostFetch(telemetryPath);
      const type = response.headers.get("content-type") || "";
      if (response.ok && type.startsWith("text/event-stream")) {
        onVehicle("connected");
        await readEventStream(response, (block) => {
          if (block.event === "disconnect") {
            onVehicle("not-connected");
            return;
          }
          if (block.data === null) return;
          const data = parse(block.data);
          if (vehicleRefusal(data)) onVehicle("not-connected");
          else if (data && typeof data === "object") onTelemetry(data);
        });
      } else {
        const text = await response.text();
        if (response.status === 404) onVehicle("unknown", "no pilot control plug-in serves telemetry");
        else if (vehicleRefusal(parse(text))) onVehicle("not-connected");
        else onVehicle("unknown", `telemetry answered ${response.status}: ${text.slice(0, 200)}`);
      }
    } catch (error) {
      onVehicle("unknown", `telemetry stream: ${error.message}`);
    }
    await sleep(retryPause);
  }
}

// Shown first, in this order, with units; other numeric keys follow.
const knownFields = [
  ["seq", "seq", ""],
  ["flightMode", "mode", ""],
  ["lat", "latitude", "°"],
  ["lon", "longitude", "°"],
  ["alt", "altitude", "m"],
  ["speed", "speed", "m/s"],
  ["heading", "heading", "°"],
  ["battery", "battery", "%"],
  ["satellites", "satellites", ""],
  ["gpsFix", "GPS fix", ""],
  ["waypointIndex", "waypoint", ""],
  ["flightTime", "flight time", "s"],
  ["timestamp", "time", ""],
];

function formatValue(key, value) {
  if (key === "timestamp" && typeof value === "number") return new Date(value).toLocaleTimeString();
  return String(value);
}

/** Writes the numbers of one telemetry object into the table body. */
export function showTelemetry(tbody, telemetry) {
  const rows = [];
  for (const [key, label, unit] of knownFields) {
    if (key in telemetry) rows.push([key, label, unit]);
  }
  for (const [key, value] of Object.entries(telemetry)) {
    if (typeof value === "number" && !knownFields.some(([known]) => known === key)) rows.push([key, key, ""]);
  }
  for (const [key, label, unit] of rows) {
    let cell = tbody.querySelector(`td[data-key="${key}"]`);
    if (!cell) {
      const row = tbody.insertRow();
      const head = document.createElement("th");
      head.textContent = label;
      row.appendChild(head);
      cell = row.insertCell();
      cell.dataset.key = key;
      const unitCell = row.insertCell();
      unitCell.className = "unit";
      unitCell.textContent = unit;
    }
    cell.textContent = formatValue(key, telemetry[key]);
  }
}
