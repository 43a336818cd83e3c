// The station console: wires the panels to the host. Every panel keeps
// trying by itself, so the page recovers when the host, the broker or the
// micro service comes back.

import { followBus } from "/host/console/bustap.js";
import { TelemetryChart } from "/host/console/chart.js";
import { FlightView } from "/host/console/flightview.js";
import { hostFetch, setTokenPrompt, sleep } from "/host/console/hostapi.js";
import { RouteForm } from "/host/console/routeform.js";
import { describeName, loadApiNames, prettyAnswer, sendRequest, templateBody } from "/host/console/requests.js";
import { followTelemetry, showTelemetry } from "/host/console/telemetry.js";

const healthInterval = 1000;
const $ = (id) => document.getElementById(id);

function setBadge(id, state, text = state, title = "") {
  const badge = $(id);
  badge.dataset.state = state;
  badge.textContent = text;
  badge.title = title;
}

// --- token ------------------------------------------------------------------
const tokenDialog = $("token-dialog");
let resolveToken = null;
tokenDialog.addEventListener("close", () => {
  if (!resolveToken) return;
  const token = $("token-input").value.trim();
  if (token) {
    const resolve = resolveToken;
    resolveToken = null;
    resolve(token);
  } else {
    // Closed without a token (Escape): nothing works without it, so ask again.
    setTimeout(() => tokenDialog.showModal(), 0);
  }
});
setTokenPrompt(
  (wasWrong) =>
    new Promise((resolve) => {
      resolveToken = resolve;
      $("token-reason").textContent = wasWrong
        ? "The host refused that token. Enter its access token (http.token)."
        : "This host asks for its access token (http.token).";
      $("token-input").value = "";
      tokenDialog.showModal();
    }),
);

// --- health: host, broker and service links -----------------------------------
let serviceLinkUp = false;
let vehicle = { state: "unknown", why: "" };
let stationSerial = "";

function showVehicle() {
  // Without its service the plug-in cannot know the vehicle's state.
  if (!serviceLinkUp && vehicle.state === "connected")
    setBadge("vehicle-state", "unknown", "unknown", "the service link is down");
  else
    setBadge("vehicle-state", vehicle.state, vehicle.state === "not-connected" ? "not connected" : vehicle.state, vehicle.why);
}

async function pollHealth() {
  for (;;) {
    try {
      const response = await hostFetch("/host/health");
      if (!response.ok) throw new Error(`health answered ${response.status}`);
      const report = await response.json();
      setBadge("host-state", report.status, report.status);
      setBadge("mqtt-link", report.mqtt.connected ? "connected" : "disconnected",
               report.mqtt.connected ? "connected" : "disconnected", report.mqtt.server_uri);
      const plugins = report.plugins || [];
      const links = plugins.map((p) => p.service.link);
      const link = links.length === 0 ? "none" : links.every((l) => l === "up") ? "up" : links.find((l) => l !== "up");
      serviceLinkUp = link === "up";
      setBadge("service-link", link, link, plugins.map((p) => `${p.name}: ${p.service.address}:${p.service.port}`).join("\n"));
      stationSerial = report.mqtt.station_sn || "";
      const failed = (report.failed_plugins || []).map((f) => `${f.library}: ${f.reason}`);
      $("health-detail").textContent =
        plugins.map((p) => `${p.name} ${p.state}`).concat(failed.map((f) => `failed ${f}`)).join(" · ") +
        ` · up ${Math.round(report.uptime_s)} s`;
    } catch (error) {
      setBadge("host-state", "unreachable", "unreachable", error.message);
      setBadge("mqtt-link", "unknown");
      setBadge("service-link", "unknown");
      serviceLinkUp = false;
    }
    showVehicle();
    await sleep(healthInterval);
  }
}

// --- telemetry ----------------------------------------------------------------
const chart = new TelemetryChart($("chart"));
// The one telemetry stream feeds the table, the chart and the flight view:
// the plug-in hands each sample to one stream only.
const flightView = new FlightView($("flight-view"), $("flight-caption"));
const routeForm = new RouteForm($, flightView, () => stationSerial);
$("track-clear").addEventListener("click", () => flightView.clearTrack());
let lastTelemetryAt = 0;

function startTelemetry() {
  const tbody = $("telemetry").tBodies[0];
  followTelemetry({
    onVehicle: (state, why = "") => {
      vehicle = { state, why };
      showVehicle();
    },
    onTelemetry: (telemetry) => {
      lastTelemetryAt = performance.now();
      showTelemetry(tbody, telemetry);
      chart.add(telemetry.alt, telemetry.speed);
      flightView.addTelemetry(telemetry);
      routeForm.addTelemetry(telemetry);
    },
  });
  setInterval(() => {
    const age = lastTelemetryAt ? (performance.now() - lastTelemetryAt) / 1000 : null;
    $("telemetry-age").textContent = age === null ? "waiting for data" : age < 2 ? "live" : `last ${age.toFixed(0)} s ago`;
    chart.add(undefined, undefined);
  }, 1000);
}

// --- request form --------------------------------------------------------------
function startRequests() {
  const name = $("api-name");
  const body = $("request-body");
  body.value = templateBody("");
  name.addEventListener("input", () => {
    $("api-detail").textContent = describeName(name.value.trim());
  });
  $("request-form").addEventListener("submit", async (event) => {
    event.preventDefault();
    const api = name.value.trim();
    const status = $("answer-status");
    $("send").disabled = true;
    status.dataset.state = "sending";
    status.textContent = `sending ${api} ...`;
    try {
      const answer = await sendRequest(api, body.value);
      status.dataset.state = answer.status === 200 ? "answered" : "refused";
      status.textContent = `${api}: HTTP ${answer.status} in ${answer.ms} ms`;
      $("answer").textContent = prettyAnswer(answer.text);
      // A fresh message id for the next request, keeping what was typed.
      try {
        const envelope = JSON.parse(body.value);
        const fresh = JSON.parse(templateBody(stationSerial));
        envelope.msgId = fresh.msgId;
        body.value = JSON.stringify(envelope, null, 2);
      } catch {
        // The body was sent as typed; leave it be.
      }
    } catch (error) {
      status.dataset.state = "failed";
      status.textContent = `${api}: ${error.message}`;
    } finally {
      $("send").disabled = false;
    }
  });
  (async () => {
    // The description is there as soon as the host is; retry while it is not.
    for (let attempt = 0; attempt < 30; attempt++) {
      try {
        await loadApiNames($("api-names"), $("catalogue-size"));
        if (stationSerial) body.value = templateBody(stationSerial);
        return;
      } catch (error) {
        $("catalogue-size").textContent = error.message;
        await sleep(2000);
      }
    }
  })();
}

pollHealth();
startTelemetry();
startRequests();
followBus($("bus-messages"), $("bus-count"), $("bus-pause"));
