// Headless Chromium for the fleet page's tests, its screenshot and its
// benchmark: Debian's chromium, driven by puppeteer-core (installed by
// scripts/node_modules.sh; NODE_PATH points at it), with a profile of its
// own that is removed when the browser is closed. Required by node scripts,
// not run.
'use strict';

const fs = require('fs');
const os = require('os');
const path = require('path');

// Debian's browser, or the one $KDX_CHROMIUM names.
function chromiumPath() {
  return process.env.KDX_CHROMIUM || '/usr/bin/chromium';
}

// The flags every run needs: headless, nothing fetched from the network on
// the browser's own account (updates, sync, field trials), and no sandbox
// when running as root, where Chromium refuses to start with it.
function chromiumArgs(profileDir, extra = []) {
  const args = [
    '--headless',
    '--disable-gpu',
    '--no-first-run',
    '--no-default-browser-check',
    '--disable-background-networking',
    '--disable-component-update',
    '--disable-sync',
    '--disable-dev-shm-usage',
    `--user-data-dir=${profileDir}`,
  ];
  if (process.getuid && process.getuid() === 0) args.push('--no-sandbox');
  return args.concat(extra);
}

// Starts the browser; close it with closeBrowser, which also removes its
// profile. `size` is the window's, and so the screenshots', in CSS pixels.
async function launchBrowser({size = {width: 1280, height: 800}, extraArgs = []} = {}) {
  const puppeteer = require('puppeteer-core');
  const profileDir = fs.mkdtempSync(path.join(os.tmpdir(), 'kdx-chromium-'));
  let browser;
  try {
    browser = await puppeteer.launch({
      executablePath: chromiumPath(),
      headless: true,
      // puppeteer's own defaults would add flags of its choice; these are all.
      ignoreDefaultArgs: true,
      args: chromiumArgs(profileDir, [`--window-size=${size.width},${size.height}`, ...extraArgs, 'about:blank']),
      defaultViewport: size,
      protocolTimeout: 30000,
    });
  } catch (error) {
    fs.rmSync(profileDir, {recursive: true, force: true});
    throw error;
  }
  browser.kdxProfileDir = profileDir;
  return browser;
}

async function closeBrowser(browser) {
  if (!browser) return;
  try {
    await browser.close();
  } finally {
    fs.rmSync(browser.kdxProfileDir, {recursive: true, force: true});
  }
}

module.exports = {chromiumPath, chromiumArgs, launchBrowser, closeBrowser};
