// The gateway as it runs on a station, all real processes on loopback ports:
// a mosquitto broker, the pilot-sim simulator and velmora-host with the built
// plug-in. Every wait is bounded; stop() ends what start() began.

import { spawn } from "node:child_process";
import { createWriteStream, existsSync, mkdtempSync, readFileSync, writeFileSync } from "node:fs";
import { createServer, connect } from "node:net";
import { tmpdir } from "node:os";
import { join } from "node:path";

const startBound = 20000;
const setpriv = "/usr/bin/setpriv";
const stopBound = 5000;

export const stationSn = "station-console";

function freePort() {
  return new Promise((resolve, reject) => {
    const server = createServer();
    server.once("error", reject);
    server.listen(0, "127.0.0.1", () => {
      const { port } = server.address();
      server.close(() => resolve(port));
    });
  });
}

function accepts(port) {
  return new Promise((resolve) => {
    const socket = connect({ host: "127.0.0.1", port });
    socket.once("connect", () => {
      socket.destroy();
      resolve(true);
    });
    socket.once("error", () => resolve(false));
  });
}

export async function waitFor(condition, bound, what) {
  const deadline = Date.now() + bound;
  for (;;) {
    if (await condition()) return;
    if (Date.now() > deadline) throw new Error(`timed out after ${bound} ms waiting for ${what}`);
    await new Promise((resolve) => setTimeout(resolve, 50));
  }
}

/** A child whose output goes to a log file and is kept for the line waits. */
class Child {
  constructor(name, args, logPath, { env = process.env, input = false } = {}) {
    this.name = name;
    this.output = "";
    this.exited = null;
    const log = createWriteStream(logPath, { flags: "a" });
    // With setpriv the child is killed when this process dies, even by SIGKILL
    // (a test runner's time limit), so no broker or host outlives a test.
    const command = existsSync(setpriv) ? [setpriv, "--pdeathsig", "SIGKILL", "--", ...args] : args;
    this.process = spawn(command[0], command.slice(1), { stdio: [input ? "pipe" : "ignore", "pipe", "pipe"], env });
    // A child that ended before reading its input must not end this process.
    this.process.stdin?.on("error", () => {});
    for (const stream of [this.process.stdout, this.process.stderr]) {
      stream.on("data", (chunk) => {
        this.output += chunk.toString();
        log.write(chunk);
      });
    }
    this.exitPromise = new Promise((resolve) => {
      this.process.once("exit", (code, signal) => {
        this.exited = { code, signal };
        log.end();
        resolve(this.exited);
      });
      this.process.once("error", (error) => {
        this.exited = { error };
        resolve(this.exited);
      });
    });
  }

  /** The whole first line holding `text` written after output offset `from`. */
  async line(text, bound, from = 0) {
    let found = null;
    await waitFor(
      () => {
        const at = this.output.indexOf(text, from);
        if (at >= 0) {
          const start = this.output.lastIndexOf("\n", at) + 1;
          const end = this.output.indexOf("\n", at);
          found = this.output.slice(start, end < 0 ? undefined : end);
          return true;
        }
        if (this.exited) throw new Error(`${this.name} ended (${JSON.stringify(this.exited)}):\n${this.output}`);
        return false;
      },
      bound,
      `${this.name} to print "${text}"`,
    );
    return found;
  }

  /** Writes one line to the child's standard input (spawned with `input`). */
  send(line) {
    if (this.exited) throw new Error(`${this.name} ended (${JSON.stringify(this.exited)}):\n${this.output}`);
    this.process.stdin.write(line + "\n");
  }

  async stop(signal = "SIGTERM") {
    if (this.exited) return this.exited;
    this.process.kill(signal);
    const timer = setTimeout(() => this.process.kill("SIGKILL"), stopBound);
    const result = await this.exitPromise;
    clearTimeout(timer);
    return result;
  }
}

function portOf(line) {
  return Number(line.slice(line.lastIndexOf(":") + 1));
}

export class GatewayStack {
  /** Paths of the built programs; `token` makes the host ask for it. */
  constructor({ hostBin, simBin, plugin, token = "" }) {
    for (const [what, path] of Object.entries({ hostBin, simBin, plugin })) {
      if (!path || !existsSync(path)) throw new Error(`${what} is not built (expected at "${path}")`);
    }
    Object.assign(this, { hostBin, simBin, plugin, token });
    this.dir = mkdtempSync(join(tmpdir(), "velmora-console-"));
  }

  async start() {
    await this.startBroker();
    await this.startSim();
    await this.startHost();
  }

  async startBroker() {
    // The broker cannot take port 0; a port the kernel just gave out is
    // nearly always still free, and a lost race is tried again.
    for (let attempt = 1; ; attempt++) {
      this.mqttPort = await freePort();
      const config = join(this.dir, "mosquitto.conf");
      const lines = [`listener ${this.mqttPort} 127.0.0.1`, "allow_anonymous true", "persistence false"];
      if (process.getuid && process.getuid() === 0) lines.push("user root");
      writeFileSync(config, lines.join("\n") + "\n");
      this.broker = new Child("mosquitto", ["/usr/sbin/mosquitto", "-c", config], join(this.dir, "mosquitto.log"));
      try {
        await waitFor(async () => {
          if (this.broker.exited) throw new Error(`mosquitto ended:\n${this.broker.output}`);
          return accepts(this.mqttPort);
        }, 5000, "mosquitto to listen");
        return;
      } catch (error) {
        await this.broker.stop("SIGKILL");
        if (attempt === 3) throw error;
      }
    }
  }

  async startSim(port = 0) {
    this.sim = new Child(
      "pilot-sim",
      [this.simBin, "--port", String(port), "--telemetry-hz", "10", "--control-stdin"],
      join(this.dir, "pilot-sim.log"),
      { input: true },
    );
    this.simPort = portOf(await this.sim.line("pilot-sim listening on ", startBound));
    return this.simPort;
  }

  /**
   * How many forwarded requests the simulator has received since it started,
   * from its "status" command: every request the plug-in passed on to the
   * service, whatever the answer.
   */
  async forwardedRequests() {
    const from = this.sim.output.length;
    this.sim.send("status");
    const line = await this.sim.line(" forwarded request(s)", startBound, from);
    const count = /(\d+) forwarded request\(s\)/.exec(line);
    if (!count) throw new Error(`pilot-sim status without a count: ${line}`);
    return Number(count[1]);
  }

  /** Starts the host on `port` (0: the kernel's choice) with the plug-in. */
  async startHost({ token = this.token, port = 0 } = {}) {
    this.token = token;
    const http = { address: "127.0.0.1", port, threads: 64 };
    if (token) http.token = token;
    const config = {
      http,
      mqtt: { server_uri: `127.0.0.1:${this.mqttPort}`, user_name: "", pawsswd: "", client_id: "velmora-console-test" },
      station: { station_sn: stationSn },
      plugins: [{ library: this.plugin, service_address: "127.0.0.1", service_port: this.simPort, service_wait_seconds: 5 }],
      log: { level: "information", file: join(this.dir, "host.log") },
    };
    const path = join(this.dir, "velmora-host.json");
    writeFileSync(path, JSON.stringify(config, null, 2));
    this.host = new Child("velmora-host", [this.hostBin, "--config", path], join(this.dir, "host.out"));
    this.httpPort = portOf(await this.host.line("velmora-host listening on http://", startBound));
    await this.host.line("velmora-host ready: 1 of 1 plug-in(s) started", startBound);
    this.base = `http://127.0.0.1:${this.httpPort}`;
  }

  async stopHost() {
    const result = await this.host.stop();
    if (result.code !== 0) throw new Error(`velmora-host stopped with ${JSON.stringify(result)}:\n${this.host.output}`);
  }

  async stop() {
    for (const child of [this.host, this.sim, this.broker]) {
      if (child) await child.stop();
    }
  }

  /** What each process wrote, for a failing test. */
  diagnostics() {
    const tail = (text, bytes = 4000) => (text.length <= bytes ? text : "..." + text.slice(-bytes));
    const file = (name) => (existsSync(join(this.dir, name)) ? readFileSync(join(this.dir, name), "utf8") : "");
    return [
      `--- velmora-host output\n${tail(this.host?.output ?? "")}`,
      `--- velmora-host log\n${tail(file("host.log"))}`,
      `--- pilot-sim output\n${tail(this.sim?.output ?? "")}`,
      `--- mosquitto\n${tail(this.broker?.output ?? "", 1500)}`,
    ].join("\n");
  }
}
