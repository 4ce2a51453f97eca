// A fleet of a browser test's own, and the test cases' frame: a Mosquitto
// broker on a free loopback port, simulated boxes with their bridges,
// kendrivex-fleet web and headless Chromium on its page, all started by the
// case and stopped (by their process ids) when it ends. A case that fails
// leaves a screenshot, the page's console and the programs' logs in the build
// tree and names them in its failure. The programs' paths come from the
// environment that CTest sets (tests/tools/fleet/web/CMakeLists.txt).
// One case per process; the cases run one after the other when run together.
'use strict';

const assert = require('node:assert/strict');
const {spawn} = require('node:child_process');
const fs = require('node:fs');
const net = require('node:net');
const os = require('node:os');
const path = require('node:path');
const {test} = require('node:test');

const {launchBrowser, closeBrowser} = require('../../../../scripts/lib/chromium.js');

function program(variable) {
  const value = process.env[variable];
  assert.ok(value, `${variable} names no program: run the browser tests through CTest`);
  return value;
}

// Checks a condition every 20 ms until it holds; fails naming `what` when
// it still does not after `timeoutMs`. The one way these tests wait outside
// the page (inside it, puppeteer's waitForSelector and waitForFunction).
async function waitUntil(check, timeoutMs, what) {
  const deadline = Date.now() + timeoutMs;
  for (;;) {
    if (await check()) return;
    if (Date.now() > deadline) throw new Error(`gave up after ${timeoutMs} ms waiting for ${what}`);
    await new Promise((resolve) => setTimeout(resolve, 20));
  }
}

// A loopback port that nothing listens on now.
function freePort() {
  return new Promise((resolve, reject) => {
    const server = net.createServer();
    server.on('error', reject);
    server.listen(0, '127.0.0.1', () => {
      const {port} = server.address();
      server.close(() => resolve(port));
    });
  });
}

// A program the case started: its output kept in memory (and in a file of
// the case's directory), its end awaited.
class Child {
  constructor(name, argv, {cwd, logFile}) {
    this.name = name;
    this.output = '';
    this.log = fs.createWriteStream(logFile, {flags: 'a'});
    this.process = spawn(argv[0], argv.slice(1), {cwd, stdio: ['ignore', 'pipe', 'pipe']});
    this.exited = new Promise((resolve) => {
      this.process.on('exit', (code, signal) => {
        this.status = {code, signal};
        resolve(this.status);
      });
      this.process.on('error', (error) => {
        this.output += `cannot start ${argv[0]}: ${error.message}\n`;
        this.status = {code: null, signal: null};
        resolve(this.status);
      });
    });
    for (const stream of [this.process.stdout, this.process.stderr]) {
      stream.on('data', (chunk) => {
        this.output += chunk.toString();
        this.log.write(chunk);
      });
    }
  }

  get running() {
    return this.status === undefined;
  }

  async waitForOutput(pattern, timeoutMs) {
    await waitUntil(() => pattern.test(this.output) || !this.running, timeoutMs, `${this.name} to print ${pattern}`);
    const match = pattern.exec(this.output);
    assert.ok(match, `${this.name} ended (${JSON.stringify(this.status)}) before printing ${pattern}:\n${this.output}`);
    return match;
  }

  signal(name) {
    if (this.running) this.process.kill(name);
  }

  // SIGTERM (and SIGCONT, for a stopped one), then SIGKILL when it has not
  // ended within `timeoutMs`.
  async stop(timeoutMs = 5000) {
    if (this.running) {
      this.signal('SIGTERM');
      this.signal('SIGCONT');
      let timer;
      const late = new Promise((resolve) => {
        timer = setTimeout(resolve, timeoutMs, null);
      });
      const ended = await Promise.race([this.exited, late]);
      clearTimeout(timer);
      if (ended === null) {
        this.signal('SIGKILL');
        await this.exited;
      }
    }
    await new Promise((resolve) => this.log.end(resolve));
  }
}

class World {
  constructor(name) {
    this.name = name;
    this.dir = fs.mkdtempSync(path.join(os.tmpdir(), 'kdx-page-'));
    this.children = [];
    this.boxes = new Map();
    this.consoleLines = [];
    this.prefix = 'kendrivex';
  }

  start(name, argv) {
    const child = new Child(name, argv, {cwd: this.dir, logFile: path.join(this.dir, `${name}.log`)});
    this.children.push(child);
    return child;
  }

  // ---- The broker -------------------------------------------------------

  async startBroker() {
    if (!this.brokerPort) this.brokerPort = await freePort();
    const config = path.join(this.dir, 'mosquitto.conf');
    const lines = [
      `listener ${this.brokerPort} 127.0.0.1`,
      'allow_anonymous true',
      'persistence false',
      'set_tcp_nodelay true',
      'log_dest stderr',
      'log_type error',
      'log_type warning',
      'log_type notice',
      'log_type information',
    ];
    // Started as root, the broker would become the user mosquitto, who
    // cannot read the case's private directory.
    if (process.getuid() === 0) lines.push('user root');
    fs.writeFileSync(config, `${lines.join('\n')}\n`);
    this.broker = this.start('broker', ['mosquitto', '-c', config]);
    await this.broker.waitForOutput(/ running\n/, 10000);
  }

  get brokerUrl() {
    return `mqtt://127.0.0.1:${this.brokerPort}`;
  }

  async stopBroker() {
    await this.broker.stop();
  }

  // ---- Boxes ------------------------------------------------------------

  // A simulated box with its bridge. `sim` and `bridge` are more options of
  // each (events: --event-interval, --event-id, --event-text; the bridge's
  // --health, so that a stopped service is found soon).
  async addBox(id, {sim = [], bridge = []} = {}) {
    const boxDir = fs.mkdtempSync(path.join(this.dir, 'box-'));
    const socket = path.join(boxDir, 'svc');
    const box = {id, dir: boxDir, socket, simLog: path.join(boxDir, 'sim.log'), simArgs: sim};
    this.boxes.set(id, box);
    await this.startSim(box);
    box.bridge = this.start(`bridge-${this.boxes.size}`, [
      program('KDX_BRIDGE_PATH'), '-s', socket, '-d', boxDir, '-i', id, '-b', this.brokerUrl, ...bridge,
    ]);
    return box;
  }

  async startSim(box) {
    box.sim = this.start(`sim-${path.basename(box.dir)}`,
                         [program('KDX_SIM_PATH'), '--log', box.simLog, ...box.simArgs, box.socket]);
    await waitUntil(() => fs.existsSync(box.socket) || !box.sim.running, 10000, `the socket of ${box.id}'s service`);
    assert.ok(box.sim.running, `the simulator of ${box.id} ended: ${box.sim.output}`);
  }

  box(id) {
    const box = this.boxes.get(id);
    assert.ok(box, `no box ${id} in this case`);
    return box;
  }

  // Waits until the broker holds the retained values `wanted` (topic level
  // to payload: {status: 'online', service: 'up'}) for each of the boxes, as
  // a subscriber of those topics reads them.
  async waitForRetained(ids, wanted, timeoutMs = 10000) {
    const levels = Object.keys(wanted);
    const topics = levels.flatMap((level) => ['-t', `${this.prefix}/+/${level}`]);
    const watcher = this.start(`retained-${Date.now()}`,
                               ['mosquitto_sub', '-h', '127.0.0.1', '-p', String(this.brokerPort), '-v', ...topics]);
    try {
      await waitUntil(() => {
        const last = new Map();
        for (const line of watcher.output.split('\n')) {
          const space = line.indexOf(' ');
          if (space > 0) last.set(line.slice(0, space), line.slice(space + 1));
        }
        return ids.every((id) => levels.every((level) => last.get(`${this.prefix}/${id}/${level}`) === wanted[level]));
      }, timeoutMs, `${ids.join(', ')}: ${JSON.stringify(wanted)} on the broker`);
    } finally {
      await watcher.stop();
    }
  }

  // What the box's simulator was asked, one line a request.
  requestsOf(id) {
    const log = fs.existsSync(this.box(id).simLog) ? fs.readFileSync(this.box(id).simLog, 'utf8') : '';
    return log.split('\n').filter((line) => line.startsWith('request ['));
  }

  // ---- kendrivex-fleet --------------------------------------------------

  // Starts kendrivex-fleet web; the first start takes a free port, a
  // restart listens on the same one. Returns the page's address.
  async startFleet() {
    const listen = this.fleetPort ? `127.0.0.1:${this.fleetPort}` : '127.0.0.1:0';
    this.fleet = this.start('fleet', [program('KDX_FLEET_PATH'), '-b', this.brokerUrl, 'web', '--listen', listen]);
    const match = await this.fleet.waitForOutput(/^(http:\/\/127\.0\.0\.1:(\d+)\/)\n/, 10000);
    this.fleetPort = Number(match[2]);
    this.url = match[1];
    return this.url;
  }

  async stopFleet() {
    await this.fleet.stop();
  }

  // ---- The browser ------------------------------------------------------

  async openPage(url = this.url) {
    if (!this.browser) this.browser = await launchBrowser();
    const page = await this.browser.newPage();
    page.setDefaultTimeout(10000);
    page.on('console', (message) => this.consoleLines.push(`${message.type()}: ${message.text()}`));
    page.on('pageerror', (error) => this.consoleLines.push(`page error: ${error.message}`));
    page.on('dialog', (dialog) => {
      this.consoleLines.push(`dialog: ${dialog.type()} ${dialog.message()}`);
      dialog.dismiss().catch(() => {});
    });
    page.on('requestfailed', (request) => {
      this.consoleLines.push(`request failed: ${request.url()} ${request.failure() && request.failure().errorText}`);
    });
    this.page = page;
    await page.goto(url);
    return page;
  }

  // ---- The end ----------------------------------------------------------

  // The screenshot, the page's console and the programs' logs, in the
  // build tree; returns what to add to the failure.
  async saveFailure() {
    const root = process.env.KDX_PAGE_ARTIFACTS || path.join(os.tmpdir(), 'kdx-page-artifacts');
    const dir = path.join(root, this.name);
    fs.rmSync(dir, {recursive: true, force: true});
    fs.mkdirSync(dir, {recursive: true});
    const saved = [];
    if (this.page) {
      const screenshot = path.join(dir, 'screenshot.png');
      try {
        await this.page.screenshot({path: screenshot, fullPage: true});
        saved.push(`screenshot: ${screenshot}`);
      } catch (error) {
        saved.push(`no screenshot: ${error.message}`);
      }
    }
    const consoleLog = path.join(dir, 'console.log');
    fs.writeFileSync(consoleLog, this.consoleLines.map((line) => `${line}\n`).join(''));
    saved.push(`page console: ${consoleLog}`);
    for (const name of fs.readdirSync(this.dir)) {
      if (name.endsWith('.log')) fs.copyFileSync(path.join(this.dir, name), path.join(dir, name));
    }
    for (const box of this.boxes.values()) {
      // Named after the box's directory: a box ID may be anything a topic holds.
      if (fs.existsSync(box.simLog)) fs.copyFileSync(box.simLog, path.join(dir, `sim-${path.basename(box.dir)}.log`));
    }
    saved.push(`programs' logs: ${dir}`);
    return saved.join('\n');
  }

  async close() {
    try {
      await closeBrowser(this.browser);
    } finally {
      // The bridges before their services and the broker, as they would end
      // on a box; the programs of each kind at once.
      const kind = (child) => (child.name.startsWith('bridge') ? 0 : child.name === 'broker' ? 2 : 1);
      for (const step of [0, 1, 2]) {
        await Promise.all(this.children.filter((child) => kind(child) === step).map((child) => child.stop()));
      }
      fs.rmSync(this.dir, {recursive: true, force: true});
    }
  }
}

// The cases of a file; with $KDX_PAGE_CASE set (as CTest does, one test a
// case), only that one.
const registered = [];

function pageCase(name, body, {timeout = 60000} = {}) {
  registered.push(name);
  const only = process.env.KDX_PAGE_CASE;
  if (only && only !== name) return;
  test(name, {timeout}, async () => {
    const world = new World(name);
    try {
      await body(world);
    } catch (error) {
      const saved = await world.saveFailure();
      if (error && typeof error === 'object') error.message = `${error.message}\n${saved}`;
      throw error;
    } finally {
      await world.close();
    }
  });
}

// After the last case: a case name that matches none is an error, not a
// run of nothing.
function endOfCases() {
  const only = process.env.KDX_PAGE_CASE;
  if (only && !registered.includes(only)) {
    test(`the case ${only}`, () => assert.fail(`no case ${only}; the cases: ${registered.join(', ')}`));
  }
}

module.exports = {World, pageCase, endOfCases, waitUntil, freePort};
