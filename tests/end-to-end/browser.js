// Walks through the demo's pages in a headless browser, one walk a run:
//   node browser.js WALK URL FOLDER [ARGUMENT...]
// FOLDER is for what the browser keeps; with SCREENSHOTS set, pictures go to that folder. A walk
// that ends well prints what it has seen as JSON and gives the exit status 0.
'use strict';

const assert = require('node:assert/strict');
const fs = require('node:fs');
const path = require('node:path');
const { chromium } = require('playwright-core');

const CHROMIUM = '/usr/bin/chromium';
const FLAGS = ['--headless', '--no-sandbox', '--disable-gpu', '--no-first-run',
  '--disable-background-networking', '--disable-component-update', '--disable-sync',
  '--disable-quic'];

const [walk, url, folder, ...rest] = process.argv.slice(2);

async function picture(page, name) {
  if (process.env.SCREENSHOTS)
    await page.screenshot({ path: path.join(process.env.SCREENSHOTS, name + '.png'), fullPage: true });
}

// The text of the one set that runs, such as "Set A Running Corvel R1 1.0.0".
async function runningSet(page) {
  const text = await page.locator('.set[data-running]').innerText();
  return text.replace(/\s+/g, ' ').replace(/ Root file system.*/, '');
}

// Notes down every value that an element's attribute takes, beyond the page's own life.
async function watch(page, selector, attribute) {
  const seen = [];
  const note = 'note_' + selector.slice(1);
  await page.exposeFunction(note, (value) => seen.push(Number(value)));
  await page.addInitScript(([selector, attribute, note]) => {
    new MutationObserver((changes) => {
      for (const { target } of changes)
        if (target.matches(selector)) window[note](target.getAttribute(attribute));
    }).observe(document, { subtree: true, attributes: true, attributeFilter: [attribute] });
  }, [selector, attribute, note]);
  return seen;
}

// What a person must be able to tell and to reach, on whatever page is shown.
async function checkPage(page) {
  const faults = await page.evaluate(() => {
    const found = [];
    const visible = (element) => element.checkVisibility();
    for (const each of document.querySelectorAll('input:not([type=hidden]), select, progress'))
      if (visible(each) && !each.labels.length) found.push('no label: ' + each.outerHTML);
    for (const each of document.querySelectorAll('button, a'))
      if (visible(each) && !each.innerText.trim()) found.push('no text: ' + each.outerHTML);
    if (document.querySelectorAll('h1').length !== 1) found.push('not one h1');
    if (document.documentElement.scrollWidth > window.innerWidth)
      found.push('wider than the window: ' + document.documentElement.scrollWidth);
    const ids = [...document.querySelectorAll('[id]')].map((each) => each.id);
    if (new Set(ids).size !== ids.length) found.push('an id stands twice');
    return found;
  });
  assert.deepEqual(faults, []);
}

async function upload(page, image) {
  await page.goto(url + '/cgi-bin/upgrade');
  await page.getByLabel('Image file').setInputFiles(image);
  await page.getByRole('button', { name: 'Upload and check' }).click();
}

// As slow as a wireless network, so that there is something to see.
async function slowDown(page) {
  const network = await page.context().newCDPSession(page);
  await network.send('Network.enable');
  await network.send('Network.emulateNetworkConditions', {
    offline: false, latency: 0, downloadThroughput: -1, uploadThroughput: 12e6 });
  return network;
}

// One upgrade, from the choice to the restart.
async function upgrade(page, image, name) {
  await page.goto(url + '/cgi-bin/upgrade');
  await checkPage(page);
  await picture(page, name + '-1-choose');
  const network = await slowDown(page);
  await upload(page, image);
  await page.waitForFunction(() => Number(document.querySelector('#sent')?.value) > 30);
  await checkPage(page);
  await picture(page, name + '-2-uploading');
  await page.getByRole('heading', { name: /^Write .* into set/ }).waitFor();
  await network.detach();
  await checkPage(page);
  const rows = await page.locator('tbody tr').allInnerTexts();
  await picture(page, name + '-3-check');

  await page.getByRole('button', { name: 'Write the image' }).click();
  await page.getByRole('heading', { name: 'Writing' }).waitFor();
  await page.getByRole('heading', { name: /is ready$/ }).waitFor();
  await checkPage(page);
  await picture(page, name + '-4-restart');
  const before = await runningSet(page);

  await page.getByRole('button', { name: 'Restart now' }).click();
  await page.getByRole('heading', { name: 'Restarting' }).waitFor();
  await picture(page, name + '-5-restarting');
  await page.getByRole('heading', { name: 'Choose an upgrade image' }).waitFor();
  await checkPage(page);
  await picture(page, name + '-6-restarted');
  return { rows, before, after: await runningSet(page) };
}

const walks = {
  // There and back again.
  async both(page, there, back) {
    const uploading = await watch(page, '#sent', 'value');
    const writing = await watch(page, '#written', 'value');
    const upgrades = [await upgrade(page, there, 'there'), await upgrade(page, back, 'back')];
    return { upgrades, uploading, writing };
  },

  // Sees an image being written, and then that the writing was cut off.
  async write(page, image) {
    const writing = await watch(page, '#written', 'value');
    await upload(page, image);
    await page.getByRole('button', { name: 'Write the image' }).click();
    await page.getByRole('heading', { name: 'Writing' }).waitFor();
    await page.waitForFunction(() => Number(document.querySelector('#written')?.value) >= 30);
    await checkPage(page);
    await picture(page, 'writing');
    console.log('writing');
    await page.getByText('The writing was cut off.').waitFor();
    await picture(page, 'cut-off');
    await checkPage(page);
    await page.getByRole('button', { name: 'Discard' }).click();
    await page.getByRole('heading', { name: 'Choose an upgrade image' }).waitFor();
    return { writing, running: await runningSet(page) };
  },

  async refused(page, image) {
    await upload(page, image);
    const reason = await page.getByRole('alert').innerText();
    await checkPage(page);
    await picture(page, 'refused');
    const focused = await page.evaluate(() => document.activeElement.textContent);
    await page.getByRole('link', { name: 'Choose another image' }).click();
    await page.getByLabel('Image file').waitFor();
    return { reason, focused };
  },

  // A file that is too large is not even sent.
  async tooLarge(page, image) {
    let sent = false;
    page.on('request', (request) => { sent ||= request.method() === 'POST'; });
    await upload(page, image);
    const reason = await page.locator('#error-image').innerText();
    assert.equal(sent, false);
    return reason;
  },

  // Every page at a phone's width, and in the dark.
  async pages(page) {
    for (const width of [320, 390, 1280])
      for (const colorScheme of ['light', 'dark'])
        for (const name of ['network', 'device', 'upgrade']) {
          await page.setViewportSize({ width, height: 844 });
          await page.emulateMedia({ colorScheme });
          await page.goto(`${url}/cgi-bin/${name}`);
          await checkPage(page);
          await picture(page, `${name}-${colorScheme}-${width}`);
        }
    return 'checked';
  },

  // Only the browser's own forms, redirections and refreshes.
  async withoutScripts(page, image) {
    await upload(page, image);
    await page.getByRole('button', { name: 'Write the image' }).click();
    await page.getByRole('heading', { name: /is ready$/ }).waitFor();
    await page.getByRole('button', { name: 'Restart now' }).click();
    await page.getByRole('heading', { name: 'Choose an upgrade image' }).waitFor();
    return runningSet(page);
  },
};

async function main() {
  const profile = fs.mkdtempSync(path.join(folder, 'profile-'));
  const browser = await chromium.launchPersistentContext(profile, {
    executablePath: CHROMIUM, headless: true,
    args: walk === 'withoutScripts' ? [...FLAGS, '--blink-settings=scriptEnabled=false'] : FLAGS,
    colorScheme: process.env.COLOR_SCHEME ?? 'light',
    viewport: { width: Number(process.env.WIDTH ?? 1100), height: 900 },
  });
  try {
    const page = browser.pages()[0];
    const complaints = [];
    page.setDefaultTimeout(60000);
    page.on('pageerror', (error) => complaints.push(String(error)));
    page.on('console', (message) => {
      // A refusal has a status of its own, and a router that restarts does not answer.
      if (message.type() === 'error' && !message.text().startsWith('Failed to load resource'))
        complaints.push(message.text());
    });
    const result = await walks[walk](page, ...rest);
    assert.deepEqual(complaints, []);
    console.log(JSON.stringify(result));
  } finally {
    await browser.close();
  }
}

main().catch((error) => {
  console.error(error);
  process.exitCode = 1;
});
