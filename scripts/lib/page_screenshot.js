// Saves a picture of the fleet page for the README: opens it in headless
// Chromium, waits until it shows every box (and, in a fleet of five or more,
// the box whose service scripts/fleet.sh stopped and the one whose bridge it
// stopped), the last event of (nearly) every box and a log full of them, runs ping on all boxes and saves the
// page once the replies are in. Run by scripts/fleet.sh --screenshot, with
// NODE_PATH at the build's puppeteer-core.
// Usage: node scripts/lib/page_screenshot.js URL FILE COUNT
'use strict';

const {launchBrowser, closeBrowser} = require('./chromium.js');

async function main() {
  const [url, file, countText] = process.argv.slice(2);
  const count = Number(countText);
  if (!url || !file || !(count > 0)) {
    console.error('usage: node scripts/lib/page_screenshot.js URL FILE COUNT');
    process.exit(2);
  }
  const browser = await launchBrowser({size: {width: 1280, height: 760}});
  try {
    const page = await browser.newPage();
    page.setDefaultTimeout(30000);
    await page.goto(url);
    await page.waitForSelector('[data-link="up"]');
    await page.waitForFunction((total, both) => {
      const read = (name) => Number(document.querySelector(`[data-count="${name}"]`).textContent);
      const lines = [...document.querySelectorAll('#log-lines li')];
      const withEvents = [...document.querySelectorAll('#box-rows .event .number')].filter((n) => n.textContent).length;
      return read('boxes') === total && (!both || (read('offline') >= 1 && read('down') >= 1)) &&
          withEvents >= total - 2 && lines.length > 0 && lines.every((line) => !line.hidden);
    }, {}, count, count >= 5);
    await page.select('[data-run-command]', 'ping');
    await page.$eval('#run-timeout', (node) => {
      node.value = '2000';
    });
    await page.click('[data-run]');
    await page.waitForSelector('[data-reply-box]');
    await page.waitForSelector('[data-run]:not([disabled])');
    await page.screenshot({path: file});
  } finally {
    await closeBrowser(browser);
  }
}

main().catch((error) => {
  console.error(`page_screenshot: ${error.message}`);
  process.exit(1);
});
