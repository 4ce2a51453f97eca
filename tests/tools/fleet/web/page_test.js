// The fleet page in headless Chromium, against kendrivex-fleet web, a
// Mosquitto broker of each case's own, and real bridges and simulators.
// CTest runs each case as its own test (fleet_page.<case>); `node
// page_test.js` runs them all. The page is read through its data attributes
// only (data-box, data-status, data-service, data-event-box, data-event-id,
// data-reply-box, data-reply-status, data-link, data-run-target,
// data-run-command, data-run), never through its layout.
'use strict';

const assert = require('node:assert/strict');
const http = require('node:http');

const {pageCase, endOfCases, waitUntil, freePort} = require('./page_world.js');

const row = (id, more = '') => `[data-box="${id}"]${more}`;
const online = (id) => row(id, '[data-status="online"]');

// The fleet, its boxes and the page, with every box's row online.
async function livePage(world, ids, boxOptions = {}) {
  await world.startBroker();
  for (const id of ids) await world.addBox(id, boxOptions[id]);
  await world.startFleet();
  const page = await world.openPage();
  await page.waitForSelector('[data-link="up"]');
  for (const id of ids) await page.waitForSelector(online(id));
  return page;
}

const attribute = (page, selector, name) => page.$eval(selector, (node, key) => node.getAttribute(key), name);
const text = (page, selector) => page.$eval(selector, (node) => node.textContent);

async function runCommand(page, target, command, timeoutMs) {
  await page.$eval('[data-run-target]', (node, value) => {
    node.value = value;
  }, target);
  await page.select('[data-run-command]', command);
  await page.$eval('#run-timeout', (node, value) => {
    node.value = value;
  }, String(timeoutMs));
  await page.waitForSelector('[data-run]:not([disabled])');
  await page.click('[data-run]');
}

// The replies shown, by box: [status, text].
function replies(page) {
  return page.$$eval('[data-reply-box]', (nodes) => Object.fromEntries(nodes.map(
      (node) => [node.getAttribute('data-reply-box'),
                 [node.getAttribute('data-reply-status'), node.querySelector('.text').textContent]])));
}

pageCase('RowsAppearWithTheirStatusAndService', async (world) => {
  await world.startBroker();
  for (const id of ['box1', 'box2', 'box3']) await world.addBox(id);
  // Online before kendrivex-fleet starts: it finds them retained, and so
  // does not know when they changed.
  await world.waitForRetained(['box1', 'box2', 'box3'], {status: 'online', service: 'up'});
  await world.startFleet();
  const first = await world.openPage();
  await first.waitForSelector(online('box3'));
  await world.box('box3').bridge.stop();
  await first.waitForSelector(row('box3', '[data-status="offline"]'));

  // A page opened now finds all three in the stream's snapshot.
  const page = await world.openPage();
  await page.waitForSelector('[data-link="up"]');
  await page.waitForSelector(row('box3'));
  for (const id of ['box1', 'box2']) {
    assert.equal(await attribute(page, row(id), 'data-status'), 'online');
    assert.equal(await attribute(page, row(id), 'data-service'), 'up');
    assert.equal(await text(page, `${row(id)} .status`), 'online');
    assert.equal(await text(page, `${row(id)} .service`), 'up');
    assert.equal(await text(page, `${row(id)} .changed`), 'unknown');
  }
  assert.equal(await attribute(page, row('box3'), 'data-status'), 'offline');
  assert.equal(await attribute(page, row('box3'), 'data-service'), 'unknown');
  // Its change was seen: when, by this machine's clock.
  const changed = await attribute(page, `${row('box3')} .changed time`, 'datetime');
  assert.ok(Math.abs(Date.parse(changed) - Date.now()) < 60000, changed);
  assert.equal(await text(page, '[data-count="boxes"]'), '3');
  assert.equal(await text(page, '[data-count="online"]'), '2');
  assert.equal(await text(page, '[data-count="offline"]'), '1');
  assert.equal(await text(page, '[data-count="down"]'), '0');
});

pageCase('TableSortsAndFiltersAsTyped', async (world) => {
  const page = await livePage(world, ['box1', 'box2', 'box10']);
  const order = () => page.$$eval('#box-rows [data-box]:not([hidden])', (nodes) => nodes.map((n) => n.dataset.box));
  assert.deepEqual(await order(), ['box1', 'box2', 'box10']);
  await page.click('[data-sort="box"]');
  assert.deepEqual(await order(), ['box10', 'box2', 'box1']);
  world.box('box2').bridge.signal('SIGKILL');
  await page.waitForSelector(row('box2', '[data-status="offline"]'));
  await page.click('[data-sort="status"]');
  assert.deepEqual(await order(), ['box2', 'box1', 'box10']);
  await page.type('#box-filter', 'BOX1');
  assert.deepEqual(await order(), ['box1', 'box10']);
  await page.type('#box-filter', '0');
  assert.deepEqual(await order(), ['box10']);
  assert.equal(await text(page, '[data-count="boxes"]'), '3');
});

pageCase('KilledBridgeTurnsItsRowOfflineWithinTwoSeconds', async (world) => {
  const page = await livePage(world, ['box1', 'box2']);
  world.box('box1').bridge.signal('SIGKILL');
  await page.waitForSelector(row('box1', '[data-status="offline"]'), {timeout: 2000});
  assert.equal(await attribute(page, row('box1'), 'data-service'), 'unknown');
  assert.equal(await attribute(page, row('box2'), 'data-status'), 'online');
  assert.equal(await text(page, '[data-count="offline"]'), '1');
  assert.equal(await attribute(page, '[data-link]', 'data-link'), 'up');
});

pageCase('StoppedServiceShowsDownAndUpWhenItIsBack', async (world) => {
  // Health pings every second find a service that vanished without a word.
  const page = await livePage(world, ['box1', 'box2'], {box1: {bridge: ['--health', '1']}});
  await page.waitForSelector(row('box1', '[data-service="up"]'));
  const box = world.box('box1');
  box.sim.signal('SIGKILL');
  await page.waitForSelector(row('box1', '[data-service="down"]'));
  assert.equal(await attribute(page, row('box1'), 'data-status'), 'online');
  assert.equal(await text(page, `${row('box1')} .service`), 'down');
  assert.equal(await text(page, '[data-count="down"]'), '1');
  assert.equal(await attribute(page, row('box2'), 'data-service'), 'up');
  await world.startSim(box);
  await page.waitForSelector(row('box1', '[data-service="up"]'));
});

pageCase('EventAppearsInTheLogAndInItsRow', async (world) => {
  const page = await livePage(world, ['box1', 'box2'], {
    box1: {sim: ['--event-interval', '300', '--event-id', '42', '--event-text', 'link up']},
    box2: {sim: ['--event-interval', '0']},
  });
  const line = '[data-event-box="box1"][data-event-id="42"]';
  await page.waitForSelector(line);
  assert.equal(await text(page, `${line} .box`), 'box1');
  assert.equal(await text(page, `${line} .text`), 'link up');
  await page.waitForFunction((selector) => document.querySelector(selector).textContent !== '',
                             {}, `${row('box1')} .event .number`);
  assert.equal(await text(page, `${row('box1')} .event .number`), '42');
  assert.equal(await text(page, `${row('box1')} .event .text`), 'link up');
  // The box's own time, as it sent it, and of this moment (same clock).
  const sent = await attribute(page, `${row('box1')} .event time`, 'datetime');
  assert.match(sent, /^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z$/);
  assert.ok(Math.abs(Date.parse(sent) - Date.now()) < 60000, sent);
  assert.equal(await text(page, `${row('box2')} .event .text`), '');
  assert.equal(await page.$(`[data-event-box="box2"]`), null);
});

pageCase('EventLogFiltersByBoxAndNumberAndPauses', async (world) => {
  const page = await livePage(world, ['box1', 'box2'], {
    box1: {sim: ['--event-interval', '200', '--event-id', '42', '--event-text', 'one']},
    box2: {sim: ['--event-interval', '200', '--event-id', '43', '--event-text', 'two']},
  });
  await page.waitForSelector('[data-event-box="box1"]');
  await page.waitForSelector('[data-event-box="box2"]');
  const shownBoxes = () => page.$$eval('[data-event-box]', (nodes) => [...new Set(nodes.map((n) => n.dataset.eventBox))]);

  await page.type('#log-box', 'box2');
  assert.deepEqual(await shownBoxes(), ['box2']);
  await page.$eval('#log-box', (node) => {
    node.value = '';
    node.dispatchEvent(new Event('input'));
  });
  await page.type('#log-number', '42');
  assert.deepEqual(await shownBoxes(), ['box1']);
  await page.$eval('#log-number', (node) => {
    node.value = '';
    node.dispatchEvent(new Event('input'));
  });
  assert.deepEqual((await shownBoxes()).sort(), ['box1', 'box2']);

  // Paused, the log stands still while events keep coming; resumed, it
  // shows them.
  await page.click('#log-pause');
  const top = () => page.$eval('[data-event-box] time', (node) => node.getAttribute('datetime'));
  const before = await top();
  await page.waitForFunction(() => /paused, [1-9]\d* new/.test(document.getElementById('log-state').textContent));
  assert.equal(await top(), before);
  await page.click('#log-pause');
  await page.waitForFunction((time) => document.querySelector('[data-event-box] time').getAttribute('datetime') > time,
                             {}, before);
});

pageCase('PingOnAllShowsEachPongAndMarksABoxThatDoesNotAnswer', async (world) => {
  const page = await livePage(world, ['box1', 'box2', 'box3']);
  // A stopped bridge keeps its connection, and so its status: the box is
  // expected, and does not answer.
  world.box('box3').bridge.signal('SIGSTOP');
  await runCommand(page, 'all', 'ping', 2500);
  await page.waitForSelector('[data-reply-box="box3"]');
  const shown = await replies(page);
  assert.deepEqual(Object.keys(shown).sort(), ['box1', 'box2', 'box3']);
  assert.deepEqual(shown.box1, ['0', 'PONG']);
  assert.deepEqual(shown.box2, ['0', 'PONG']);
  assert.equal(shown.box3[0], '3');
  assert.notEqual(shown.box3[1], '');
});

pageCase('PickedBoxesAreTheTarget', async (world) => {
  const page = await livePage(world, ['box1', 'box2', 'box3']);
  await page.click(`${row('box2')} .pick input`);
  await page.click(`${row('box3')} .pick input`);
  assert.equal(await page.$eval('[data-run-target]', (node) => node.value), 'box2,box3');
  await runCommand(page, await page.$eval('[data-run-target]', (node) => node.value), 'mac', 5000);
  await page.waitForSelector('[data-reply-box="box3"]');
  await page.waitForSelector('[data-reply-box="box2"]');
  const shown = await replies(page);
  assert.deepEqual(Object.keys(shown).sort(), ['box2', 'box3']);
  assert.deepEqual(shown.box2, ['0', '02:1a:7d:4c:88:e1']);
  assert.equal(world.requestsOf('box1').filter((line) => line.startsWith('request [3]')).length, 0);
});

pageCase('HostileEventTextAndBoxIdShowAsText', async (world) => {
  const hostile = '<img src=x onerror=alert(1)>';
  const hostileId = '<svg onload=alert(2)>';
  const page = await livePage(world, ['box1', hostileId], {
    box1: {sim: ['--event-interval', '300', '--event-id', '9', '--event-text', hostile]},
  });
  const line = '[data-event-box="box1"][data-event-id="9"]';
  await page.waitForSelector(line);
  assert.equal(await text(page, `${line} .text`), hostile);
  await page.waitForFunction((selector, want) => document.querySelector(selector).textContent === want, {},
                             `${row('box1')} .event .text`, hostile);
  assert.equal(await text(page, `${row(hostileId)} .id`), hostileId);
  assert.equal(await page.$('img'), null);
  assert.equal(await page.$('svg'), null);
  assert.deepEqual(world.consoleLines.filter((entry) => entry.startsWith('dialog')), []);
});

pageCase('CrossOriginPostIsRefused', async (world) => {
  await world.startBroker();
  // No health pings: every ping the service sees is a command's.
  await world.addBox('box1', {bridge: ['--health', '0']});
  await world.startFleet();
  const runUrl = `${world.url}api/run`;
  const body = JSON.stringify({target: 'all', command: 'ping', timeout: 1000});

  // A site of another origin, open in the operator's browser.
  const port = await freePort();
  const site = http.createServer((request, response) => {
    response.writeHead(200, {'Content-Type': 'text/html'});
    response.end('<!doctype html><title>elsewhere</title><p>another site</p>');
  });
  await new Promise((resolve) => site.listen(port, '127.0.0.1', resolve));
  try {
    const page = await world.openPage(`http://127.0.0.1:${port}/`);
    const statuses = [];
    page.on('response', (response) => {
      if (response.url() === runUrl) statuses.push(response.status());
    });
    // A request the browser sends without asking first (a form's kind):
    // the fleet refuses it.
    await page.evaluate((url, payload) => fetch(url, {
      method: 'POST',
      mode: 'no-cors',
      headers: {'Content-Type': 'text/plain'},
      body: payload,
    }), runUrl, body);
    await waitUntil(() => statuses.length > 0, 5000, 'the answer to the cross-origin POST');
    assert.ok(statuses[0] === 403 || statuses[0] === 415, `status ${statuses[0]}`);
    // One with JSON: the browser asks first, and the fleet does not allow it.
    const sent = await page.evaluate((url, payload) => fetch(url, {
      method: 'POST',
      headers: {'Content-Type': 'application/json'},
      body: payload,
    }).then((response) => `answered ${response.status}`, (error) => `refused: ${error.name}`), runUrl, body);
    assert.equal(sent, 'refused: TypeError');
  } finally {
    // The browser keeps its connections open: close them too.
    site.closeAllConnections();
    await new Promise((resolve) => site.close(resolve));
  }

  // The same POST with the other origin, straight from here: 403.
  const status = await new Promise((resolve, reject) => {
    const request = http.request(runUrl, {
      method: 'POST',
      headers: {'Content-Type': 'application/json', Origin: `http://127.0.0.1:${port}`},
    }, (response) => {
      response.resume();
      resolve(response.statusCode);
    });
    request.on('error', reject);
    request.end(body);
  });
  assert.equal(status, 403);

  // The box was never asked; from the fleet's own page it is.
  const pings = () => world.requestsOf('box1').filter((line) => line.startsWith('request [1]'));
  assert.deepEqual(pings(), []);
  const page = await world.openPage();
  await page.waitForSelector(online('box1'));
  await runCommand(page, 'box1', 'ping', 5000);
  await page.waitForSelector('[data-reply-box="box1"][data-reply-status="0"]');
  assert.equal(pings().length, 1);
});

pageCase('PageComesBackAfterTheBrokerRestarts', async (world) => {
  const page = await livePage(world, ['box1']);
  await world.stopBroker();
  await page.waitForSelector('[data-link="down"]', {timeout: 2000});
  await world.startBroker();
  await page.waitForSelector('[data-link="up"]', {timeout: 30000});
  // The bridge is back too, and a change after the restart is shown.
  await page.waitForSelector(online('box1'), {timeout: 30000});
  world.box('box1').bridge.signal('SIGKILL');
  await page.waitForSelector(row('box1', '[data-status="offline"]'), {timeout: 2000});
});

pageCase('PageComesBackAfterTheFleetRestarts', async (world) => {
  const page = await livePage(world, ['box1', 'box2']);
  await world.stopFleet();
  await page.waitForSelector('[data-link="down"]', {timeout: 2000});
  // While the page has no link, box2 goes; the new snapshot says so.
  world.box('box2').bridge.signal('SIGKILL');
  await world.startFleet();
  await page.waitForSelector('[data-link="up"]', {timeout: 15000});
  await page.waitForSelector(row('box2', '[data-status="offline"]'));
  assert.equal(await attribute(page, row('box1'), 'data-status'), 'online');
});

endOfCases();
