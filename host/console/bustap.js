// The host's bus live, from the "/host/bus" event stream: the newest messages
// first, a bounded number of them, drawn at most a few times a second however
// busy the bus is.

import { hostFetch, readEventStream, sleep } from "/host/console/hostapi.js";

const kept = 40;
const drawInterval = 250;
const retryPause = 2000;

function summary(block) {
  let message = null;
  try {
    message = JSON.parse(block.data);
  } catch {
    // A rejected text is shown as it came.
  }
  if (!message || typeof message !== "object") return { title: block.event, text: block.data ?? "" };
  const api = message.interface || message.api || "";
  // Records to other plug-ins carry the API of what they record.
  const recorded = message.data && message.data.record && message.data.record.api;
  const to = Array.isArray(message.to) ? message.to.length : 0;
  const kind = block.event === "bus" ? "" : `${block.event} `;
  return {
    title: `${kind}${api || "(no api)"}${recorded ? ` (${recorded})` : ""} → ${to} receiver${to === 1 ? "" : "s"}`,
    text: JSON.stringify(message, null, 2),
  };
}

export function followBus(list, countLabel, pauseBox) {
  const waiting = [];
  let total = 0;

  setInterval(() => {
    if (waiting.length === 0 || pauseBox.checked) return;
    for (const block of waiting.splice(0).slice(-kept)) {
      const { title, text } = summary(block);
      const item = document.createElement("li");
      const details = document.createElement("details");
      const head = document.createElement("summary");
      head.textContent = `#${block.id ?? "-"} ${new Date().toLocaleTimeString()} ${title}`;
      const body = document.createElement("pre");
      body.textContent = text;
      details.append(head, body);
      item.appendChild(details);
      list.prepend(item);
    }
    while (list.children.length > kept) list.lastElementChild.remove();
    countLabel.textContent = `${total} messages seen`;
  }, drawInterval);

  (async () => {
    for (;;) {
      try {
        const response = await hostFetch("/host/bus");
        if (response.ok) {
          await readEventStream(response, (block) => {
            if (block.data === null) return;
            total += 1;
            waiting.push(block);
            if (waiting.length > kept) waiting.shift();
          });
        } else {
          await response.body?.cancel();
          countLabel.textContent = `bus tap answered ${response.status}`;
        }
      } catch (error) {
        countLabel.textContent = `bus tap: ${error.message}`;
      }
      await sleep(retryPause);
    }
  })();
}
