// The request form: API names from the host's API description, a body in the
// shared envelope, the answer as the plug-in wrote it.

import { hostFetch } from "/host/console/hostapi.js";

const fallbackPrefix = "/index/api/pilot/";
let apis = new Map();
let nextMsgId = 1;

/** Reads the plug-in endpoints from "/host/openapi.json" into the name list. */
export async function loadApiNames(datalist, sizeLabel) {
  const response = await hostFetch("/host/openapi.json");
  if (!response.ok) throw new Error(`the API description answered ${response.status}`);
  const description = await response.json();
  const found = new Map();
  for (const [path, item] of Object.entries(description.paths || {})) {
    for (const operation of Object.values(item)) {
      if (!operation || !operation["x-velmora-plugin"]) continue;
      found.set(operation.summary, {
        path,
        number: operation["x-velmora-api-number"],
        category: operation["x-velmora-category"],
        streaming: operation["x-velmora-streaming"],
        needsVehicle: operation["x-velmora-needs-vehicle"],
      });
    }
  }
  apis = found;
  const names = [...found.keys()].sort((a, b) => a.localeCompare(b));
  datalist.replaceChildren(
    ...names.map((name) => {
      const option = document.createElement("option");
      option.value = name;
      const api = found.get(name);
      option.label = `${api.category ?? "no category"}${api.streaming ? ", stream" : ""}`;
      return option;
    }),
  );
  sizeLabel.textContent = `${found.size} endpoints`;
}

/** What the form knows of the name typed so far. */
export function describeName(name) {
  const api = apis.get(name);
  if (!api) return name ? "not in the API description" : "";
  const parts = [`API ${api.number}`, api.category ? `category ${api.category}` : "no category"];
  parts.push(api.needsVehicle ? "needs a connected vehicle" : "works without a vehicle");
  if (api.streaming) parts.push("an event stream (the telemetry panel follows pushTelemetry)");
  return parts.join(", ");
}

/** A request envelope to start from. */
export function templateBody(target) {
  const envelope = { type: "request", from: "station-console", msgId: String(nextMsgId), message: {} };
  if (target) envelope.target = target;
  return JSON.stringify(envelope, null, 2);
}

/** Sends the form's request; returns {status, text, ms} or throws with the reason. */
export async function sendRequest(name, bodyText) {
  const api = apis.get(name);
  if (api && api.streaming) throw new Error(`${name} is an event stream, not a request`);
  let body;
  try {
    body = JSON.parse(bodyText || "{}");
  } catch (error) {
    throw new Error(`the body is not JSON: ${error.message}`);
  }
  if (!body || typeof body !== "object" || Array.isArray(body)) throw new Error("the body must be a JSON object");
  nextMsgId += 1;
  const started = performance.now();
  const response = await hostFetch(api ? api.path : fallbackPrefix + encodeURIComponent(name), {
    method: "POST",
    headers: { "Content-Type": "application/json" },
    body: JSON.stringify(body),
  });
  const text = await response.text();
  return { status: response.status, text, ms: Math.round(performance.now() - started) };
}

/** The answer text, indented when it is JSON. */
export function prettyAnswer(text) {
  try {
    return JSON.stringify(JSON.parse(text), null, 2);
  } catch {
    return text;
  }
}
