// Calls to the host. When the host wants its bearer token (http.token), the
// first refused call asks the person once; the token is kept in
// sessionStorage, so it lasts as long as the tab and no longer.
//
// Event streams are read with fetch rather than EventSource, because
// EventSource cannot send the Authorization header and a token in the URL
// would end up in logs and browser history.

const tokenKey = "velmora.console.token";
let askPerson = null;
let pendingAsk = null;

/** `ask(wasWrong)` shows the token form and resolves with what was typed. */
export function setTokenPrompt(ask) {
  askPerson = ask;
}

function storedToken() {
  return sessionStorage.getItem(tokenKey) || "";
}

function askToken(wasWrong) {
  // Calls refused at the same moment share one question.
  if (!pendingAsk) {
    pendingAsk = askPerson(wasWrong).then((token) => {
      sessionStorage.setItem(tokenKey, token);
      pendingAsk = null;
      return token;
    });
  }
  return pendingAsk;
}

/** fetch() with the token; on 401 asks for it and tries again. */
export async function hostFetch(path, options = {}) {
  for (;;) {
    const token = storedToken();
    const headers = new Headers(options.headers || {});
    if (token) headers.set("Authorization", `Bearer ${token}`);
    const response = await fetch(path, { ...options, headers, cache: "no-store" });
    if (response.status !== 401 || !askPerson) return response;
    await response.body?.cancel();
    if (token && storedToken() === token) sessionStorage.removeItem(tokenKey);
    await askToken(Boolean(token));
  }
}

/**
 * Reads a text/event-stream response until it ends and calls `onBlock` with
 * each block: {id, event, data}; data is null for a block without data lines
 * (a keep-alive). Comment lines are skipped.
 */
export async function readEventStream(response, onBlock) {
  const reader = response.body.getReader();
  const decoder = new TextDecoder();
  let buffer = "";
  let block = { id: null, event: "message", data: [] };
  const takeLine = (line) => {
    if (line === "") {
      if (block.id !== null || block.data.length > 0 || block.event !== "message")
        onBlock({ id: block.id, event: block.event, data: block.data.length ? block.data.join("\n") : null });
      block = { id: null, event: "message", data: [] };
      return;
    }
    if (line.startsWith(":")) return;
    const colon = line.indexOf(":");
    const field = colon < 0 ? line : line.slice(0, colon);
    let value = colon < 0 ? "" : line.slice(colon + 1);
    if (value.startsWith(" ")) value = value.slice(1);
    if (field === "data") block.data.push(value);
    else if (field === "event") block.event = value;
    else if (field === "id") block.id = value;
  };
  for (;;) {
    const { value, done } = await reader.read();
    if (done) return;
    buffer += decoder.decode(value, { stream: true });
    let end;
    while ((end = buffer.indexOf("\n")) >= 0) {
      takeLine(buffer.slice(0, end).replace(/\r$/, ""));
      buffer = buffer.slice(end + 1);
    }
  }
}

export function sleep(ms) {
  return new Promise((resolve) => setTimeout(resolve, ms));
}
