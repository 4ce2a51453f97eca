// The fleet page's figures in headless Chromium (run by
// bench/fleet/page_bench.sh, which starts the fleet): the load of the full
// table, each event's latency from its own time stamp to the frame that
// shows it, the browser's CPU, and the memory of the browser and of
// kendrivex-fleet through the run. Prints Markdown.
// Usage: node bench/fleet/page_bench.js URL BOXES SECONDS FLEET_PID
'use strict';

const fs = require('node:fs');

const {launchBrowser, closeBrowser} = require('../../scripts/lib/chromium.js');

const kTicksPerSecond = 100;  // the kernel's clock ticks of /proc/PID/stat (USER_HZ)
const kSamples = 10;          // memory samples through the run

// The process and its descendants, from /proc.
function tree(root) {
  const children = new Map();
  for (const name of fs.readdirSync('/proc')) {
    if (!/^\d+$/.test(name)) continue;
    try {
      const stat = fs.readFileSync(`/proc/${name}/stat`, 'utf8');
      const parent = Number(stat.slice(stat.lastIndexOf(')') + 2).split(' ')[1]);
      if (!children.has(parent)) children.set(parent, []);
      children.get(parent).push(Number(name));
    } catch (error) {
      // Gone meanwhile.
    }
  }
  const all = [];
  const todo = [root];
  while (todo.length) {
    const pid = todo.pop();
    all.push(pid);
    todo.push(...(children.get(pid) || []));
  }
  return all;
}

// User and system CPU seconds of the processes, as the kernel counts them.
function cpuSeconds(pids) {
  let ticks = 0;
  for (const pid of pids) {
    try {
      const stat = fs.readFileSync(`/proc/${pid}/stat`, 'utf8');
      const fields = stat.slice(stat.lastIndexOf(')') + 2).split(' ');
      ticks += Number(fields[11]) + Number(fields[12]);
    } catch (error) {
      // Gone meanwhile: its time is lost to the sum.
    }
  }
  return ticks / kTicksPerSecond;
}

// Resident memory of the processes, in MiB. Chromium's processes share much
// of theirs; the sum counts shared pages once per process (Pss would not,
// but smaps_rollup costs more to read).
function residentMiB(pids) {
  let kib = 0;
  for (const pid of pids) {
    try {
      const status = fs.readFileSync(`/proc/${pid}/status`, 'utf8');
      const match = /VmRSS:\s+(\d+) kB/.exec(status);
      if (match) kib += Number(match[1]);
    } catch (error) {
      // Gone meanwhile.
    }
  }
  return kib / 1024;
}

function percentile(sorted, fraction) {
  if (!sorted.length) return NaN;
  return sorted[Math.min(sorted.length - 1, Math.floor(fraction * sorted.length))];
}

async function main() {
  const [url, boxesText, secondsText, fleetPidText] = process.argv.slice(2);
  const boxes = Number(boxesText);
  const seconds = Number(secondsText);
  const fleetPid = Number(fleetPidText);
  const browser = await launchBrowser({size: {width: 1280, height: 800}});
  try {
    // The tab the browser opened with: a new tab's own start-up (the
    // browser's pages of its own) would count against the page's load.
    const page = (await browser.pages())[0] || (await browser.newPage());
    page.setDefaultTimeout(60000);
    // Each event's time stamp as the frame that shows it puts it into its
    // box's row (the log takes it in the same frame; of its lines, only
    // those in view are drawn): the latency from the box to the page.
    await page.evaluateOnNewDocument(() => {
      window.kdxLatencies = [];
      document.addEventListener('DOMContentLoaded', () => {
        new MutationObserver((records) => {
          const now = Date.now();
          for (const record of records) {
            if (record.target.tagName !== 'TIME' || !record.target.parentElement.classList.contains('event')) continue;
            const sent = Date.parse(record.target.getAttribute('datetime'));
            if (sent) window.kdxLatencies.push(now - sent);
          }
        }).observe(document.getElementById('box-rows'), {subtree: true, attributes: true, attributeFilter: ['datetime']});
      });
    });
    await page.goto(url);
    const loadMs = await page.waitForFunction((total) => {
      const rows = document.querySelectorAll('#box-rows [data-box]').length;
      return rows >= total ? performance.now() : false;
    }, {polling: 'raf'}, boxes).then((handle) => handle.jsonValue());
    // The snapshot's events are older than the page: latencies count from
    // here on.
    await page.evaluate(() => {
      window.kdxLatencies = [];
    });

    const browserPid = browser.process().pid;
    const start = Date.now();
    const cpuStart = cpuSeconds(tree(browserPid));
    const memory = [];
    // The latencies are taken out of the page at each sample, so that the
    // measurement's own array does not count as the page's heap, and the
    // heap is measured after a collection: what the page holds, not what
    // it has yet to collect.
    const session = await page.target().createCDPSession();
    const latencies = [];
    const drain = async () => {
      for (const latency of await page.evaluate(() => window.kdxLatencies.splice(0))) latencies.push(latency);
    };
    for (let i = 0; i <= kSamples; i += 1) {
      if (i > 0) await new Promise((resolve) => setTimeout(resolve, (seconds * 1000) / kSamples));
      await drain();
      await session.send('HeapProfiler.collectGarbage');
      const heap = (await page.metrics()).JSHeapUsedSize / 1048576;
      memory.push({
        at: Math.round((Date.now() - start) / 1000),
        browser: residentMiB(tree(browserPid)),
        heap,
        fleet: residentMiB([fleetPid]),
      });
    }
    const elapsed = (Date.now() - start) / 1000;
    const cores = (cpuSeconds(tree(browserPid)) - cpuStart) / elapsed;
    await drain();
    latencies.sort((a, b) => a - b);
    const lines = await page.$$eval('[data-event-box]', (nodes) => nodes.length);
    const nodes = (await page.metrics()).Nodes;

    const fixed = (value, digits = 0) => Number(value).toFixed(digits);
    console.log(`## The fleet page, ${boxes} boxes, one event a second each, ${fixed(elapsed)} s\n`);
    console.log('| what | figure | goal |');
    console.log('|---|---:|---|');
    console.log(`| load to the full table | ${fixed(loadMs)} ms | under 1000 ms |`);
    console.log(`| event latency, median | ${fixed(percentile(latencies, 0.5))} ms | under 200 ms |`);
    console.log(`| event latency, 99th percentile | ${fixed(percentile(latencies, 0.99))} ms | under 1000 ms |`);
    console.log(`| events measured | ${latencies.length} (${fixed(latencies.length / elapsed)} a second) | ` +
                `${boxes} a second |`);
    console.log(`| browser CPU | ${fixed(cores, 2)} cores | under 0.5 |`);
    console.log(`| event log lines in the page at the end (those in view) | ${lines} | |`);
    console.log(`| DOM nodes at the end | ${nodes} | |`);
    console.log('\nMemory through the run (MiB; resident, all the browser\'s processes summed; its JavaScript heap):\n');
    console.log('| s | browser | JS heap | kendrivex-fleet |');
    console.log('|---:|---:|---:|---:|');
    for (const sample of memory) {
      console.log(`| ${sample.at} | ${fixed(sample.browser)} | ${fixed(sample.heap, 1)} | ${fixed(sample.fleet, 1)} |`);
    }
  } finally {
    await closeBrowser(browser);
  }
}

main().catch((error) => {
  console.error(`page_bench: ${error.stack || error.message}`);
  process.exit(1);
});
